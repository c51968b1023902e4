// Where the library's own words and the device tools' complaints go. The library prints its
// messages on standard output (and a few on standard error) as the device's SDK does; with
// FSU_QUIET=1 in the environment they go to the SDK log instead, for applications that own
// their console. What the device tools the SDK runs write on their standard error
// ("ifconfig: ppp0: error fetching interface information: Device not found") is theirs, not
// the system's: it always goes to the SDK log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

namespace fsu::platform {

// Takes one text for the SDK log: `tool` is true for a device tool's line, false for the
// library's own print. The log installs it; without one, quiet texts are dropped.
using LogSink = void (*)(bool tool, const char* text);
void set_log_sink(LogSink sink);

// FSU_QUIET=1: the library's own prints go to the log. Read once per process.
bool quiet();

// The library's own prints, as printf/puts/fprintf(stderr) would make them.
int sdk_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
int sdk_puts(const char* text);
int sdk_eprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// A line a device tool wrote on its standard error, for the log. Repeats of a line are held
// back and counted, and the line goes out again with the count at most once a minute.
void tool_error_line(std::string_view line);

// Holds back repeats of the same text: a text passes `burst` times per `period` seconds, and
// tells how many of it were held back since it last passed. A few texts are followed at once;
// a new one takes the place of the one seen longest ago.
class RepeatFilter {
 public:
  static constexpr std::size_t kTexts = 8;
  static constexpr std::size_t kTextSize = 160;  // texts are told apart by this many bytes

  RepeatFilter(double period, std::uint32_t burst) : period_(period), burst_(burst) {}
  // True when `text` may go out at monotonic time `now`; *held then counts the repeats held
  // back since its last passing.
  bool pass(std::string_view text, double now, std::uint32_t* held);

 private:
  struct Seen {
    std::string text;
    double window_at = -1e18;  // when the current period began
    double seen_at = -1e18;
    std::uint32_t passed = 0;  // passed in the current period
    std::uint32_t held = 0;
  };
  double period_;
  std::uint32_t burst_;
  std::mutex lock_;
  Seen seen_[kTexts];
};

}  // namespace fsu::platform
