// The NMEA reader: splits the receiver's text into sentences, checks each checksum and updates
// the positioning record from ZDA, GSV, GSA, RMC and GGA sentences. Nothing is allocated per
// sentence; every field is read through one table of comma offsets.
#pragma once

#include <cstdint>

namespace fsu::gps {

// Batches of up to this many bytes are left to grow: the reader parses only larger ones.
constexpr int kGpsBatchBytes = 1024;

// Parses the receive buffer's `count` bytes (the text need not be terminated) as one batch.
// -1, touching nothing, while the count is 1024 or less (or the text is null); otherwise 0,
// after a parse pass or, when a reset was requested, after clearing the record instead.
int BSP_GPS_READ(const char* text, int count);

// Clears the record, the reader's own copy included.
void clear_gps_info();
// Asks the reader to clear the record once more, remove /tmp/gps_* and skip its next batch.
void request_gps_reset();
// Runs "rm /tmp/gps_*" (files of the receiver's that other software leaves); the shell's status.
int remove_gps_files();

// The text strictly between the n-th occurrence of needle a and the m-th occurrence of needle b
// (each counted from the start of the text, a search restarting one character after the previous
// hit), cut at 99 characters. Empty text when anything is missing or b's hit is not behind a's.
// The result is a per-thread buffer that the next call overwrites.
const char* Read_A_Str(const char* text, int n, int m, const char* a, const char* b);
// Occurrences of the needle in the text, a search restarting one character after each hit.
int Read_Str_Num(const char* text, const char* needle);
// XOR of `len` bytes.
std::uint8_t Check_sum(const std::uint8_t* data, int len);

// For tests: the reader and the record as at process start.
void reset_gps_reader_for_tests();

}  // namespace fsu::gps
