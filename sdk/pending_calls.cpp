// Stand-ins for the positioning reports whose own module is not in this tree yet: each keeps
// the call's result and text as far as this tree can.
#include "sdk/pending_calls.h"

#include <cstdio>
#include <cstring>

#include "gps/gps_record.h"

extern "C" int BSP_GET_GPS_INFO(char* buf) {
  if (buf == nullptr) return -1;
  const fsu::gps::GpsFix f = fsu::gps::gps_fix();
  std::snprintf(buf, 256,
                "经度=%.8lf,纬度=%.8lf,高度=%f;GPS有效卫星数=%.0f,GPS可视卫星数=%.0f;北斗有效卫星数=%.0f,北斗可视卫星数=%.0f\r\n",
                f.longitude, f.latitude, static_cast<double>(f.altitude), static_cast<double>(f.gps_used),
                static_cast<double>(f.gps_in_view), static_cast<double>(f.bd_used), static_cast<double>(f.bd_in_view));
  return 0;
}

extern "C" int BSP_GET_GPS_dB_INFO(char* buf) {
  if (buf == nullptr) return -1;
  std::memset(buf, 0, 1024);  // no signal report without the receiver's mode module
  return -1;
}
