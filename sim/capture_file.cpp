#include "sim/capture_file.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <set>

namespace fsu::sim {
namespace {

constexpr std::string_view kVirtual = "(this is a Virtual com)";
// A sentence on the receiver's line is at most 82 characters; a capture may carry a longer
// damaged one, not a page of text.
constexpr std::size_t kMaxSentence = 512;
// A play goes to the board in pieces of this many bytes at most.
constexpr std::size_t kMaxPlayBytes = 64 * 1024;

// Reads `text` from the front, counting lines for the messages.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}
  bool done() const { return at_ >= text_.size(); }
  char peek(std::size_t ahead = 0) const { return at_ + ahead < text_.size() ? text_[at_ + ahead] : '\0'; }
  std::string_view rest() const { return text_.substr(std::min(at_, text_.size())); }
  bool take(std::string_view word) {
    if (!rest().starts_with(word)) return false;
    advance(word.size());
    return true;
  }
  void advance(std::size_t n) {
    for (std::size_t i = 0; i < n && at_ < text_.size(); ++i) line_ += text_[at_++] == '\n' ? 1 : 0;
  }
  // A line end: "\r\n", "\n" or a lone "\r" (a log opened with a text editor on another system).
  bool take_line_end() {
    if (take("\r\n") || take("\n")) return true;
    return take("\r");
  }
  void skip_line_ends() {
    while (take_line_end()) {
    }
  }
  std::size_t line() const { return line_; }

