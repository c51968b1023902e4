#include "support/file_helpers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "platform/safe_file.h"
#include "platform/sandbox_root.h"
#include "support/bounded_text.h"
#include "support/thread_buffer.h"

namespace fsu::support {
namespace {

constexpr std::size_t kResultSize = 10240;
constexpr std::size_t kMaxValueLength = 10000;
constexpr std::size_t kTimeStringSize = 30;
constexpr std::size_t kHexRecordSize = 20480;
// Window that BSP_ReadPar streams a parameter file through, so that memory stays bounded
// whatever the file's size.
constexpr std::size_t kReadChunk = 64 * 1024;

constexpr const char* kComLog = "/tmp/comlog.log";
constexpr const char* kDtuLog = "/tmp/web_dtu_com_log.log";

// Every descriptor is close-on-exec: the SDK runs shell commands and must not leak files
// into them.
int open_device_file(const char* path, int flags, mode_t mode = 0) {
  const platform::DevicePath resolved(path);
  if (!resolved.ok()) {
    errno = ENAMETOOLONG;
    return -1;
  }
  int fd;
  do {
    fd = open(resolved.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

ssize_t read_retrying(int fd, char* buf, std::size_t size) {
  ssize_t n;
  do {
    n = read(fd, buf, size);
  } while (n < 0 && errno == EINTR);
  return n;
}

// Writes `text` in one write at the start (SEEK_SET) or the end (SEEK_END) of the file, through
// a descriptor that follows no link planted at the name (platform::open_own_file).
int write_text_at(const char* path, const char* text, int whence) {
  if (path == nullptr || text == nullptr) return -1;
  const int fd = platform::open_own_file(path, whence == SEEK_END ? O_APPEND : 0, 0700);
  if (fd < 0) return -1;  // reported, one line per failure period
  if (lseek(fd, 0, whence) < 0) {
    platform::report_file_failure("lseek", path, errno);
    close(fd);
    return -2;
  }
  // A partial write is not retried: the record is one write at the end of the file.
  [[maybe_unused]] const ssize_t written = write(fd, text, std::strlen(text));
  close(fd);
  return 1;
}

// Sequential bytes of an open file through a fixed window.
class FileBytes {
 public:
  FileBytes(int fd, char* window, std::size_t size) : fd_(fd), window_(window), size_(size) {}

  // Appends more of the file behind the bytes kept; false at the end or on a read error.
  bool fill(std::size_t keep) {
    if (keep > end_) keep = end_;
    std::memmove(window_, window_ + end_ - keep, keep);
    end_ = keep;
    pos_ = 0;
    const ssize_t n = read_retrying(fd_, window_ + end_, size_ - end_);
    if (n < 0) failed_ = true;
    if (n <= 0) return false;
    end_ += static_cast<std::size_t>(n);
    return true;
  }

  // Next byte, or -1 at the end of the file.
  int next() {
    if (pos_ == end_ && !fill(0)) return -1;
    return static_cast<unsigned char>(window_[pos_++]);
  }

  const char* data() const { return window_; }
  std::size_t size() const { return end_; }
  void seek(std::size_t pos) { pos_ = pos; }
  bool failed() const { return failed_; }

 private:
  int fd_;
  char* window_;
  std::size_t size_;
  std::size_t end_ = 0;
  std::size_t pos_ = 0;
  bool failed_ = false;
};

// Finds the first occurrence of `key` in the file and leaves `bytes` just behind it.
bool find_key(FileBytes& bytes, const char* key, std::size_t key_length) {
  std::size_t keep = 0;
  while (bytes.fill(keep)) {
    const void* hit = memmem(bytes.data(), bytes.size(), key, key_length);
    if (hit != nullptr) {
      bytes.seek(static_cast<std::size_t>(static_cast<const char*>(hit) - bytes.data()) +
                 key_length);
      return true;
    }
    keep = key_length - 1;  // a key may straddle two windows
  }
  return false;
}

char* read_par(int fd, long file_size, const char* key, char* result) {
  const std::size_t key_length = std::strlen(key);
  // The window holds a whole key and more, so every fill makes progress.
  const std::size_t chunk = static_cast<std::size_t>(file_size) < kReadChunk
                                ? static_cast<std::size_t>(file_size)
                                : kReadChunk;
  const std::size_t window_size = chunk + key_length + 1;
  const std::unique_ptr<char[]> window(new char[window_size]);
  FileBytes bytes(fd, window.get(), window_size);
  if (!find_key(bytes, key, key_length)) return nullptr;

  bytes.next();  // the separator, whatever it is
  std::size_t length = 0;
  for (int c = bytes.next(); c > 0 && length < kMaxValueLength; c = bytes.next()) {
    if (c == '\r' || c == '\n' || c == ';') break;
    result[length++] = static_cast<char>(c);
  }
  if (bytes.failed()) return nullptr;
  result[length] = '\0';
  return result;
}

struct HexLogTexts {
  const char* header;
  const char* receive_mark;
};

// Appends the bytes of `data` as "%02X " groups, as far as the record has room.
void append_hex(BoundedText& record, const unsigned char* data, int len) {
  for (int i = 0; i < len && record.fits(); ++i) record.append("%02X ", data[i]);
}

int save_hex_log(const HexLogTexts& texts, const char* name, const unsigned char* data, int len,
                 int direction, int limit, int number) {
  if (len <= 0 || data == nullptr) return -1;
  if (number > limit) return -2;
  char buf[kHexRecordSize];
  BoundedText record(buf, sizeof buf);
  if (direction == 0) {
    const std::tm t = platform::local_time(platform::seconds_now());
    char stamp[50];
    BoundedText(stamp, sizeof stamp)
        .append("[%04d-%02d-%02d %02d:%02d:%02d]", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                t.tm_hour, t.tm_min, t.tm_sec);
    record.append(texts.header, stamp, name != nullptr ? name : "", number);
    append_hex(record, data, len);
    record.append("%s", texts.receive_mark);
  } else {
    append_hex(record, data, len);
  }
  return WriteLOGDATA_To_File(kComLog, record.c_str());
}

}  // namespace

int IsFileExist(const char* path) {
  if (path == nullptr) return 0;
  const platform::DevicePath resolved(path);
  struct stat st;
  return resolved.ok() && stat(resolved.c_str(), &st) == 0 ? 1 : 0;
}

long FSU_get_file_size(const char* path) {
  if (path == nullptr) return -1;
  const platform::DevicePath resolved(path);
  struct stat st;
  if (!resolved.ok() || stat(resolved.c_str(), &st) != 0) return -1;
  return st.st_size > LONG_MAX ? LONG_MAX : static_cast<long>(st.st_size);
}

int FSU_get_fd(const char* path) {
  if (path == nullptr) return -1;
  return open_device_file(path, O_RDONLY);
}

int Read_Data_File(const char* path, char* buf, int size) {
  if (path == nullptr || buf == nullptr || size <= 0) return 0;
  const long file_size = FSU_get_file_size(path);
  if (file_size < 0) return 0;
  const int fd = open_device_file(path, O_RDONLY);
  if (fd < 0) return -1;
  const std::size_t want = static_cast<std::size_t>(file_size < size ? file_size : size);
  std::size_t got = 0;
  while (got < want) {
    const ssize_t n = read_retrying(fd, buf + got, want - got);
    if (n <= 0) break;
    got += static_cast<std::size_t>(n);
  }
  close(fd);
  return static_cast<int>(got);
}

char* BSP_ReadPar(const char* path, const char* key) {
  thread_local ThreadBuffer<kResultSize> result_buffer;
  auto& Resultbuf = result_buffer.text();
  if (path == nullptr || key == nullptr || key[0] == '\0') return nullptr;
  const long file_size = FSU_get_file_size(path);
  if (file_size <= 0) return nullptr;  // missing or empty
  const int fd = FSU_get_fd(path);
  if (fd < 0) return nullptr;
  char* result = read_par(fd, file_size, key, Resultbuf);
  close(fd);
  return result;
}

int Update_InfoToFile(const char* path, const char* text) {
  return write_text_at(path, text, SEEK_SET);
}

int WriteDATA_To_File(const char* path, const char* text) {
  return write_text_at(path, text, SEEK_END);
}

int WriteLOGDATA_To_File(const char* path, const char* text) {
  return write_text_at(path, text, SEEK_END);
}

int remove_file(const char* path) {
  if (path == nullptr) return -1;
  const platform::DevicePath resolved(path);
  return resolved.ok() && unlink(resolved.c_str()) == 0 ? 0 : -1;
}

char* syscmd_read(const char* command, char* buf, int size) {
  if (buf == nullptr || size <= 0) return buf;
  std::memset(buf, 0, static_cast<std::size_t>(size));
  if (command == nullptr) return buf;
  const long got = platform::capture_command(command, buf, static_cast<std::size_t>(size) - 1);
  if (got <= 0) return buf;
  const std::size_t length = static_cast<std::size_t>(got);
  if (memmem(buf, length, "Entry", 5) != nullptr || memmem(buf, length, "can't", 5) != nullptr) {
    std::memset(buf, 0, length);
  }
  return buf;
}

char* ReadsyscmdReturn(const char* command, char* buf, int size) {
  if (syscmd_read(command, buf, size) == nullptr) return nullptr;
  buf[std::strcspn(buf, " \r\n")] = '\0';
  return buf;
}

int BSP_SAVE_HEX_LOG(const char* name, const unsigned char* data, int len, int direction, int limit,
                     int number) {
  static constexpr HexLogTexts kTexts{"\r\n%s:[%s][%05d]\r\nTX:", "\r\nRX:"};
  return save_hex_log(kTexts, name, data, len, direction, limit, number);
}

int BSP_SAVE_HEX_LOG_Virtual(const char* name, const unsigned char* data, int len, int direction,
                             int limit, int number) {
  static constexpr HexLogTexts kTexts{"\r\n%s:[%s][%05d(this is a Virtual com)]\r\nTX:",
                                      "\r\nRX(this is a Virtual com):"};
  return save_hex_log(kTexts, name, data, len, direction, limit, number);
}

int BSP_SAVE_DTU_HEX_LOG(const unsigned char* data, int len) {
  if (len <= 0 || data == nullptr) return -1;
  char buf[kHexRecordSize];
  BoundedText record(buf, sizeof buf);
  append_hex(record, data, len);
  return WriteLOGDATA_To_File(kDtuLog, record.c_str());
}

std::time_t strtotime(const char* text) {
  if (text == nullptr) return static_cast<std::time_t>(-1);
  std::tm t{};
  if (strptime(text, "%Y-%m-%d %H:%M:%S", &t) == nullptr) return static_cast<std::time_t>(-1);
  return std::mktime(&t);
}

char* Return_systime_string(std::time_t t) {
  thread_local ThreadBuffer<kTimeStringSize> time_buffer;
  auto& time_string = time_buffer.text();
  const std::tm local = platform::local_time(t);
  if (std::snprintf(time_string, sizeof time_string, "%04d-%02d-%02d %02d:%02d:%02d",
                    local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour,
                    local.tm_min, local.tm_sec) < 0) {
    time_string[0] = '\0';
  }
  return time_string;
}

long READ_SYSTEM_UnixTime() { return static_cast<long>(platform::wall_now().seconds); }

}  // namespace fsu::support
