/* A first application on the FSU SDK: sets a serial port (by default "Local/Uart/1") to 115200
 * 8N1, writes a line and prints what comes back within 5 s. On the simulated board the port
 * ends in a loopback plug, so the line returns as it was sent; exits 0 when it did.
 *
 * Build against an installed SDK:  cc uart_echo.c $(pkg-config --cflags --libs fsusdk)
 * Run on the simulated board:      fsusim run -- ./uart_echo [PORT]
 * Answer it yourself:              fsusim run --terminal 2 -- ./uart_echo Local/Uart/2
 */
#include <stdio.h>
#include <string.h>

#include <fsusdk.h>

int main(int argc, char **argv) {
  const char *port = argc > 1 ? argv[1] : "Local/Uart/1";
  char line[64];
  char reply[256];
  int got = 0;

  snprintf(line, sizeof line, "hello from %s\r\n", port);
  const int length = (int)strlen(line);
  InitializeSDK();
  if (SetUartParam(port, 115200, 8, 1, 0) != 0) {
    fprintf(stderr, "uart_echo: cannot set %s\n", port);
    return 1;
  }
  if (WriteUart(port, line, length) != 0) {
    fprintf(stderr, "uart_echo: cannot write %s\n", port);
    return 1;
  }
  /* The port's reader collects what arrives every 100 ms; each read waits up to 100 ms. */
  for (int tries = 0; tries < 50 && got < length; ++tries) {
    const int n = ReadUart(port, reply + got, (int)sizeof reply - 1 - got, 100);
    if (n > 0) got += n;
  }
  reply[got] = '\0';
  printf("\nuart_echo: sent %d bytes, received %d bytes: %s", length, got, reply);
  return got == length && memcmp(reply, line, (size_t)length) == 0 ? 0 : 1;
}
