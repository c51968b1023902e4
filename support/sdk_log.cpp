#include "support/sdk_log.h"

#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/console_output.h"
#include "platform/sandbox_root.h"
#include "support/bounded_text.h"
#include "support/file_helpers.h"

namespace fsu::support {

STR_LOG_PAR_T STR_LOG_PAR{};

namespace {

// Record counter; the first record of a process carries number 1.
std::atomic<std::int32_t> LOG_CNNT{0};

// One record buffer for the whole process, used under g_log_mutex: records are built,
// numbered, checked for rotation and output one at a time, without a 100 KB stack buffer
// on every logging thread and without a heap allocation per record.
std::mutex g_log_mutex;
char g_record[kLogRecordBuffer];

// Header literals by level code; every literal is 22 characters, so "Line=" lines up.
constexpr const char* kHeaderLiterals[] = {
    "sdk_OTHER Line=%010d]:",  // any unknown code
    "sdk_SQL   Line=%010d]:", "sdk_ERROR Line=%010d]:", "sdk_NET   Line=%010d]:",
    "sdk_SO    Line=%010d]:", "sdk_SYS   Line=%010d]:", "sdk_PIC   Line=%010d]:",
    "sdk_OTHER Line=%010d]:", "sdk_DEBUG Line=%010d]:",
};

bool is_known_level(int level) { return level >= SDK_LOG_SQL && level <= SDK_LOG_DEBUG; }

const char* header_literal(int level) { return kHeaderLiterals[is_known_level(level) ? level : 0]; }

// The output setting that serves a level code.
std::atomic<std::int32_t>& setting_of(int level) {
  switch (level) {
    case SDK_LOG_SQL:
      return STR_LOG_PAR.sql;
    case SDK_LOG_ERROR:
      return STR_LOG_PAR.error;
    case SDK_LOG_NET:
      return STR_LOG_PAR.net;
    case SDK_LOG_SO:
      return STR_LOG_PAR.so;
    case SDK_LOG_SYS:
      return STR_LOG_PAR.sys;
    case SDK_LOG_PIC:
      return STR_LOG_PAR.pic;
    case SDK_LOG_DEBUG:
      return STR_LOG_PAR.debug;
    default:
      return STR_LOG_PAR.other;
  }
}

void set_all_levels(std::int32_t value) {
  for (auto* field : {&STR_LOG_PAR.sql, &STR_LOG_PAR.error, &STR_LOG_PAR.net, &STR_LOG_PAR.so,
                      &STR_LOG_PAR.pic, &STR_LOG_PAR.sys, &STR_LOG_PAR.other, &STR_LOG_PAR.debug}) {
    field->store(value, std::memory_order_relaxed);
  }
}

// Rotation. Under g_log_mutex a log above the rotation size is only moved aside (one rename),
// so that the next record starts a new file; the thread whose record did it packs the moved
// log after releasing the lock, so no other logging thread waits for the zip. A log that
// cannot be moved (a read-only /tmp) is left alone for a failure period before the next try,
// instead of costing every record a size check and shell commands.
constexpr const char* kLogMoved = "/tmp/sdklog.log.1";
constexpr const char* kPackFolder = "/tmp/.sdklog.XXXXXX";  // mkdtemp's pattern
constexpr double kRotationRetrySeconds = 60;
std::atomic<bool> g_packing{false};  // a moved log is being packed
double g_next_rotation = 0;          // monotonic seconds; under g_log_mutex

// Under g_log_mutex: true when the log was moved aside and the caller must pack it.
bool move_large_log_aside() {
  if (g_packing.load() || platform::monotonic_seconds() < g_next_rotation) return false;
  if (getfilesize(kLogFile) <= kLogRotateSize) return false;  // -1 (missing) included
  const platform::DevicePath log(kLogFile);
  const platform::DevicePath moved(kLogMoved);
  if (log.ok() && moved.ok() && std::rename(log.c_str(), moved.c_str()) == 0) {
    g_packing.store(true);
    return true;
  }
  g_next_rotation = platform::monotonic_seconds() + kRotationRetrySeconds;
  return false;
}

// Outside the lock: the older generation goes, the moved log is packed in its place and
// removed (also when there is no zip tool). The zip tool writes through a link at its archive's
// name, so it packs into a folder of our own beside the log (that nobody else can write) and
// the archive is renamed over the name, replacing whatever another user may have put there.
void pack_moved_log() {
  const platform::DevicePath zip(kLogZip);
  const platform::DevicePath moved(kLogMoved);
  char folder[platform::kPathSize];
  platform::run_commandf("rm %s", zip.c_str());
  if (zip.ok() && moved.ok() && platform::resolve(kPackFolder, folder, sizeof folder) &&
      mkdtemp(folder) != nullptr) {
    char packed[platform::kPathSize];
    if (BoundedText(packed, sizeof packed).append("%s/sdklog.zip", folder).fits()) {
      platform::run_commandf("zip %s %s", packed, moved.c_str());
      if (std::rename(packed, zip.c_str()) != 0) unlink(packed);
    }
    rmdir(folder);
  }
  platform::run_commandf("rm %s", moved.c_str());
  g_packing.store(false);
}

// The device tools' complaints and, with FSU_QUIET=1, the library's own prints, as records.
// The texts come from tools and devices: written as LogText, so no line break forges a record.
void log_console_text(bool tool, const char* text) {
  const LogText shown(text);
  if (tool) {
    SDK_LOG_WRITE(SDK_LOG_SYS, "tool said: %s", shown.c_str());
  } else {
    SDK_LOG_WRITE(SDK_LOG_OTHER, "%s", shown.c_str());
  }
}
[[maybe_unused]] const bool g_sink_installed = (platform::set_log_sink(&log_console_text), true);

}  // namespace

void SDK_LOG_PAR_INIT() { set_all_levels(LOG_OUT_FILE); }

void SDK_LOG_PAR_INIT_NOPRINTF() { set_all_levels(LOG_OUT_NONE); }

int format_log_header(char* buf, std::size_t size, int level, const std::tm& t, long microseconds,
                      std::int32_t number) {
  if (buf == nullptr || size == 0) return 0;
  BoundedText header(buf, size);
  header
      .append("\r\n[%04d-%02d-%02d %02d:%02d:%02d.%ld ", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
              t.tm_hour, t.tm_min, t.tm_sec, microseconds / 1000)
      .append(header_literal(level), number);
  return static_cast<int>(header.length());
}

int SDK_UPDATE_LOG_HEADER(int level, char* buf) {
  if (buf == nullptr) return 0;
  // One reading gives both the second and the milliseconds, so a stamp never runs backwards
  // across a second boundary.
  const platform::WallTime now = platform::wall_now();
  const std::tm local = platform::local_time(now.seconds);
  // Wrapping add: the counter never resets during the process's life.
  const std::int32_t number = static_cast<std::int32_t>(
      static_cast<std::uint32_t>(LOG_CNNT.fetch_add(1, std::memory_order_relaxed)) + 1U);
  format_log_header(buf, kLogHeaderSize, level, local, now.microseconds, number);
  return setting_of(level).load(std::memory_order_relaxed);
}

int SDK_LOG_WRITE(int level, const char* format, ...) {
  bool moved = false;
  int output = 0;
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    const int setting = SDK_UPDATE_LOG_HEADER(level, g_record);
    if (setting == LOG_OUT_NONE) return 0;
    moved = move_large_log_aside();

    // The record, header included, stays within kLogRecordBuffer - 2 characters; a longer
    // message is cut.
    const std::size_t head = std::strlen(g_record);
    char* message = g_record + head;
    *message = '\0';
    if (format != nullptr) {
      va_list args;
      va_start(args, format);
      const int n = std::vsnprintf(message, kLogRecordBuffer - 1 - head, format, args);
      va_end(args);
      if (n < 0) *message = '\0';
    }

    output = 1;
    switch (setting) {
      case LOG_OUT_CONSOLE:
        std::printf("%s", g_record);
        break;
      case LOG_OUT_FILE:
        SDK_LOG_SAVE_FILE(kLogFile, g_record);
        break;
      case LOG_OUT_BOTH:
        std::printf("%s", g_record);
        SDK_LOG_SAVE_FILE(kLogFile, g_record);
        break;
      default:
        output = 0;
    }
  }
  if (moved) pack_moved_log();
  return output;
}

