// What the rest of the SDK reads of the positioning record STR_GPS_INFO: position, satellite
// counts and time, always from one parse pass (never a mix of two).
#pragma once

#include <cstdint>

namespace fsu::gps {

struct GpsFix {
  double longitude = 0;  // degrees east, never negative
  double latitude = 0;   // degrees north, never negative
  float altitude = 0;    // metres
  float gps_in_view = 0;
  float gps_used = 0;
  float bd_in_view = 0;
  float bd_used = 0;
  std::int32_t gps_time = 0;  // seconds from the last valid ZDA; 0 until one arrives
};

GpsFix gps_fix();

}  // namespace fsu::gps
