#include "sdk/sdk_leds.h"

#include <cstdio>
#include <pthread.h>

#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/console_output.h"
#include "sdk/board_points.h"
#include "serial/environment_link.h"

namespace fsu::sdk {
namespace {

constexpr int kRunLed = 501, kAlarmLed = 503, kNetLed = 504, kBoardLed = 509;

pthread_t SDKLED_thread;

void sweep(int value) {
  for (int id : {501, 503, 504}) SetLEDValue_FromResourceName(id, value);
  for (int id = 509; id <= 522; ++id) SetLEDValue_FromResourceName(id, value);
}

}  // namespace

void sdk_start_log() {
  fsu::platform::sdk_puts("SDK:open all led\r");
  sweep(1);
  platform::sleep_s(1);
  fsu::platform::sdk_puts("SDK:close all led\r");
  sweep(0);
}

void sdk_led_pass(SdkLedState& state) {
  if (SDK_LED_CONTROL_SELF_FG.load() == 1) return;
  state.run = !state.run;
  SetLEDValue_FromResourceName(kRunLed, state.run);
  SetLEDValue_FromResourceName(kAlarmLed, 0);
  SetLEDValue_FromResourceName(kNetLed, lte::ntu_online() ? 1 : 0);
  SetLEDValue_FromResourceName(kBoardLed, serial::REAG_ENV_BOARD_RIGHT_FG() == 1 ? 1 : 0);
}

void* SDK_LED_RUN(void*) {
  SdkLedState state;
  for (;;) {
    platform::sleep_s(1);
    sdk_led_pass(state);
  }
}

int SDK_LED_HANDLE() { return pthread_create(&SDKLED_thread, nullptr, SDK_LED_RUN, nullptr); }

}  // namespace fsu::sdk
