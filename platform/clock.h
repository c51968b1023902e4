// The one place for clock readings and sleeps, so that time-dependent code has a single seam.
#pragma once

#include <ctime>

namespace fsu::platform {

struct WallTime {
  std::time_t seconds;  // calendar seconds
  long microseconds;    // 0 to 999999
};

// Calendar time of day (gettimeofday).
WallTime wall_now();
// Calendar seconds (time()).
std::time_t seconds_now();
// Seconds since an arbitrary start that never jumps (for deadlines, not for records).
double monotonic_seconds();
// For tests: moves monotonic_seconds() on by `seconds` for the rest of the process, so that a
// period the code waits for passes without waiting.
void advance_monotonic_for_tests(double seconds);
// Local broken-down time of `t`.
std::tm local_time(std::time_t t);

// Sleeps, resuming after signals until the full time has passed.
void sleep_ms(long milliseconds);
void sleep_s(long seconds);
// For tests: every sleep of the process is handed to `taker` (its length in milliseconds, as
// asked) instead of being slept, so that a routine's pace is seen without waiting for it; the
// taker may throw to end a routine that runs for ever. nullptr sleeps again.
void hand_sleeps_to_for_tests(void (*taker)(long milliseconds));

}  // namespace fsu::platform
