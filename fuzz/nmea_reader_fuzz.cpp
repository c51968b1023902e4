// The NMEA reader on receiver bytes fed as its thread feeds them: byte 0 gives the blanks that open
// the 4096-byte receive buffer (0 to 1020, so short inputs make a batch too), bytes 1 to 4 Read_A_Str's
// counts and needles; then pieces (16-bit size, bytes) appended and handed over one by one.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/pieces.h"
#include "gps/gps_record.h"
#include "gps/nmea_reader.h"
#include "gps/signal_report.h"

namespace {

using namespace fsu::gps;

constexpr std::int32_t kReceiveBuffer = 4096;

bool within(double v, double bound) { return std::isfinite(v) && std::fabs(v) <= bound; }

void check_record() {
  const GpsInfo r = gps_info();
  require(within(r.latitude, 2e6) && within(r.longitude, 2e6) && within(r.altitude, 2e8) && within(r.gps_in_view, 1e8) &&
          within(r.bd_in_view, 1e8) && within(r.gps_used - 100, 100) && within(r.bd_used - 100, 100) && r.gps_time >= 0);
  if (std::strlen(SET_GPS_BD_dB()) >= kSignalReportSize) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 5) return 0;
  reset_gps_reader_for_tests();

  const std::string text(reinterpret_cast<const char*>(data + 5), size - 5);
  const char a[2] = {static_cast<char>(data[2]), 0}, b[2] = {static_cast<char>(data[3]), 0};
  const char* between = Read_A_Str(text.c_str(), data[1] & 15, data[4] & 15, a, b);
  const std::size_t n = std::strlen(between);
  if (n > 99 || (n > 0 && std::strstr(text.c_str(), between) == nullptr)) __builtin_trap();
  if (Read_Str_Num(text.c_str(), a) > static_cast<int>(text.size())) __builtin_trap();

  auto buffer = std::make_unique<char[]>(kReceiveBuffer);
  std::int32_t fill = std::min<std::int32_t>(data[0] * 4, kReceiveBuffer);
  std::memset(buffer.get(), ' ', static_cast<std::size_t>(fill));
  for_each_piece(data, size, 5, [&](const std::uint8_t* piece, std::int32_t len) {
    const std::int32_t kept = std::min(len, kReceiveBuffer - fill);
    std::memcpy(buffer.get() + fill, piece, static_cast<std::size_t>(kept));
    fill += kept;
    const int rc = BSP_GPS_READ(buffer.get(), fill);
    if (rc != 0 && rc != -1) __builtin_trap();
    if (rc == 0) fill = 0;
    check_record();
  });
  return 0;
}
