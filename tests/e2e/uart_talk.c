/* Test peer for the end-to-end serial tests: starts the SDK, sends a line on the port named on
 * the command line, then prints every line that comes back until "bye" or 20 s have passed. */
#include <stdio.h>
#include <string.h>

#include <fsusdk.h>

int main(int argc, char **argv) {
  const char *port = argc > 1 ? argv[1] : "Local/Uart/2";
  static const char hello[] = "from sdk\n";
  char buf[1024];
  int got = 0;

  InitializeSDK();
  SetUartParam(port, 115200, 8, 1, 0);
  printf("\nuart_talk: ready\n");
  fflush(stdout);
  WriteUart(port, hello, (int)strlen(hello));
  for (int pass = 0; pass < 200 && got < (int)sizeof buf - 1; ++pass) {
    const int n = ReadUart(port, buf + got, (int)sizeof buf - 1 - got, 100);
    if (n <= 0) continue;
    got += n;
    buf[got] = '\0';
    if (strstr(buf, "bye")) break;
  }
  buf[got] = '\0';
  printf("uart_talk: got [%s]\n", buf);
  return 0;
}
