// The SDK's own use of the LEDs: the start-up sweep and the LED thread that shows the unit is
// running, whether the data link has an address and whether the environment board answers,
// until an application drives an LED itself.
#pragma once

namespace fsu::sdk {

// Start-up sweep: LEDs on, 1 s, LEDs off.
void sdk_start_log();
// Starts SDK_LED_RUN as a thread; the creation result.
int SDK_LED_HANDLE();
void* SDK_LED_RUN(void* arg);

// What the LED thread keeps between passes.
struct SdkLedState {
  int run = 0;  // the run LED's last state
};
// One pass of the LED thread (run each second).
void sdk_led_pass(SdkLedState& state);

}  // namespace fsu::sdk
