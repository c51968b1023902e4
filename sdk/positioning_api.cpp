// The public positioning calls: the position and signal reports and the two mode setters.
#include <cstdio>
#include <cstring>

#include "fsusdk.h"
#include "gps/gps_record.h"
#include "gps/position_mode.h"
#include "gps/signal_report.h"
#include "support/sdk_log.h"

using fsu::support::SDK_LOG_SYS;
using fsu::support::SDK_LOG_WRITE;

namespace {

// The least the position report's callers must provide; the text always fits it.
constexpr std::size_t kGpsInfoSize = 256;
constexpr std::size_t kGpsInfoCleared = 100;

}  // namespace

extern "C" int BSP_GET_GPS_INFO(char* buf) {
  if (buf == nullptr) return -1;
  std::memset(buf, 0, kGpsInfoCleared);
  const fsu::gps::GpsFix fix = fsu::gps::gps_fix();
  std::snprintf(buf, kGpsInfoSize,
                "经度=%.8lf,纬度=%.8lf,高度=%f;GPS有效卫星数=%.0f,GPS可视卫星数=%.0f;北斗有效卫星数=%.0f,北斗可视卫星数=%.0f\r\n",
                fix.longitude, fix.latitude, static_cast<double>(fix.altitude), static_cast<double>(fix.gps_used),
                static_cast<double>(fix.gps_in_view), static_cast<double>(fix.bd_used),
                static_cast<double>(fix.bd_in_view));
  return 0;
}

extern "C" int BSP_GET_GPS_dB_INFO(char* buf) {
  if (buf == nullptr) return -1;
  std::memset(buf, 0, fsu::gps::kSignalReportSize);
  if (fsu::gps::Read_GPS_dB_Flag() <= 0) return -1;
  std::snprintf(buf, fsu::gps::kSignalReportSize, "%s", fsu::gps::SET_GPS_BD_dB());
  return 0;
}

extern "C" int BSP_SET_GPS_PCAS(int mode) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "web pcas set %d", mode);
  fsu::gps::GPS_SET_PCAS(mode);
  return 0;
}

extern "C" int SetPositionMode(int mode) {
  SDK_LOG_WRITE(SDK_LOG_SYS, "pcas set %d", mode);
  if (mode == 0) {
    mode = fsu::gps::kPositioningOff;
    SDK_LOG_WRITE(SDK_LOG_SYS, "pcas set %d", mode);
  }
  fsu::gps::SDK_GPS_SET_PCAS(mode);
  return 0;
}
