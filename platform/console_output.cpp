#include "platform/console_output.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/clock.h"

namespace fsu::platform {
namespace {

// Longest text of one print that reaches the log; the rest is cut.
constexpr std::size_t kQuietText = 1024;
// How often a repeated tool line reaches the log.
constexpr double kToolRepeatPeriod = 60;

std::atomic<LogSink> g_sink{nullptr};

void to_log(bool tool, const char* text) {
  if (const LogSink sink = g_sink.load(std::memory_order_acquire)) sink(tool, text);
}

// A print's text without its line ends, for a log record of its own.
void quiet_print(const char* format, va_list args) {
  char text[kQuietText];
  std::vsnprintf(text, sizeof text, format, args);
  std::size_t n = std::strlen(text);
  while (n > 0 && (text[n - 1] == '\n' || text[n - 1] == '\r')) text[--n] = '\0';
  if (n > 0) to_log(false, text);
}

}  // namespace

void set_log_sink(LogSink sink) { g_sink.store(sink, std::memory_order_release); }

bool quiet() {
  static const bool on = [] {
    const char* setting = std::getenv("FSU_QUIET");
    return setting != nullptr && std::strcmp(setting, "1") == 0;
  }();
  return on;
}

// The library's own print to `stream`, or to the SDK log when the quiet switch is on.
static int print_to(std::FILE* stream, const char* format, va_list args) {
  if (!quiet()) return std::vfprintf(stream, format, args);
  quiet_print(format, args);
  return 0;
}

int sdk_printf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = print_to(stdout, format, args);
  va_end(args);
  return n;
}

int sdk_puts(const char* text) { return sdk_printf("%s\n", text); }

int sdk_eprintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int n = print_to(stderr, format, args);
  va_end(args);
  return n;
}

void tool_error_line(std::string_view line) {
  static RepeatFilter& filter = *new RepeatFilter(kToolRepeatPeriod, 1);  // never destroyed: threads outlive exit
  std::uint32_t held = 0;
  if (!filter.pass(line, monotonic_seconds(), &held)) return;
  char text[RepeatFilter::kTextSize * 2];
  const int n = static_cast<int>(std::min(line.size(), RepeatFilter::kTextSize));
  if (held > 0) {
    std::snprintf(text, sizeof text, "%.*s (%u more times since it last showed)", n, line.data(), held);
  } else {
    std::snprintf(text, sizeof text, "%.*s", n, line.data());
  }
  to_log(true, text);
}

bool RepeatFilter::pass(std::string_view text, double now, std::uint32_t* held) {
  text = text.substr(0, kTextSize);
  std::lock_guard<std::mutex> hold(lock_);
  Seen* slot = &seen_[0];
  for (Seen& seen : seen_) {
    if (seen.text == text) {
      slot = &seen;
      break;
    }
    if (seen.seen_at < slot->seen_at) slot = &seen;
  }
  if (slot->text != text) *slot = Seen{std::string(text), -1e18, now, 0, 0};
  slot->seen_at = now;
  if (now - slot->window_at >= period_) {
    slot->window_at = now;
    slot->passed = 0;
  }
  if (slot->passed >= burst_) {
    ++slot->held;
    return false;
  }
  ++slot->passed;
  *held = slot->held;
  slot->held = 0;
  return true;
}

}  // namespace fsu::platform
