#include "platform/clock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <sys/time.h>

namespace fsu::platform {

namespace {

std::atomic<double> g_monotonic_offset{0};  // only tests move it

double real_seconds(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// On the simulated board (FSU_ROOT set) a process may run faster than real time, so that a
// test of a minute-long behaviour takes seconds: FSU_CLOCK_RATE=N (2 to 100) makes every
// reading advance N seconds per real second from the process's first reading, and every
// sleep last 1/N of its time. Anything else in it, and the setting on the board, is ignored.
struct Pace {
  double rate = 1;
  double wall_start = 0;
  double monotonic_start = 0;
  Pace() {
    const char* text = std::getenv("FSU_CLOCK_RATE");
    if (std::getenv("FSU_ROOT") == nullptr || text == nullptr) return;
    char* end = nullptr;
    const long n = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || n < 2 || n > 100) return;
    rate = static_cast<double>(n);
    wall_start = real_seconds(CLOCK_REALTIME);
    monotonic_start = real_seconds(CLOCK_MONOTONIC);
  }
  double paced(double now, double start) const { return rate == 1 ? now : start + (now - start) * rate; }
};

const Pace& pace() {
  static const Pace p;
  return p;
}

}  // namespace

WallTime wall_now() {
  if (pace().rate == 1) {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    return {tv.tv_sec, static_cast<long>(tv.tv_usec)};
  }
  const double now = pace().paced(real_seconds(CLOCK_REALTIME), pace().wall_start);
  const auto seconds = static_cast<std::time_t>(now);
  return {seconds, static_cast<long>((now - static_cast<double>(seconds)) * 1e6) % 1000000};
}

std::time_t seconds_now() { return pace().rate == 1 ? std::time(nullptr) : wall_now().seconds; }

double monotonic_seconds() {
  return pace().paced(real_seconds(CLOCK_MONOTONIC), pace().monotonic_start) +
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

namespace {
std::atomic<void (*)(long)> g_sleep_taker{nullptr};
}  // namespace

void hand_sleeps_to_for_tests(void (*taker)(long milliseconds)) { g_sleep_taker.store(taker); }

void sleep_ms(long milliseconds) {
  if (milliseconds <= 0) return;
  if (void (*taker)(long) = g_sleep_taker.load()) return taker(milliseconds);
  if (pace().rate != 1) milliseconds = std::max(1L, static_cast<long>(static_cast<double>(milliseconds) / pace().rate));
  timespec left{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

void sleep_s(long seconds) { sleep_ms(seconds * 1000); }

}  // namespace fsu::platform
