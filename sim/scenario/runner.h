// Plays one scenario: a fresh unit in a folder of its own, the application started on it with
// a pseudo-terminal for its standard streams (as a person's terminal, so that stdio keeps
// lines), the steps in order, then the application stopped and the unit taken down and removed.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "sim/scenario/scenario.h"

namespace fsu::sim::scenario {

struct RunSettings {
  std::vector<std::string> command;  // the application and its arguments; [0] a path or a name on PATH
  std::string fsusim;                // this program, for the sandbox's stand-in tools
  std::string folder;                // where each scenario's unit is made
  double timeout = 0;                // for each whole scenario (0: none), besides the scenario's own
  const std::atomic<int>* stop = nullptr;  // a signal's number once the run is to end
};

struct Outcome {
  bool passed = false;
  double seconds = 0;
  std::string message;   // the failure in one line: the step, its line and what went wrong
  std::string expected;  // what the step waited for
  std::string seen;      // what it got instead
  std::string output;    // the application's output (its last 64 KiB)
};

// A program's path as execve takes it: `name` when it names a folder, else the first executable
// of that name in the folders of `path`; "" when there is none.
std::string program_path(const std::string& name, const std::string& path);

// The last `count` lines of `output`, each shown as "  | LINE" with control characters as '?'.
std::string last_lines(const std::string& output, int count);

Outcome run_scenario(const Scenario& scenario, const RunSettings& settings);

}  // namespace fsu::sim::scenario
