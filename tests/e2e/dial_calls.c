/* Test peer for the end-to-end modem tests: starts the SDK, then answers one request per line
 * of standard input:
 *   dial | soft | hard        DialDial, DialSoftReboot, DialHardReboot
 *   online N | offline N      waits up to N s for DialIsOnline to give 0 (-1); prints the time
 *   static | dynamic          the JSON texts */
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
  char text[1024];
  int seconds = 0;

  InitializeSDK();
  printf("\ndial_calls: ready\n");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    if (strncmp(line, "dial", 4) == 0) {
      printf("dial %d\n", DialDial("", ""));
    } else if (strncmp(line, "soft", 4) == 0) {
      printf("soft %d\n", DialSoftReboot());
    } else if (strncmp(line, "hard", 4) == 0) {
      printf("hard %d\n", DialHardReboot());
    } else if (sscanf(line, "online %d", &seconds) == 1 || sscanf(line, "offline %d", &seconds) == 1) {
      const int want = line[1] == 'n' ? 0 : -1;
      const double start = now();
      while (DialIsOnline() != want && now() - start < seconds) {
        const struct timespec nap = {0, 100000000};
        nanosleep(&nap, NULL);
      }
      printf("%s %s after %.1f s\n", want == 0 ? "online" : "offline", DialIsOnline() == want ? "reached" : "missed",
             now() - start);
    } else if (strncmp(line, "static", 6) == 0 || strncmp(line, "dynamic", 7) == 0) {
      const int rc = line[0] == 's' ? DialGetStaticInfo(text, sizeof text) : DialGetDynamicInfo(text, sizeof text);
      printf("%s (%d)\n", text, rc);
    }
    fflush(stdout);
  }
  return 0;
}
