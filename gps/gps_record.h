// The positioning record STR_GPS_INFO: what the NMEA reader learns from the receiver. The reader
// works on a copy of its own and publishes it whole at the end of every parse pass, so whoever
// reads the record sees position, counts, satellites and time of one pass, never a mix of two.
#pragma once

#include <cstdint>

namespace fsu::gps {

// What the rest of the SDK reads of the record: position, satellite counts and time.
struct GpsFix {
  double longitude = 0;  // degrees east, never negative
  double latitude = 0;   // degrees north, never negative
  float altitude = 0;    // metres
  float gps_in_view = 0;
  float gps_used = 0;
  float bd_in_view = 0;
  float bd_used = 0;
  std::int32_t gps_time = 0;  // seconds from the last valid ZDA; 0 until one arrives
  bool south = false;  // the hemispheres the last fix named (S, W); the degrees above stay unsigned
  bool west = false;
};

GpsFix gps_fix();

// Satellite slots per constellation: nine GSV messages of four satellites, and one more.
constexpr int kSatSlots = 81;

// The whole record, fields in the device's order. An empty satellite slot holds 0 in both tables.
struct GpsInfo {
  double longitude = 0;
  double latitude = 0;
  float altitude = 0;
  float gps_in_view = 0;
  float gps_used = 0;
  float bd_in_view = 0;
  float bd_used = 0;
  std::int32_t gps_sat_id[kSatSlots] = {};
  std::int32_t gps_cn0[kSatSlots] = {};  // dB-Hz of the satellite in the same slot
  std::int32_t bd_sat_id[kSatSlots] = {};
  std::int32_t bd_cn0[kSatSlots] = {};
  std::int32_t gps_time = 0;
  bool south = false;  // hemispheres of the last fix, kept beside the device's unsigned degrees
  bool west = false;
};

// The record as the last parse pass (or the last clear) left it, copied whole.
GpsInfo gps_info();
// Replaces the record whole: the reader, at the end of a pass.
void publish_gps_info(const GpsInfo& info);

}  // namespace fsu::gps
