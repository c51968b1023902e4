/* Inputs and relays: reads the unit's analogue and digital inputs and switches its relay
 * outputs, one request per line of standard input, until the input ends:
 *   ai N          voltage and current of "Local/AI/N" (1 to 16)
 *   di N          state of the contact at "Local/DI/N" (1 to 24)
 *   do N 0|1      switches "Local/DO/N" (1 to 8) off or on
 *   led NAME 0|1  switches "Local/Led/NAME"; from then on the SDK leaves the LEDs to this program
 *
 * On the simulated board (see docs/fsusim.md), with the relay's state in sim/state:
 *   fsusim up --root /tmp/unit &
 *   FSU_ROOT=/tmp/unit PATH=/tmp/unit/bin:$PATH ./inputs_relays
 *   fsusim ctl --root /tmp/unit 'ai 3 2.5' 'di 5 closed'     then type: ai 3, di 5, do 1 1
 *   grep '^relay 1 ' /tmp/unit/sim/state
 */
#include <stdio.h>
#include <string.h>

#include <fsusdk.h>

static void read_analogue(int n) {
  char name[32];
  float volts = 0, milliamps = 0;
  snprintf(name, sizeof name, "Local/AI/%d", n);
  /* Type 0 reads the voltage, any other type the current of the same channel. */
  if (GetAIValue(name, 0, &volts) != 0 || GetAIValue(name, 1, &milliamps) != 0) {
    printf("ai %d: no such input on this unit\n", n);
    return;
  }
  printf("ai %d = %.6f V, %.3f mA\n", n, volts, milliamps);
}

static void read_contact(int n) {
  char name[32];
  int state = 0;
  snprintf(name, sizeof name, "Local/DI/%d", n);
  if (GetDIValue(name, &state) != 0) {
    printf("di %d: no such input on this unit\n", n);
    return;
  }
  printf("di %d = %d (%s)\n", n, state, state ? "closed" : "open");
}

static void switch_relay(int n, int value) {
  char name[32];
  snprintf(name, sizeof name, "Local/DO/%d", n);
  /* 0 says the request is on its way; the board carries it out within a second or two. */
  if (SetDOValue(name, value) != 0) {
    printf("do %d: no such output\n", n);
    return;
  }
  printf("do %d = %d requested\n", n, value);
}

static void switch_led(const char *led, int value) {
  char name[48];
  snprintf(name, sizeof name, "Local/Led/%s", led);
  SetLEDValue(name, value); /* returns -1 whether or not the LED has a line */
  printf("led %s = %d\n", led, value);
}

int main(void) {
  char line[128], word[16], led[16];
  char resources[1024];
  int n = 0, value = 0;

  InitializeSDK(); /* at least 6 s: the boards answer and are counted, the receiver gets its mode */
  if (ReadFSUResource(resources, sizeof resources) == 0) printf("\ninputs_relays: resources %s\n", resources);
  printf("inputs_relays: ready\n");
  fflush(stdout);
  while (fgets(line, sizeof line, stdin)) {
    if (sscanf(line, "ai %d", &n) == 1) {
      read_analogue(n);
    } else if (sscanf(line, "di %d", &n) == 1) {
      read_contact(n);
    } else if (sscanf(line, "do %d %d", &n, &value) == 2) {
      switch_relay(n, value);
    } else if (sscanf(line, "led %15s %d", led, &value) == 2) {
      switch_led(led, value);
    } else if (sscanf(line, "%15s", word) == 1) {
      printf("requests: ai N, di N, do N 0|1, led NAME 0|1\n");
    }
    fflush(stdout);
  }
  return 0;
}
