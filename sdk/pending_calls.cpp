// Stand-ins for dial and positioning calls whose own modules are not in this tree yet: each
// keeps the call's result and effect on the shared records as far as this tree can.
#include "sdk/pending_calls.h"

#include <cstdio>
#include <cstring>

#include "gps/gps_record.h"
#include "lte/ntu.h"
#include "support/sdk_log.h"

using fsu::support::SDK_LOG_NET;
using fsu::support::SDK_LOG_WRITE;

extern "C" int DialDial(const char* user, const char* password) {
  fsu::lte::NTU.pppdstart.store(1);
  SDK_LOG_WRITE(SDK_LOG_NET, "执行拨号动作(%s,%s)", user ? user : "(null)", password ? password : "(null)");
  return 0;
}

extern "C" int DialIsOnline(void) {
  char ip[fsu::lte::kNtuTextSize];
  fsu::lte::ntu_text(fsu::lte::NtuText::lteip, ip);
  const bool online = std::strlen(ip) >= 6;
  SDK_LOG_WRITE(SDK_LOG_NET, online ? "通过ppp0网卡获取相应的ip拨号成功" : "通过ppp0网卡获取相应的ip拨号失败");
  return online ? 0 : -1;
}

extern "C" int DialGetStaticInfo(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  const fsu::lte::NtuTexts t = fsu::lte::ntu_texts();
  std::snprintf(buf, static_cast<std::size_t>(size), "{\"Model\":\"%s\", \"IMEI\":\"%s\", \"IMSI\":\"%s\"}", t.model,
                t.imei, t.cimi);
  return 0;
}

extern "C" int DialGetDynamicInfo(char* buf, int size) {
  if (buf == nullptr || size <= 0) return -1;
  const fsu::lte::NtuTexts t = fsu::lte::ntu_texts();
  std::snprintf(buf, static_cast<std::size_t>(size), "{\"SignalStrength\":\"%s\", \"IP\":\"%s\"}", t.csq, t.lteip);
  return 0;
}

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
