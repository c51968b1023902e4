// The wall-clock figures that docs/api.md states, on the simulated board: how long InitializeSDK
// blocks, how long a dial takes to bring the link up, how long the mode setters block, when a
// position shows again after positioning was switched off, and how soon a changed input shows.
// Each is one line "NAME SECONDS s". Run it on fsusim (scripts/bench_timings.sh):
//   fsusim run -- bench/sdk_timings [init]      with "init", only InitializeSDK
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "fsusdk.h"

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Waits up to `limit` seconds, checking every 10 ms, for `done` to hold; the seconds it took.
template <typename Done>
double wait_until(Done done, double limit) {
  const auto start = Clock::now();
  while (!done() && since(start) < limit) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  return since(start);
}

void report(const char* name, double seconds) { std::printf("\n%s %.2f s\n", name, seconds); }

bool has_position() {
  char info[256] = "";
  return BSP_GET_GPS_INFO(info) == 0 && std::strncmp(info, "经度=0.00000000", std::strlen("经度=0.00000000")) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  const char* root = std::getenv("FSU_ROOT");
  if (root == nullptr) {
    std::fprintf(stderr, "run me on fsusim: fsusim run -- %s [init]\n", argv[0]);
    return 2;
  }
  auto start = Clock::now();
  InitializeSDK();
  report("InitializeSDK", since(start));
  if (argc > 1 && std::strcmp(argv[1], "init") == 0) return 0;

  start = Clock::now();
  DialDial("", "");
  report("DialDial to online", wait_until([] { return DialIsOnline() == 0; }, 60));

  start = Clock::now();
  SetPositionMode(1);
  report("SetPositionMode(1)", since(start));
  wait_until(has_position, 20);
  SetPositionMode(0);
  report("position back after SetPositionMode(0)", wait_until(has_position, 20));

  // An input changed on the board, as `fsusim ctl` changes it.
  float volts = 0;
  std::ofstream(std::string(root) + "/sim/control", std::ios::app) << "ai 3 1.5\n";
  report("input change seen", wait_until([&] { return GetAIValue("Local/AI/3", 0, &volts) == 0 && volts > 1.4f; }, 10));
  return 0;
}
