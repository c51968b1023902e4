#include "gps/gps_record.h"

#include <mutex>

namespace fsu::gps {
namespace {

// Readers and the publishing reader copy the record under this lock: about 1.3 KB, once a
// second from the reader, on request from everyone else.
std::mutex record_lock;
GpsInfo STR_GPS_INFO;

}  // namespace

GpsInfo gps_info() {
  std::lock_guard<std::mutex> lock(record_lock);
  return STR_GPS_INFO;
}

void publish_gps_info(const GpsInfo& info) {
  std::lock_guard<std::mutex> lock(record_lock);
  STR_GPS_INFO = info;
}

GpsFix gps_fix() {
  std::lock_guard<std::mutex> lock(record_lock);
  const GpsInfo& r = STR_GPS_INFO;
  return GpsFix{r.longitude, r.latitude, r.altitude, r.gps_in_view, r.gps_used, r.bd_in_view, r.bd_used, r.gps_time,
                r.south, r.west};
}

}  // namespace fsu::gps
