/* Test peer for the end-to-end board tests: starts the SDK, then answers one request per line
 * of standard input until its end:
 *   ai N   prints "ai N = VOLTS (RESULT)"        (GetAIValue, type 0)
 *   di N   prints "di N = STATE (RESULT)"        (GetDIValue)
 *   led    takes the LEDs over from the SDK (SetLEDValue on an LED without a line), prints "led taken" */
#include <stdio.h>
#include <string.h>

#include <fsusdk.h>

int main(void) {
  char line[64];
  char name[32];
  int n = 0;

  InitializeSDK();
  printf("\nboard_points: ready\n");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    if (sscanf(line, "ai %d", &n) == 1) {
      float volts = -1;
      snprintf(name, sizeof name, "Local/AI/%d", n);
      const int rc = GetAIValue(name, 0, &volts);
      printf("ai %d = %.9g (%d)\n", n, volts, rc);
    } else if (sscanf(line, "di %d", &n) == 1) {
      int state = -1;
      snprintf(name, sizeof name, "Local/DI/%d", n);
      const int rc = GetDIValue(name, &state);
      printf("di %d = %d (%d)\n", n, state, rc);
    } else if (strncmp(line, "led", 3) == 0) {
      SetLEDValue("Local/Led/2", 1);
      printf("led taken\n");
    }
    fflush(stdout);
  }
  return 0;
}
