#include "gps/position_mode.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gps/nmea_reader.h"
#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/sandbox_root.h"
#include "serial/uart_driver.h"
#include "support/config_reader.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::gps {

std::atomic<int> PositionMode{0};

namespace {

using support::SDK_LOG_SYS;
using support::SDK_LOG_WRITE;

constexpr const char* kDefaultMarker = "/etc/kq_bd_gps_default";
constexpr const char* kReadPcas = "uci get dtm.sys.pcas";
constexpr const char* kReadPcasSdk = "uci get dtm.sys.pcas_sdk";
constexpr const char* kGpsOnly = "$PCAS04,1*18\r\n";
constexpr const char* kBeiDouOnly = "$PCAS04,2*1B\r\n";
constexpr const char* kBoth = "$PCAS04,3*1A\r\n";
constexpr const char* kSave = "$PCAS00*01\r\n";
constexpr std::size_t kCommandBuffer = 100;

std::atomic<void (*)(long)> mode_wait{platform::sleep_s};

// An option's integer value; 0 when it is missing or not a number.
int option(const char* command) {
  const long value = std::strtol(support::sdkuci_get_ram(command), nullptr, 10);
  return static_cast<int>(value < INT_MIN ? INT_MIN : value > INT_MAX ? INT_MAX : value);
}

void to_receiver(const char* command) {
  std::uint32_t written = 0;
  serial::GPS_COM_WRITE(command, static_cast<std::uint32_t>(std::strlen(command)), &written);
}

// Both options to `mode`, committed.
void store_mode(int mode) {
  char command[kCommandBuffer];
  std::snprintf(command, sizeof command, "uci set dtm.sys.pcas=%d", mode);
  platform::run_command(command);
  std::snprintf(command, sizeof command, "uci set dtm.sys.pcas_sdk=%d", mode);
  platform::run_command(command);
  platform::run_command("uci commit");
  SDK_LOG_WRITE(SDK_LOG_SYS, "gps_pcas set :%s", command);
}

// The record cleared, the receiver's files removed and the reader told to skip one batch.
int forget_position() {
  clear_gps_info();
  const int status = remove_gps_files();
  request_gps_reset();
  return status;
}

}  // namespace

int Read_PositionMode() {
  const int mode = PositionMode.load();
  return mode == kPositioningOff ? 0 : mode;
}

void GPS_DEFAULT_SET() {
  if (support::IsFileExist(kDefaultMarker) == 1) return;
  platform::run_commandf("echo 1 >%s", platform::DevicePath(kDefaultMarker).c_str());
  platform::run_command("uci set dtm.sys.pcas=2;uci commit");
}

int GPS_MODE_UPDATE() {
  support::sdkuci_free();
  PositionMode.store(option(kReadPcas));
  const int sdk = option(kReadPcasSdk);
  SDK_LOG_WRITE(SDK_LOG_SYS, "sdk gps_pcas=%d", sdk);
  if (sdk != 0) PositionMode.store(sdk);
  SDK_LOG_WRITE(SDK_LOG_SYS, "gps_pcas=%d,PositionMode=%d", sdk, PositionMode.load());
  const auto wait = mode_wait.load();
  if (sdk != kPositioningOff) {
    to_receiver(sdk == 1 ? kGpsOnly : sdk == 2 ? kBeiDouOnly : kBoth);
    wait(1);
    to_receiver(kSave);
  }
  wait(2);
  return forget_position();
}

int SDK_GPS_SET_PCAS(int mode) {
  support::sdkuci_free();
  const int pcas = option(kReadPcas);
  const int sdk = option(kReadPcasSdk);
  if (mode != 0) {
    PositionMode.store(mode);
    SDK_LOG_WRITE(SDK_LOG_SYS, "gps_pcas sdkk=%d", pcas);
    if (pcas != mode) store_mode(mode);
    return GPS_MODE_UPDATE();
  }
  if (sdk != kPositioningOff) {
    platform::run_commandf("uci set dtm.sys.pcas_sdk=%d", kPositioningOff);
    platform::run_commandf("uci set dtm.sys.pcas=%d", kPositioningOff);
    platform::run_command("uci commit");
  }
  SDK_LOG_WRITE(SDK_LOG_SYS, "gps_pcas sdk=%d", kPositioningOff);
  PositionMode.store(kPositioningOff);
  // Switched off, no position is reported any more: the same as switching off through 99999.
  forget_position();
  return 0;
}

int GPS_SET_PCAS(int mode) {
  support::sdkuci_free();
  const int pcas = option(kReadPcas);
  SDK_LOG_WRITE(SDK_LOG_SYS, "gps_pcas web=%d", pcas);
  if (pcas != mode) store_mode(mode);
  return GPS_MODE_UPDATE();
}

void set_mode_update_wait(void (*wait_seconds)(long)) { mode_wait.store(wait_seconds != nullptr ? wait_seconds : platform::sleep_s); }

}  // namespace fsu::gps
