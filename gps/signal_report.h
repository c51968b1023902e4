// The satellite signal report: every GPS and BeiDou satellite of the record's tables with its
// carrier-to-noise density, as the web page and the console show it, and the flag that tells
// whether a report is ready.
#pragma once

#include <cstddef>

#include "gps/gps_record.h"

namespace fsu::gps {

constexpr std::size_t kSignalReportSize = 1024;

// Writes the report of `info` into `out` (cut at size - 1 bytes, always terminated); returns
// its length.
std::size_t build_signal_report(const GpsInfo& info, char* out, std::size_t size);

// Builds the report from the record as it stands, raises the ready flag and returns the text
// (a per-thread buffer of kSignalReportSize bytes that the next call overwrites).
const char* SET_GPS_BD_dB();
// 1, clearing the flag, when a report has been made ready since the last call; else 0.
int Read_GPS_dB_Flag();
// The reader's part at the end of a GSV group: the report is ready. Its text is built when it
// is asked for, since every reader of the text builds it afresh anyway.
void signal_report_ready();

}  // namespace fsu::gps
