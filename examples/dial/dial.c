/* Dialling: asks the SDK for the cellular data link, waits for it and reads the modem's
 * information. One request per line of standard input, until the input ends:
 *   dial                  asks for the link once: the SDK's LTE thread dials on its next pass
 *                         if the modem is registered then, and drops the request otherwise
 *   online N | offline N  waits up to N s for the link to be up (down); prints how long it took.
 *                         While it waits to be online it asks for the link again every 20 s.
 *   info                  the modem's static and dynamic information (JSON texts)
 *   soft                  restarts the modem (by AT command, or by its power for models that need it)
 *
 * The SDK does not keep the link up: a request is served once (a modem that is unplugged,
 * restarting or not registered at that moment uses it up), and after a drop nothing dials
 * again. An application watches DialIsOnline and asks again while it is offline, as `online N`
 * does; it does not ask while online, which takes the link down and dials anew.
 *
 * On the simulated board:  printf 'dial\nonline 60\ninfo\n' | fsusim run -- ./dial
 */
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <fsusdk.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Polls DialIsOnline (0 online, -1 not) every 100 ms until it gives `want` or `seconds` pass. */
static void wait_link(int want, int seconds) {
  const double start = now();
  double asked = start;
  while (DialIsOnline() != want && now() - start < seconds) {
    const struct timespec nap = {0, 100000000};
    nanosleep(&nap, NULL);
    if (want == 0 && now() - asked >= 20) {
      DialDial("", "");
      asked = now();
    }
  }
  printf("%s %s after %.1f s\n", want == 0 ? "online" : "offline", DialIsOnline() == want ? "reached" : "missed",
         now() - start);
}

int main(void) {
  char line[64], text[1024];
  int seconds = 0;

  InitializeSDK();
  printf("\ndial: ready\n");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    if (strncmp(line, "dial", 4) == 0) {
      printf("dial %d\n", DialDial("", "")); /* both texts are only logged */
    } else if (strncmp(line, "soft", 4) == 0) {
      printf("soft %d\n", DialSoftReboot());
    } else if (strncmp(line, "info", 4) == 0) {
      if (DialGetStaticInfo(text, sizeof text) == 0) printf("static %s\n", text);
      if (DialGetDynamicInfo(text, sizeof text) == 0) printf("dynamic %s\n", text);
    } else if (sscanf(line, "online %d", &seconds) == 1 || sscanf(line, "offline %d", &seconds) == 1) {
      wait_link(line[1] == 'n' ? 0 : -1, seconds);
    } else {
      printf("requests: dial, online N, offline N, info, soft\n");
    }
    fflush(stdout);
  }
  return 0;
}
