#include "platform/clock.h"

#include <atomic>
#include <cerrno>
#include <sys/time.h>

namespace fsu::platform {

WallTime wall_now() {
  timeval tv{};
  gettimeofday(&tv, nullptr);
  return {tv.tv_sec, static_cast<long>(tv.tv_usec)};
}

std::time_t seconds_now() { return std::time(nullptr); }

namespace {
std::atomic<double> g_monotonic_offset{0};  // only tests move it
}  // namespace

double monotonic_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9 +
         g_monotonic_offset.load(std::memory_order_relaxed);
}

void advance_monotonic_for_tests(double seconds) {
  double offset = g_monotonic_offset.load();
  while (!g_monotonic_offset.compare_exchange_weak(offset, offset + seconds)) {
  }
}

std::tm local_time(std::time_t t) {
  std::tm out{};
  localtime_r(&t, &out);
  return out;
}

void sleep_ms(long milliseconds) {
  if (milliseconds <= 0) return;
  timespec left{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void sleep_s(long seconds) { sleep_ms(seconds * 1000); }

}  // namespace fsu::platform
