// Positioning mode: which constellations the receiver tracks, kept in the uci options
// dtm.sys.pcas and dtm.sys.pcas_sdk, mirrored in PositionMode (1 GPS, 2 BeiDou, 0 or 3 both,
// 99999 off) and commanded to the receiver with $PCAS04 and saved there with $PCAS00.
#pragma once

#include <atomic>

namespace fsu::gps {

constexpr int kPositioningOff = 99999;

extern std::atomic<int> PositionMode;

// PositionMode, or 0 when positioning is switched off (99999).
int Read_PositionMode();

// Applies the factory default (dtm.sys.pcas 2) once per device, marked by /etc/kq_bd_gps_default.
void GPS_DEFAULT_SET();
// Reads both options, sets PositionMode, commands the receiver (with its waits of 1 s after a
// mode command and 2 s at the end), clears the record and asks the reader to skip one batch.
// Returns the shell status of its last command.
int GPS_MODE_UPDATE();
// The public call's setter: 0 switches positioning off without commanding the receiver.
int SDK_GPS_SET_PCAS(int mode);
// The web page's and the console's setter: 0 both, 1 GPS, 2 BeiDou.
int GPS_SET_PCAS(int mode);

// For tests: how the mode update waits (platform::sleep_s unless replaced).
void set_mode_update_wait(void (*wait_seconds)(long));

}  // namespace fsu::gps
