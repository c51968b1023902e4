// Scenario files for `fsusim test`: a YAML file of steps that play inputs and faults on a
// simulated unit and wait for what the application on it must do. Loading checks the whole file
// before anything runs, so a scenario with a step it does not know never starts.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace fsu::sim::scenario {

// How long a step that waits waits when it names no `timeout`.
inline constexpr double kDefaultWait = 10.0;
// Longest duration a scenario may name, and the most a file, a text and a scenario may hold.
inline constexpr double kLongestDuration = 3600.0;
inline constexpr std::size_t kMaxFileBytes = 256 * 1024;
inline constexpr std::size_t kMaxText = 4096;
inline constexpr std::size_t kMaxSteps = 2000;

enum class Kind {
  kDelay,        // seconds
  kSet,          // text: a control line of `fsusim ctl`
  kInput,        // text: bytes for the application's standard input
  kWaitOutput,   // text awaited on the application's output
  kFailOutput,   // text that must not appear on it
  kWriteUart,    // port, text: bytes the far end of the port sends
  kWaitUart,     // port, text: bytes awaited at the far end of the port
  kWaitState,    // name, text: a field of the unit's status awaited
  kExpectState,  // name, text: a field of the unit's status as it is now
  kWeb,          // text: a web request, its words as `fsusim web` takes them
  kWaitWeb,      // text awaited in the answer to the last web request, asked again until it comes
  kWaitExit,     // code: the application ends with this status
  kWaitCall,     // text awaited in a line of sim/calls.log: a device tool the application ran
};

struct Step {
  Kind kind = Kind::kDelay;
  int line = 0;          // of the scenario file, from 1
  std::string text;
  std::string name;
  int port = 0;
  int code = 0;
  double seconds = 0;    // a delay's length
  double timeout = kDefaultWait;
};

struct Scenario {
  std::string file;
  std::string name;                // `name:`, else the file's name without folder and extension
  std::vector<std::string> board;  // control lines applied as the board comes up
  int clock_rate = 0;              // FSU_CLOCK_RATE for the application; 0 leaves it unset
  double timeout = 0;              // for the whole scenario; 0 for none
  std::vector<Step> steps;
};

// The step's keyword as a scenario file writes it ("wait-output").
std::string_view kind_name(Kind kind);

// "500ms", "2s", "1.5s", "2m" in seconds; false for anything else (a bare number has no unit)
// or more than an hour.
bool parse_duration(std::string_view text, double* seconds);

// Loads a scenario from the text of `file`. On failure gives false and `error` as
// "FILE:LINE: why" (the line from 1).
bool load_scenario(std::string_view text, const std::string& file, Scenario* scenario, std::string* error);
// Reads `file` (a regular file of at most kMaxFileBytes) and loads it.
bool read_scenario(const std::string& file, Scenario* scenario, std::string* error);

}  // namespace fsu::sim::scenario
