#include "lte/at_channel.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include "lte/ntu.h"
#include "platform/clock.h"
#include "platform/console_output.h"
#include "platform/sandbox_root.h"
#include "support/sdk_log.h"

namespace fsu::lte {

using support::SDK_LOG_NET;
using support::SDK_LOG_WRITE;

int ltefd = -1;
char s_ATBuffer[kAtBufferSize];
char* s_ATBufferCur = s_ATBuffer;
long s_readCount = 0;
char out_put[kOutPutSize];

namespace {

// Where the next read goes: the end of the received text.
char* s_ATBufferEnd = s_ATBuffer;
char* const kAreaEnd = s_ATBuffer + kAtLineArea;

// How long a write waits for room on the port before it counts as failed.
constexpr int kWriteWaitMs = 1000;

// Input flags the port must not keep from the driver's defaults. XON/XOFF above all: with IXON
// on, one 0x13 byte among noise from the modem stops the port's output until a 0x11 comes, so
// every later command would fail. Clearing IXON also restarts output that such a byte stopped.
// The others change the modem's bytes on their way in.
constexpr tcflag_t kTranslatingInputFlags = IXON | IXOFF | IXANY | ICRNL | INLCR | IGNCR | ISTRIP | PARMRK;

void skip_line_ends() {
  for (std::size_t i = 0; i <= kAtLineArea && (*s_ATBufferCur == '\r' || *s_ATBufferCur == '\n'); ++i) {
    ++s_ATBufferCur;
  }
}

// Keeps `n` bytes just placed at the write position, minus NUL bytes: a NUL inside the text
// would hide every line end behind it until the line area overflowed.
void accept_bytes(std::size_t n) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < n; ++i) {
    if (s_ATBufferEnd[i] != '\0') s_ATBufferEnd[kept++] = s_ATBufferEnd[i];
  }
  s_ATBufferEnd += kept;
  *s_ATBufferEnd = '\0';
  s_ATBuffer[kAtLineArea] = '\0';
}

int write_all(const char* data, std::size_t n) {
  while (n > 0) {
    const ssize_t put = write(ltefd, data, n);
    if (put > 0) {
      data += put;
      n -= static_cast<std::size_t>(put);
      continue;
    }
    if (put < 0 && errno == EINTR) continue;
    // The port is non-blocking: a full output queue gets a bounded wait for room.
    if (put == 0 || errno == EAGAIN) {
      pollfd p{ltefd, POLLOUT, 0};
      if (poll(&p, 1, kWriteWaitMs) > 0 && (p.revents & POLLOUT) != 0) continue;
    }
    return -1;
  }
  return 0;
}

void append_bounded(char* out, std::size_t out_size, const char* line) {
  if (out == nullptr || out_size == 0) return;
  const std::size_t have = strnlen(out, out_size - 1);
  const std::size_t room = out_size - 1 - have;
  const std::size_t n = std::min(room, std::strlen(line));
  std::memcpy(out + have, line, n);
  out[have + n] = '\0';
}

enum class Exchange { kCopy, kAppend, kCimi };

const char* shown(const char* line) { return line != nullptr ? line : "(null)"; }

int exchange(Exchange kind, const char* command, const char* prefix, char* out, std::size_t out_size,
             int lines, int seconds) {
  std::memset(s_ATBuffer, 0, kAtLineArea + 1);
  s_ATBufferCur = s_ATBufferEnd = s_ATBuffer;
  if (command != nullptr && command[0] != '\0') {
    if (kind == Exchange::kCopy) SDK_LOG_WRITE(SDK_LOG_NET, "AT> %s", command);
    const int written = writeline(command);
    if (kind == Exchange::kCimi) SDK_LOG_WRITE(SDK_LOG_NET, "writeline=%s", command);
    if (written < 0) return kAtWriteFailed;
  }
  char expected[64] = {};
  std::snprintf(expected, sizeof expected, "%s", prefix != nullptr ? prefix : "");
  to_upper(expected);
  const auto timed_out = [kind](const char* trace) {
    if (kind == Exchange::kCopy) SDK_LOG_WRITE(SDK_LOG_NET, "%s", trace);
    if (kind != Exchange::kCimi) NTU.attimeout.fetch_add(1, std::memory_order_relaxed);
    return kAtTimeout;
  };
  for (int count = 0;;) {
    char* line = readline(10 * seconds);
    if (line != nullptr) to_upper(line);
    if (kind == Exchange::kCimi) {
      SDK_LOG_WRITE(SDK_LOG_NET, "#####################line=%s", shown(line));
    } else if (line != nullptr) {
      SDK_LOG_WRITE(SDK_LOG_NET, "AT <,Line=%s;", line);
    }
    if (kind != Exchange::kCopy && line != nullptr) append_bounded(out, out_size, line);
    if (kind == Exchange::kAppend) SDK_LOG_WRITE(SDK_LOG_NET, "!!!!!!!!!!!!line=%s", shown(line));
    if (line == nullptr) {
      if (++count > lines) return timed_out("no data At time out");
      continue;
    }
    if (strStartsWith(line, expected)) {
      if (kind == Exchange::kCopy && out != nullptr && out_size > 0) std::snprintf(out, out_size, "%s", line);
      SSleep(20);
      return kAtOk;
    }
    if (std::strstr(line, "ERROR") != nullptr ||
        (kind == Exchange::kCimi && std::strstr(line, "COMMAND NOT SUPPORT") != nullptr)) {
      SSleep(1);
      return kAtError;
    }
    if (++count > lines) return timed_out("At time out");
  }
}

}  // namespace