 private:
  std::string_view text_;
  std::size_t at_ = 0;
  std::size_t line_ = 1;
};

bool fail(std::string* error, std::size_t line, const std::string& what) {
  if (error != nullptr) *error = "line " + std::to_string(line) + ": " + what;
  return false;
}

bool digits(std::string_view text, std::size_t at, std::size_t count, int* value) {
  int v = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const char c = at + i < text.size() ? text[at + i] : '\0';
    if (c < '0' || c > '9') return false;
    v = v * 10 + (c - '0');
  }
  *value = v;
  return true;
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
long days_from_civil(int y, int m, int d) {
  y -= m <= 2 ? 1 : 0;
  const long era = (y >= 0 ? y : y - 399) / 400;
  const long yoe = y - era * 400;
  const long doy = (153L * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

// "YYYY-MM-DD hh:mm:ss" with an optional fraction of up to nine digits, at the front of `text`:
// its seconds on a scale of its own (only differences count) and its length, or 0.
std::size_t read_time(std::string_view text, double* seconds) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!digits(text, 0, 4, &year) || text.substr(4, 1) != "-" || !digits(text, 5, 2, &month) ||
      text.substr(7, 1) != "-" || !digits(text, 8, 2, &day) || text.substr(10, 1) != " " ||
      !digits(text, 11, 2, &hour) || text.substr(13, 1) != ":" || !digits(text, 14, 2, &minute) ||
      text.substr(16, 1) != ":" || !digits(text, 17, 2, &second)) {
    return 0;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return 0;
  std::size_t length = 19;
  double fraction = 0;
  if (text.substr(19, 1) == ".") {
    double scale = 0.1;
    std::size_t n = 20;
    while (n < text.size() && n < 29 && text[n] >= '0' && text[n] <= '9') {
      fraction += (text[n] - '0') * scale;
      scale /= 10;
      ++n;
    }
    if (n == 20) return 0;
    length = n;
  }
  *seconds = static_cast<double>(days_from_civil(year, month, day)) * 86400.0 + hour * 3600.0 + minute * 60.0 +
             second + fraction;
  return length;
}

// A piece of the file as it can stand in a message of one line: other bytes as \xNN.
std::string shown(std::string_view piece) {
  std::string text;
  for (const char c : piece) {
    const auto byte = static_cast<unsigned char>(c);
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, byte >= 0x20 && byte < 0x7F ? "%c" : "\\x%02X", byte);
    text += escaped;
  }
  return text;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

// "%02X " groups up to the line's end: the last may lack its blank when the file ends there.
bool read_hex(Reader& in, std::vector<std::uint8_t>* bytes, std::string* error) {
  while (!in.done() && in.peek() != '\r' && in.peek() != '\n') {
    const std::size_t line = in.line();
    const int high = hex_digit(in.peek());
    const int low = hex_digit(in.peek(1));
    const char after = in.peek(2);
    if (high < 0 || low < 0 || (after != ' ' && after != '\r' && after != '\n' && after != '\0')) {
      return fail(error, line, "'" + shown(in.rest().substr(0, 3)) + "' is not a byte in hex followed by a blank");
    }
    bytes->push_back(static_cast<std::uint8_t>(high * 16 + low));
    in.advance(after == ' ' ? 3 : 2);
  }
  return true;
}

bool parse_hex_log(std::string_view text, Capture* capture, std::string* error) {
  Reader in(text);
  double first = 0;
  double last = 0;
  bool any = false;
  in.skip_line_ends();
  while (!in.done()) {
    const std::size_t line = in.line();
    double stamp = 0;
    std::size_t length = 0;
    if (!in.take("[") || (length = read_time(in.rest(), &stamp)) == 0) {
      return fail(error, line, "expected a record header \"[YYYY-MM-DD hh:mm:ss]:[PORT][NUMBER]\"");
    }
    in.advance(length);
    if (!in.take("]:[")) return fail(error, line, "record header cut short after its time");
    const std::string_view rest = in.rest();
    const std::size_t close = rest.substr(0, 32).find(']');
    if (close == std::string_view::npos) return fail(error, line, "record header cut short in its port name");
    const std::string port(rest.substr(0, close));
    if (!known_capture_port(port)) {
      return fail(error, line, "unknown port '" + shown(rest.substr(0, std::min<std::size_t>(close, 24))) +
                                   "' (Local/Uart/1 to Local/Uart/12, Local/Port/5 to Local/Port/7)");
    }
    in.advance(close + 1);
    std::size_t number = 0;
    while (number < 9 && in.peek(number + 1) >= '0' && in.peek(number + 1) <= '9') ++number;
    if (!in.take("[") || number == 0) return fail(error, line, "record header without its record number");
    in.advance(number);
    const bool virtual_port = in.take(kVirtual);
    if (!in.take("]") || !in.take_line_end()) return fail(error, line, "record header cut short after its number");
    if (!in.take("TX:")) return fail(error, in.line(), "record without its TX: mark");
    std::vector<std::uint8_t> sent;  // what the unit sent: not played, only checked
    if (!read_hex(in, &sent, error)) return false;
    if (!in.take_line_end() || !in.take("RX") || (virtual_port && !in.take(kVirtual)) || !in.take(":")) {
      return fail(error, in.line(), "record ends before its RX: mark (the file is cut short or damaged)");
    }
    CapturePlay play;
    if (!read_hex(in, &play.bytes, error)) return false;
    if (!any) first = stamp;
    any = true;
    // A clock set back between two records plays the later one at once.
    last = std::max(last, stamp - first);
    play.at = last;
    play.port = port;
    if (!play.bytes.empty()) capture->plays.push_back(std::move(play));
    in.skip_line_ends();
  }
  if (!any) return fail(error, in.line(), "no record in the file");
  return true;
}

// The key that recurs once per fix cycle: talker and type, and for GSV also its number.
std::string sentence_key(std::string_view sentence) {
  const std::size_t comma = sentence.find(',');
  std::string key(sentence.substr(0, std::min<std::size_t>(comma, 8)));
  if (key.size() == 6 && key.substr(3) == "GSV") {
    // $GPGSV,TOTAL,NUMBER,...: the message's number is the second field.
    const std::size_t second = sentence.find(',', comma + 1);
    if (second != std::string_view::npos) key += "," + std::string(sentence.substr(second + 1, 2));
  }
  return key;
}

bool parse_nmea(std::string_view text, Capture* capture, std::string* error) {
  Reader in(text);
  int prefixed = -1;  // whether the sentences carry a time prefix: decided by the first
  double first = 0;
  double at = 0;
  double cycle = 0;
  std::set<std::string> this_cycle;
  while (!in.done()) {
    const std::size_t line = in.line();
    const std::string_view rest = in.rest();
    std::size_t end = 0;
    while (end < rest.size() && rest[end] != '\n' && rest[end] != '\r') ++end;
    std::string_view body = rest.substr(0, end);
    in.advance(end);
    in.take_line_end();
    if (body.find_first_not_of(" \t") == std::string_view::npos) continue;
    double stamp = 0;
    bool has_prefix = false;
    const bool bracket = body.starts_with("[");
    if (const std::size_t n = read_time(body.substr(bracket ? 1 : 0), &stamp); n != 0) {
      body.remove_prefix(n + (bracket ? 1 : 0));
      if (bracket && !body.starts_with("]")) return fail(error, line, "time prefix without its closing ']'");
      if (bracket) body.remove_prefix(1);
      if (body.starts_with(":")) body.remove_prefix(1);
      while (body.starts_with(" ") || body.starts_with("\t")) body.remove_prefix(1);
      has_prefix = true;
    }
    if (body.empty() || (body[0] != '$' && body[0] != '!')) {
      return fail(error, line, "neither an NMEA sentence ('$...') nor a hex log record");
    }
    if (body.size() > kMaxSentence) return fail(error, line, "sentence longer than " + std::to_string(kMaxSentence) + " characters");
    for (const char c : body) {
      if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E) {
        return fail(error, line, "sentence with a byte that is not printable text");
      }
    }
    if (prefixed < 0) prefixed = has_prefix ? 1 : 0;
    if ((prefixed == 1) != has_prefix) {
      return fail(error, line, has_prefix ? "time prefix where the sentences before have none"
                                          : "sentence without the time prefix the others have");
    }
    if (has_prefix) {
      if (capture->plays.empty()) first = stamp;
      at = std::max(at, stamp - first);
    } else {
      const std::string key = sentence_key(body);
      if (this_cycle.contains(key)) {
        this_cycle.clear();
        cycle += 1;
      }
      this_cycle.insert(key);
      at = cycle;
    }
    CapturePlay* last = capture->plays.empty() ? nullptr : &capture->plays.back();
    if (last == nullptr || last->at != at || last->bytes.size() + body.size() + 2 > kMaxPlayBytes) {
      capture->plays.push_back({at, kReceiverPortName, {}});
      last = &capture->plays.back();
    }
    last->bytes.insert(last->bytes.end(), body.begin(), body.end());
    last->bytes.push_back('\r');
    last->bytes.push_back('\n');
  }
  if (capture->plays.empty()) return fail(error, in.line(), "no record or sentence in the file");
  return true;
}

}  // namespace

