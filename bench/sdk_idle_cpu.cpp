// The CPU time the SDK's own threads take on an idle simulated board: start the SDK, let it run
// for a minute (or the seconds given) with nothing asked of it, and report the process's CPU
// time over that minute and its peak memory. With "dial" the modem's data link is brought up
// first, and the commands the SDK ran meanwhile are counted (from the stand-ins' record) with
// the CPU time of those children. Run it on fsusim (scripts/bench_boards.sh):
//   fsusim run -- bench/sdk_idle_cpu [seconds] [dial]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <thread>

#include "fsusdk.h"

namespace {

double cpu_seconds(int who = RUSAGE_SELF) {
  rusage usage{};
  getrusage(who, &usage);
  const auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// A line of /proc/self/status, such as "VmHWM:\t    5120 kB".
std::string status_line(const std::string& key) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(key + ":", 0) == 0) return line;
  }
  return key + ": ?";
}

// Lines the stand-in tools have recorded so far.
long tool_calls() {
  std::ifstream calls(std::string(std::getenv("FSU_ROOT")) + "/sim/calls.log");
  long lines = 0;
  for (std::string line; std::getline(calls, line);) ++lines;
  return lines;
}

}  // namespace

int main(int argc, char** argv) {
  const double duration = argc > 1 ? std::atof(argv[1]) : 60;
  if (std::getenv("FSU_ROOT") == nullptr || duration <= 0) {
    std::fprintf(stderr, "run me on fsusim: fsusim run -- %s [seconds]\n", argv[0]);
    return 2;
  }
  const bool dial = argc > 2 && std::string(argv[2]) == "dial";
  InitializeSDK();
  if (dial) {
    DialDial(nullptr, nullptr);
    for (int i = 0; i < 600 && DialIsOnline() != 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::printf("\nlink %s\n", DialIsOnline() == 0 ? "up" : "DOWN");
  }
  const double start_up = cpu_seconds();
  const double children = cpu_seconds(RUSAGE_CHILDREN);
  const long calls = tool_calls();
  std::this_thread::sleep_for(std::chrono::duration<double>(duration));
  const double idle = cpu_seconds() - start_up;
  if (dial) {
    std::printf("\ncommands: %.1f tool calls a minute, their CPU %.3f s a minute (children, user+sys)\n",
                static_cast<double>(tool_calls() - calls) * 60 / duration,
                (cpu_seconds(RUSAGE_CHILDREN) - children) * 60 / duration);
  }
  std::printf("\n\nidle SDK for %.0f s: CPU %.3f s (%.3f s a minute, user+sys of this process), start-up %.3f s; "
              "%s\n",
              duration, idle, idle * 60 / duration, start_up, status_line("VmHWM").c_str());
  return 0;
}
