/* Test peer for the end-to-end modem tests: starts the SDK, then answers one request per line
 * of standard input:
 *   dial | soft               DialDial, DialSoftReboot
 *   online N | offline N      waits up to N s for DialIsOnline to give 0 (-1); prints the time.
 * While it waits to be online it asks for the link again every 20 s, as an application's link
 * watchdog does: a request that comes while the modem cannot be dialled is dropped. */
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <fsusdk.h>

static double now(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

int main(void) {
  char line[64];
  int seconds = 0;

  InitializeSDK();
  printf("\ndial_calls: ready\n");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    if (strncmp(line, "dial", 4) == 0) {
      printf("dial %d\n", DialDial("", ""));
    } else if (strncmp(line, "soft", 4) == 0) {
      printf("soft %d\n", DialSoftReboot());
    } else if (sscanf(line, "online %d", &seconds) == 1 || sscanf(line, "offline %d", &seconds) == 1) {
      const int want = line[1] == 'n' ? 0 : -1;
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
    fflush(stdout);
  }
  return 0;
}
