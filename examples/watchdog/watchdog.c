/* The software watchdog: arms it, feeds it for a while, then stops feeding it as a program that
 * hangs would. The unit reboots at the first check after the last feed has become older than
 * the interval plus 60 s. The simulated board only records the reboot (sim/calls.log), so there
 * the program ends by itself 10 s after the reboot was due.
 *
 *   fsusim run --root /tmp/unit -- ./watchdog [INTERVAL_MS [FEEDS]]
 *   grep reboot /tmp/unit/sim/calls.log
 */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fsusdk.h>

int main(int argc, char **argv) {
  const unsigned interval_ms = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 10) : 1000;
  const int feeds = argc > 2 ? atoi(argv[2]) : 3;
  const unsigned due = interval_ms / 1000 + 60; /* seconds after the last feed */

  InitializeSDK();
  SoftDogEnable(1, interval_ms); /* arming counts as a feed */
  printf("\nwatchdog: armed, interval %u ms\n", interval_ms);
  for (int i = 1; i <= feeds; ++i) {
    sleep(1);
    SoftDogFeed();
    printf("watchdog: fed %d of %d\n", i, feeds);
    fflush(stdout);
  }
  printf("watchdog: no more feeding; the unit reboots in about %u s\n", due);
  fflush(stdout);
  for (unsigned waited = 1; waited <= due + 10; ++waited) {
    sleep(1);
    if (waited % 10 == 0) {
      printf("watchdog: still running %u s after the last feed\n", waited);
      fflush(stdout);
    }
  }
  /* Only a unit that cannot reboot (the simulated board) gets here. */
  SoftDogEnable(0, interval_ms);
  printf("watchdog: disarmed; the reboot was due %u s after the last feed\n", due);
  return 0;
}