LogText::LogText(const char* text) {
  BoundedText out(text_, sizeof text_);
  if (text == nullptr) {
    out.append("(null)");
    return;
  }
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p != 0 && out.fits(); ++p) {
    switch (*p) {
      case '\r': out.append("\\r"); break;
      case '\n': out.append("\\n"); break;
      case '\t': out.append("\\t"); break;
      case '\\': out.append("\\\\"); break;
      default:
        if (*p < 0x20 || *p == 0x7F) {
          out.append("\\x%02X", *p);
        } else {
          out.append("%c", *p);
        }
    }
  }
}

int SDK_LOG_SAVE_FILE(const char* path, const char* text) { return WriteDATA_To_File(path, text); }

void LOG_FILE_CHECK() {
  bool moved = false;
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    moved = move_large_log_aside();
  }
  if (moved) pack_moved_log();
}

int getfilesize(const char* path) {
  const long size = FSU_get_file_size(path);
  return size > INT_MAX ? INT_MAX : static_cast<int>(size);
}

std::int32_t log_record_count() { return LOG_CNNT.load(std::memory_order_relaxed); }

void reset_log_for_tests() {
  std::lock_guard<std::mutex> lock(g_log_mutex);
  LOG_CNNT.store(0, std::memory_order_relaxed);
  set_all_levels(LOG_OUT_NONE);
  g_next_rotation = 0;
}

}  // namespace fsu::support