int at_port_open(const char* device_path) {
  at_port_close();
  const platform::DevicePath path(device_path);
  if (!path.ok()) return -1;
  const int fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return -1;
  termios tio{};
  if (tcgetattr(fd, &tio) == 0) {
    tio.c_lflag = 0;
    tio.c_iflag &= ~kTranslatingInputFlags;
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    tcsetattr(fd, TCSANOW, &tio);
  }
  // What came in while the port was closed (a late reply, an unsolicited line) belongs to no
  // exchange of ours.
  tcflush(fd, TCIFLUSH);
  ltefd = fd;
  return 0;
}

void at_port_close() {
  if (ltefd >= 0) close(ltefd);
  ltefd = -1;
}

int writeline(const char* command) {
  if (ltefd < 0) {
    fsu::platform::sdk_printf("??????ltefd=-1???????\n");
    return -1;
  }
  if (command == nullptr || write_all(command, std::strlen(command)) < 0) return -1;
  return write_all("\r", 1);
}

char* findNextEOL(char* cur) {
  if (cur == nullptr) return nullptr;
  if (cur[0] == '>' && cur[1] == ' ' && cur[2] == '\0') return cur + 2;
  for (; *cur != '\0'; ++cur) {
    if (*cur == '\r' || *cur == '\n') return cur;
  }
  return nullptr;
}

void at_buffer_clear() {
  s_ATBufferCur = s_ATBufferEnd = s_ATBuffer;
  s_ATBuffer[0] = '\0';
  s_ATBuffer[kAtLineArea] = '\0';
}

std::size_t at_buffer_append(const char* bytes, std::size_t n) {
  if (s_ATBufferEnd >= kAreaEnd) at_buffer_clear();
  n = std::min(n, static_cast<std::size_t>(kAreaEnd - s_ATBufferEnd));
  std::memcpy(s_ATBufferEnd, bytes, n);
  accept_bytes(n);
  return n;
}

char* at_buffer_take_line() {
  if (*s_ATBufferCur == '\0') {
    at_buffer_clear();
    return nullptr;
  }
  skip_line_ends();
  char* eol = findNextEOL(s_ATBufferCur);
  if (eol == nullptr) {
    // Only a partial line: move it to the start so that the rest has room behind it.
    const std::size_t len = static_cast<std::size_t>(s_ATBufferEnd - s_ATBufferCur);
    std::memmove(s_ATBuffer, s_ATBufferCur, len + 1);
    s_ATBufferCur = s_ATBuffer;
    s_ATBufferEnd = s_ATBuffer + len;
    return nullptr;
  }
  char* line = s_ATBufferCur;
  if (*eol == '\0') {
    s_ATBufferCur = eol;  // the prompt: its end is the end of the buffered text
  } else {
    *eol = '\0';
    s_ATBufferCur = eol + 1;
  }
  return line;
}

char* readline(int tick_limit) {
  char* line = at_buffer_take_line();
  // One wait of (tick_limit + 1) ticks of 100 ms, spent in poll on the port: the thread wakes
  // when the modem sends, or when the wait is over, never in between.
  const double start = platform::monotonic_seconds();
  const long limit_ms = 100L * (tick_limit + 1);
  bool port_failed = false;
  while (line == nullptr) {
    if (s_ATBufferEnd >= kAreaEnd) {
      SDK_LOG_WRITE(SDK_LOG_NET, "tERROR: Input line exceeded buffer");
      at_buffer_clear();
    }
    const long elapsed_ms = static_cast<long>(1000 * (platform::monotonic_seconds() - start));
    const int ticks = static_cast<int>(elapsed_ms / 100);
    if (elapsed_ms >= limit_ms) {
      SDK_LOG_WRITE(SDK_LOG_NET, "ticksleep end,%d,%d", ticks, tick_limit);
      return nullptr;
    }
    SDK_LOG_WRITE(SDK_LOG_NET, "read#######,%d,%d", ticks, tick_limit);
    ssize_t n = 0;
    if (ltefd >= 0 && !port_failed) {
      pollfd port{ltefd, POLLIN, 0};
      const int ready = poll(&port, 1, static_cast<int>(limit_ms - elapsed_ms));
      if (ready > 0) {
        const auto room = static_cast<int>(kAreaEnd - s_ATBufferEnd);
        SDK_LOG_WRITE(SDK_LOG_NET, "LTE_TEHED fun=%s,Line=%d;ltefd=%d,l=%d", "readline", __LINE__, ltefd, room);
        n = read(ltefd, s_ATBufferEnd, static_cast<std::size_t>(room));
        // A port that reports readiness but gives nothing has hung up (a modem pulled from
        // USB): it is read as a silent one for the rest of the wait.
        port_failed = n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR);
      }
    } else {
      platform::sleep_ms(limit_ms - elapsed_ms);
    }
    SDK_LOG_WRITE(SDK_LOG_NET, "read!!!!!!,%d,%d", ticks, tick_limit);
    if (n <= 0) continue;
    s_readCount += n;
    accept_bytes(static_cast<std::size_t>(n));
    line = at_buffer_take_line();
  }
  SDK_LOG_WRITE(SDK_LOG_NET, "AT< %s\n", line);
  return line;
}

