#include "gps/signal_report.h"

#include <atomic>

#include "support/bounded_text.h"
#include "support/thread_buffer.h"

namespace fsu::gps {
namespace {

std::atomic<int> GPS_dB_Read{0};

void append_table(support::BoundedText& text, const std::int32_t (&ids)[kSatSlots], const std::int32_t (&cn0)[kSatSlots]) {
  for (int slot = 0; slot < kSatSlots; ++slot) {
    if (ids[slot] > 0) text.append("%d,", ids[slot]);
  }
  text.append(",CN0=");
  for (int slot = 0; slot < kSatSlots; ++slot) {
    if (ids[slot] > 0) text.append("%d,", cn0[slot]);
  }
}

}  // namespace

std::size_t build_signal_report(const GpsInfo& info, char* out, std::size_t size) {
  support::BoundedText text(out, size);
  text.append("GPS,卫星标识=");
  append_table(text, info.gps_sat_id, info.gps_cn0);
  text.append("\r\n;BD,卫星标识=");
  append_table(text, info.bd_sat_id, info.bd_cn0);
  return text.length();
}

const char* SET_GPS_BD_dB() {
  thread_local support::ThreadBuffer<kSignalReportSize> report_buffer;
  auto& GPSDB_INFO = report_buffer.text();
  GPS_dB_Read.store(1);
  build_signal_report(gps_info(), GPSDB_INFO, sizeof GPSDB_INFO);
  return GPSDB_INFO;
}

int Read_GPS_dB_Flag() { return GPS_dB_Read.exchange(0) == 1 ? 1 : 0; }

void signal_report_ready() { GPS_dB_Read.store(1); }

}  // namespace fsu::gps
