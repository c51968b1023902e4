// Serial traffic through "Local/Uart/N" (N = 1 unless given) on the simulated board, both ways
// at the line rate, with the application reading every 100 ms. Run it on fsusim with the port
// handed to a terminal, which this program plays as the far device:
//   fsusim run --terminal 1 -- bench/uart_line_rate [seconds]         (scripts/bench_uart.sh)
//   fsusim run --terminal 5 -- bench/uart_line_rate [seconds] 5       (scripts/bench_boards.sh)
// Ports 5 to 12 are channels of the extension boards: their bytes also cross the board's link,
// which runs at 115200 baud as well and carries the link frames' overhead on top.
// It prints the bytes each side sent and received (and any loss or reordering) and the delay
// from the moment the device put a byte on the line to ReadUart returning it.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <mutex>
#include <regex>
#include <string>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fsusdk.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr double kLineRate = 115200.0 / 10;  // bytes per second, 8N1

double seconds_since(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

std::string terminal_of_port(int number) {
  std::ifstream state(std::string(std::getenv("FSU_ROOT")) + "/sim/state");
  std::string line;
  std::smatch m;
  const std::regex terminal("^uart " + std::to_string(number) + " .*terminal=(/dev/pts/[0-9]+)");
  while (std::getline(state, line)) {
    if (std::regex_search(line, m, terminal)) return m[1];
  }
  return "";
}

// Byte i of a stream is i mod 251: a lost or repeated byte shows as a break in the pattern.
std::uint8_t pattern(std::uint64_t i) { return static_cast<std::uint8_t>(i % 251); }

}  // namespace

int main(int argc, char** argv) {
  const double duration = argc > 1 ? std::atof(argv[1]) : 60;
  const int number = argc > 2 ? std::atoi(argv[2]) : 1;
  if (std::getenv("FSU_ROOT") == nullptr || number < 1 || number > 12) {
    std::fprintf(stderr, "run me on fsusim: fsusim run --terminal N -- %s [seconds] [N]\n", argv[0]);
    return 2;
  }
  const std::string port = "Local/Uart/" + std::to_string(number);
  InitializeSDK();
  SetUartParam(port.c_str(), 115200, 8, 1, 0);
  const std::string path = terminal_of_port(number);
  const int device = path.empty() ? -1 : open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (device < 0) {
    std::fprintf(stderr, "port %d is not handed to a terminal (fsusim run --terminal %d)\n", number, number);
    return 2;
  }
  termios raw{};
  tcgetattr(device, &raw);
  cfmakeraw(&raw);
  raw.c_cc[VMIN] = 0;
  raw.c_cc[VTIME] = 1;
  tcsetattr(device, TCSANOW, &raw);

  // Device -> application: every 10 ms the device writes what the line carries in 10 ms, and
  // notes when each byte count was reached.
  struct Mark {
    std::uint64_t total;
    Clock::time_point at;
  };
  std::mutex marks_lock;
  std::vector<Mark> marks;
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> device_sent{0}, device_received{0}, device_bad{0};
  const Clock::time_point t0 = Clock::now();
  std::thread device_writer([&] {
    std::uint8_t buf[512];
    while (!stop.load()) {
      const auto due = static_cast<std::uint64_t>(seconds_since(t0) * kLineRate);
      std::uint64_t sent = device_sent.load();
      std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(due > sent ? due - sent : 0, sizeof buf));
      for (std::size_t i = 0; i < n; ++i) buf[i] = pattern(sent + i);
      if (n > 0 && write(device, buf, n) == static_cast<ssize_t>(n)) {
        device_sent.store(sent + n);
        std::lock_guard<std::mutex> lock(marks_lock);
        marks.push_back({sent + n, Clock::now()});
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  });
  // Application -> device: the device checks the pattern of what arrives.
  std::thread device_reader([&] {
    std::uint8_t buf[4096];
    while (!stop.load() || seconds_since(t0) < duration + 3) {
      const ssize_t n = read(device, buf, sizeof buf);
      for (ssize_t i = 0; i < n; ++i) {
        if (buf[i] != pattern(device_received.load() + static_cast<std::uint64_t>(i))) device_bad.fetch_add(1);
      }
      if (n > 0) device_received.fetch_add(static_cast<std::uint64_t>(n));
      if (stop.load() && n <= 0) break;
    }
  });

  // The application: every 100 ms it writes what the line carries in 100 ms and reads.
  std::uint64_t app_sent = 0, app_received = 0, app_bad = 0;
  std::vector<double> delays;
  char buf[4096];
  const auto read_once = [&] {
    const int n = ReadUart(port.c_str(), buf, sizeof buf, 0);
    if (n <= 0) return;
    const Clock::time_point now = Clock::now();
    for (int i = 0; i < n; ++i) {
      if (static_cast<std::uint8_t>(buf[i]) != pattern(app_received + static_cast<std::uint64_t>(i))) ++app_bad;
    }
    app_received += static_cast<std::uint64_t>(n);
    std::lock_guard<std::mutex> lock(marks_lock);
    const auto it = std::lower_bound(marks.begin(), marks.end(), app_received,
                                     [](const Mark& m, std::uint64_t v) { return m.total < v; });
    if (it != marks.end()) delays.push_back(std::chrono::duration<double>(now - it->at).count());
  };
  while (seconds_since(t0) < duration) {
    const auto due = static_cast<std::uint64_t>(seconds_since(t0) * kLineRate);
    std::vector<char> out;
    for (; app_sent < due; ++app_sent) out.push_back(static_cast<char>(pattern(app_sent)));
    if (!out.empty()) WriteUart(port.c_str(), out.data(), static_cast<int>(out.size()));
    read_once();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  stop.store(true);
  device_writer.join();
  for (int i = 0; i < 30 && app_received < device_sent.load(); ++i) {  // what is still on its way
    read_once();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  device_reader.join();
  close(device);

  std::sort(delays.begin(), delays.end());
  const auto pct = [&](double p) {
    return delays.empty() ? 0.0 : delays[std::min(delays.size() - 1, static_cast<std::size_t>(p * delays.size()))];
  };
  std::printf("\n\n%s at 115200 8N1 for %.0f s (line rate %.0f B/s, reader ceiling 40960 B/s)\n", port.c_str(),
              duration, kLineRate);
  std::printf("device -> application: sent %llu, received %llu, out of pattern %llu (%.0f B/s)\n",
              static_cast<unsigned long long>(device_sent.load()), static_cast<unsigned long long>(app_received),
              static_cast<unsigned long long>(app_bad), static_cast<double>(app_received) / duration);
  std::printf("application -> device: sent %llu, received %llu, out of pattern %llu\n",
              static_cast<unsigned long long>(app_sent), static_cast<unsigned long long>(device_received.load()),
              static_cast<unsigned long long>(device_bad.load()));
  std::printf("line to ReadUart delay over %zu reads: median %.1f ms, 99th percentile %.1f ms, max %.1f ms\n",
              delays.size(), pct(0.5) * 1000, pct(0.99) * 1000, delays.empty() ? 0.0 : delays.back() * 1000);
  const bool lossless = app_received == device_sent.load() && app_bad == 0 && device_bad.load() == 0 &&
                        device_received.load() == app_sent;
  return lossless ? 0 : 1;
}
