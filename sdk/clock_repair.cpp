#include "sdk/clock_repair.h"

#include <cstdint>
#include <cstdio>

#include "board/software_watchdog.h"
#include "gps/gps_record.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "sdk/lifecycle.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::sdk {
namespace {

constexpr int kStartUpWaitSeconds = 20;
constexpr long kCheckPeriodSeconds = 60;

void log_clock_state() {
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "gps %d %ld", HW_RTC_IS_Err(), static_cast<long>(gps::gps_fix().gps_time));
}

}  // namespace

bool set_time_from_fix() {
  const std::int32_t seconds = gps::gps_fix().gps_time;
  if (seconds <= 0) return false;
  char command[64];
  std::snprintf(command, sizeof command, "date -s '%s'", support::Return_systime_string(seconds));
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "gps set time=%s", command);
  platform::run_command(command);
  board::bsp_SoftDogFeed();
  return true;
}

void HW_RESOURCES_CHECK_FUN() {
  log_clock_state();
  if (HW_RTC_IS_Err() != 1) return;
  for (int second = 0; second < kStartUpWaitSeconds; ++second) {
    platform::sleep_s(1);
    if (set_time_from_fix()) return;
  }
}

void api_box_hw_check_pass() {
  log_clock_state();
  if (HW_RTC_IS_Err() == 1) set_time_from_fix();
}

void* API_BOX_HW_CHECK(void* /*arg*/) {
  for (;;) {
    platform::sleep_s(kCheckPeriodSeconds);
    api_box_hw_check_pass();
  }
}

}  // namespace fsu::sdk