int write_wait_read(const char* command, const char* prefix, char* out, std::size_t out_size, int lines,
                    int seconds) {
  return exchange(Exchange::kCopy, command, prefix, out, out_size, lines, seconds);
}

int write_wait_read1(const char* command, const char* prefix, char* out, std::size_t out_size, int lines,
                     int seconds) {
  return exchange(Exchange::kAppend, command, prefix, out, out_size, lines, seconds);
}

int write_wait_readcimi(const char* command, const char* prefix, char* out, std::size_t out_size,
                        int lines, int seconds) {
  return exchange(Exchange::kCimi, command, prefix, out, out_size, lines, seconds);
}

char* to_upper(char* text) {
  if (text == nullptr) return text;
  for (char* p = text; *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 'a' + 'A');
  }
  return text;
}

int strStartsWith(const char* line, const char* prefix) {
  if (line == nullptr || prefix == nullptr) return 0;
  return std::strncmp(line, prefix, std::strlen(prefix)) == 0 ? 1 : 0;
}

int at_tok_start(char** cursor) {
  if (cursor == nullptr) return -1;
  if (*cursor == nullptr) return -1;
  char* colon = std::strchr(*cursor, ':');
  if (colon == nullptr) {
    *cursor = nullptr;
    return -1;
  }
  *cursor = colon + 1;
  return 0;
}

void skipWhiteSpace(char** cursor) {
  if (cursor == nullptr || *cursor == nullptr) return;
  while (**cursor != '\0' && std::isspace(static_cast<unsigned char>(**cursor))) ++*cursor;
}

void skipNextComma(char** cursor) {
  if (cursor == nullptr || *cursor == nullptr) return;
  while (**cursor != '\0' && **cursor != ',') ++*cursor;
  if (**cursor == ',') ++*cursor;
}

char* nextTok(char** cursor) {
  if (cursor == nullptr || *cursor == nullptr) return nullptr;
  skipWhiteSpace(cursor);
  char* token = *cursor;
  if (*token == '"') {
    ++token;
    char* close = std::strchr(token, '"');
    if (close == nullptr) {
      *cursor = nullptr;
      return token;
    }
    *close = '\0';
    *cursor = close + 1;
    skipNextComma(cursor);
    return token;
  }
  char* comma = std::strchr(token, ',');
  if (comma == nullptr) {
    *cursor = nullptr;
  } else {
    *comma = '\0';
    *cursor = comma + 1;
  }
  return token;
}

int at_tok_nextint_base(char** cursor, int* out, int base, int is_unsigned) {
  if (cursor == nullptr || *cursor == nullptr || out == nullptr) return -1;
  char* token = nextTok(cursor);
  if (token == nullptr) return -1;
  char* end = nullptr;
  *out = is_unsigned ? static_cast<int>(std::strtoul(token, &end, base))
                     : static_cast<int>(std::strtol(token, &end, base));
  return end == token ? -1 : 0;
}

int at_tok_nextint(char** cursor, int* out) { return at_tok_nextint_base(cursor, out, 10, 0); }

int at_tok_nexthexint(char** cursor, int* out) { return at_tok_nextint_base(cursor, out, 16, 1); }

int SSleep(int milliseconds) {
  timeval tv{milliseconds / 1000, (milliseconds % 1000) * 1000L};
  return select(0, nullptr, nullptr, nullptr, &tv);
}

void ticksleep(int milliseconds) {
  const platform::WallTime start = platform::wall_now();
  for (int naps = milliseconds / 2; naps > 0; --naps) {
    SSleep(2);
    const platform::WallTime now = platform::wall_now();
    const double elapsed = 1000.0 * static_cast<double>(now.seconds - start.seconds) +
                           static_cast<double>(now.microseconds - start.microseconds) / 1000.0;
    if (elapsed < 0 || elapsed >= milliseconds) return;
  }
}

unsigned mysleep(unsigned seconds) {
  platform::sleep_s(static_cast<long>(seconds));
  return 0;
}

}  // namespace fsu::lte
