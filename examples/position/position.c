/* Reading the position: sets the positioning mode, waits for a fix (printing the position report
 * once a second), then prints the satellites' signal report. Exits 1 when no fix came in time.
 *
 *   fsusim run -- ./position [MODE [SECONDS]]    MODE 1 GPS, 2 BeiDou, 3 both (default), 0 off
 *
 * A unit at its factory setting (the simulated board too) answers MODE 2 with both systems:
 * ask for 1 first to get BeiDou alone (docs/api.md, "Positioning").
 */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fsusdk.h>

int main(int argc, char **argv) {
  const int mode = argc > 1 ? atoi(argv[1]) : 3;
  const int seconds = argc > 2 ? atoi(argv[2]) : 30;
  char report[256], signal[1024];
  int fixed = 0;

  InitializeSDK();
  SetPositionMode(mode); /* sends the receiver its mode and clears the position: about 3 s (0: at once) */
  printf("\nposition: mode %d\n", mode);
  for (int i = 0; i < seconds && !fixed; ++i) {
    sleep(1); /* the receiver sends a batch a second; the SDK parses what has gathered every 2 to 3 s */
    if (BSP_GET_GPS_INFO(report) != 0) continue;
    printf("position: %s", report); /* longitude, latitude, altitude, satellites */
    fixed = strncmp(report, "经度=0.00000000,纬度=0.00000000,", strlen("经度=0.00000000,纬度=0.00000000,")) != 0;
    fflush(stdout);
  }
  /* -1 until a complete group of GSV sentences has come in. */
  if (BSP_GET_GPS_dB_INFO(signal) == 0) printf("signal: %s\n", signal);
  return fixed ? 0 : 1;
}
