// The SDK log: stamped, numbered records of every subsystem, printed and/or appended to
// /tmp/sdklog.log as each level's output setting says, with rotation into /tmp/sdklog.zip.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace fsu::support {

// Level codes, the first argument of SDK_LOG_WRITE.
enum : int {
  SDK_LOG_SQL = 1,
  SDK_LOG_ERROR = 2,
  SDK_LOG_NET = 3,
  SDK_LOG_SO = 4,
  SDK_LOG_SYS = 5,
  SDK_LOG_PIC = 6,
  SDK_LOG_OTHER = 7,
  SDK_LOG_DEBUG = 8,
};

// Output settings of a level.
enum : int {
  LOG_OUT_NONE = 0,
  LOG_OUT_CONSOLE = 1,
  LOG_OUT_FILE = 2,
  LOG_OUT_BOTH = 3,
};

// One output setting per level, in this field order. Zero at process start: all suppressed.
struct STR_LOG_PAR_T {
  std::atomic<std::int32_t> sql;
  std::atomic<std::int32_t> error;
  std::atomic<std::int32_t> net;
  std::atomic<std::int32_t> so;
  std::atomic<std::int32_t> pic;
  std::atomic<std::int32_t> sys;
  std::atomic<std::int32_t> other;
  std::atomic<std::int32_t> debug;
};
extern STR_LOG_PAR_T STR_LOG_PAR;

constexpr const char* kLogFile = "/tmp/sdklog.log";
constexpr const char* kLogZip = "/tmp/sdklog.zip";
constexpr long kLogRotateSize = 2097152;          // rotate when the file is above this
constexpr std::size_t kLogRecordBuffer = 102400;  // record buffer; records are cut at 102,398

// Every level to the log file only.
void SDK_LOG_PAR_INIT();
// Every level off.
void SDK_LOG_PAR_INIT_NOPRINTF();

// Writes one record; 1 when it was output (a failed append counts), 0 when suppressed or dropped.
int SDK_LOG_WRITE(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Writes the record header at the start of `buf` (at least kLogHeaderSize bytes), advances
// the record counter and returns the level's output setting. Null `buf`: 0, counter unchanged.
constexpr std::size_t kLogHeaderSize = 128;
int SDK_UPDATE_LOG_HEADER(int level, char* buf);

// The pure part of the header: the text for `level`, broken-down local time `t`, the
// microseconds of the time of day and the record number. Returns the length of the text
// written, which is cut to fit `size` and always terminated.
int format_log_header(char* buf, std::size_t size, int level, const std::tm& t, long microseconds,
                      std::int32_t number);

// Appends `text` to the file at device path `path` in one write; 1, -1 (open), -2 (seek).
int SDK_LOG_SAVE_FILE(const char* path, const char* text);
// Rotates the log file when it is above kLogRotateSize: moves it aside under the log's lock,
// then packs it into kLogZip outside the lock. After a log that could not be moved, the next
// try waits a minute.
void LOG_FILE_CHECK();
// Size of the file at device path `path`, or -1.
int getfilesize(const char* path);

// Caller text (a resource name, a path) as it may stand inside a record: a line break in it
// would start a forged record, so control characters are written as \r, \n, \t or \xHH and
// a backslash as two; a null text reads "(null)". Cut to kLogTextSize - 1 characters.
constexpr std::size_t kLogTextSize = 512;
class LogText {
 public:
  explicit LogText(const char* text);
  const char* c_str() const { return text_; }

 private:
  char text_[kLogTextSize];
};

// For tests: the record counter, and a way back to the state of a fresh process.
std::int32_t log_record_count();
void reset_log_for_tests();

}  // namespace fsu::support