bool known_capture_port(std::string_view name) {
  const auto number = [&](std::string_view prefix, int lo, int hi) {
    if (!name.starts_with(prefix)) return false;
    const std::string_view n = name.substr(prefix.size());
    if (n.empty() || n.size() > 2 || n[0] == '0' || n.find_first_not_of("0123456789") != std::string_view::npos) {
      return false;
    }
    const int value = std::stoi(std::string(n));
    return value >= lo && value <= hi;
  };
  return number("Local/Uart/", 1, 12) || number("Local/Port/", 5, 7);
}

std::optional<Capture> parse_capture(std::string_view text, std::string* error) {
  if (text.size() > kMaxCaptureBytes) {
    fail(error, 1, "file larger than " + std::to_string(kMaxCaptureBytes >> 20) + " MiB");
    return std::nullopt;
  }
  // A hex log opens with a header "[time]:[port]"; a receiver's capture with a sentence, or a
  // time prefix and a sentence.
  Reader probe(text);
  probe.skip_line_ends();
  double stamp = 0;
  const std::string_view start = probe.rest();
  const std::size_t n = start.starts_with("[") ? read_time(start.substr(1), &stamp) : 0;
  const bool hex_log = n != 0 && start.substr(n + 1).starts_with("]:[");
  Capture capture;
  capture.nmea = !hex_log;
  if (!(hex_log ? parse_hex_log(text, &capture, error) : parse_nmea(text, &capture, error))) return std::nullopt;
  return capture;
}

std::string record_header(double wall, std::string_view port, unsigned number) {
  const auto whole = static_cast<std::time_t>(std::floor(wall));
  const int millis = std::min(999, static_cast<int>((wall - std::floor(wall)) * 1000));
  std::tm local{};
  localtime_r(&whole, &local);
  char text[128];
  std::snprintf(text, sizeof text, "\r\n[%04d-%02d-%02d %02d:%02d:%02d.%03d]:[%.*s][%05u]\r\nTX:", local.tm_year + 1900,
                local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, millis,
                static_cast<int>(std::min<std::size_t>(port.size(), 32)), port.data(), number);
  return text;
}

void append_hex(std::string& out, const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    out += "0123456789ABCDEF"[bytes[i] >> 4];
    out += "0123456789ABCDEF"[bytes[i] & 15];
    out += ' ';
  }
}

}  // namespace fsu::sim
