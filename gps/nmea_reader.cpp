#include "gps/nmea_reader.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>

#include "gps/gps_record.h"
#include "gps/signal_report.h"
#include "platform/command_runner.h"
#include "platform/sandbox_root.h"
#include "support/file_helpers.h"
#include "support/thread_buffer.h"

namespace fsu::gps {
namespace {

// A sentence is taken only when its "*" is at most this far from its "$".
constexpr std::ptrdiff_t kMaxSpan = 200;
// The working copy of a sentence: up to 199 characters before its carriage return.
constexpr std::size_t kSentenceChars = 199;
// A field is read as at most this many characters.
constexpr std::size_t kFieldChars = 99;
// Every number read is held within this bound, so that every value of the record stays finite
// and converts to a whole number (an int) without overflow, also summed with another.
constexpr double kNumberBound = 1e8;
constexpr std::int32_t kIntBound = 100000000;
// The receiver's UTC, read as local time, plus eight hours.
constexpr std::int64_t kZdaOffset = 28800;

constexpr char kHex[] = "0123456789ABCDEF";

bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

// Leading blanks, a sign, then decimal digits; 0 without digits, held within +-1e8.
std::int32_t to_int(std::string_view s) {
  std::size_t i = 0;
  while (i < s.size() && is_blank(s[i])) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  std::int32_t value = 0;
  for (; i < s.size() && is_digit(s[i]); ++i) value = std::min(kIntBound, value * 10 + (s[i] - '0'));
  return negative ? -value : value;
}

// Leading blanks, a sign, digits and a decimal fraction, converted as strtod would convert just
// that text (no exponents, no "inf" or "nan"); 0 without digits, held within +-1e8.
double to_decimal(std::string_view s) {
  static constexpr double kPow10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                      1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
  std::size_t i = 0;
  while (i < s.size() && is_blank(s[i])) ++i;
  const std::size_t start = i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) negative = s[i++] == '-';
  // Up to 15 significant digits and 22 decimals the quotient of two exact doubles is the
  // correctly rounded value, as strtod gives it; longer numbers go to strtod itself.
  std::uint64_t mantissa = 0;
  int significant = 0, decimals = 0;
  bool exact = true;
  const auto digit = [&](char c, bool fraction) {
    if (mantissa == 0 && c == '0') {
      decimals += fraction;
      return;
    }
    if (significant == 15) {
      exact = false;
      return;
    }
    mantissa = mantissa * 10 + static_cast<std::uint64_t>(c - '0');
    ++significant;
    decimals += fraction;
  };
  for (; i < s.size() && is_digit(s[i]); ++i) digit(s[i], false);
  if (i < s.size() && s[i] == '.') {
    for (++i; i < s.size() && is_digit(s[i]); ++i) digit(s[i], true);
  }
  double value;
  if (exact && decimals <= 22) {
    value = static_cast<double>(mantissa) / kPow10[decimals];
    if (negative) value = -value;
  } else {
    char text[kFieldChars + 1];
    const std::size_t n = std::min(i - start, kFieldChars);
    std::memcpy(text, s.data() + start, n);
    text[n] = '\0';
    value = std::strtod(text, nullptr);
  }
  return std::clamp(value, -kNumberBound, kNumberBound);
}

// Degrees from the first `degree_digits` characters, minutes from the rest, in single precision
// as the receiver's format is read on the device.
double coordinate(std::string_view field, std::size_t degree_digits) {
  const std::int32_t degrees = to_int(field.substr(0, degree_digits));
  const float minutes = static_cast<float>(to_decimal(field.size() > degree_digits ? field.substr(degree_digits) : ""));
  return static_cast<double>(static_cast<float>(degrees) + minutes / 60.0f);
}

std::string_view part(std::string_view s, std::size_t at, std::size_t n) {
  return at < s.size() ? s.substr(at, n) : std::string_view();
}

// One sentence as its working copy holds it (from "$" up to the carriage return, at most 199
// characters) with the offsets of its commas: field k is the text between the k-th and the
// (k+1)-th comma, empty when there is no (k+1)-th.
class Sentence {
 public:
  Sentence(const char* text, std::size_t size) : text_(text), size_(size) {
    for (std::size_t i = 0; i < size; ++i) {
      comma_[commas_] = static_cast<std::uint8_t>(i);
      commas_ += text[i] == ',';
    }
  }
  int commas() const { return commas_; }
  std::string_view field(int k) const {
    if (k < 1 || k >= commas_) return {};
    const std::size_t begin = comma_[k - 1] + 1u;
    return {text_ + begin, std::min<std::size_t>(comma_[k] - begin, kFieldChars)};
  }
  // The text between the k-th comma and the first "*": a sentence's last field.
  std::string_view to_star(int k) const {
    if (k < 1 || k > commas_) return {};
    const void* star = std::memchr(text_, '*', size_);
    const std::size_t begin = comma_[k - 1] + 1u;
    if (star == nullptr || static_cast<const char*>(star) < text_ + begin) return {};
    return {text_ + begin, std::min<std::size_t>(static_cast<std::size_t>(static_cast<const char*>(star) - text_) - begin, kFieldChars)};
  }

 private:
  const char* text_;
  std::size_t size_;
  std::uint8_t comma_[kSentenceChars + 1];
  int commas_ = 0;
};

// The first `c` at or after a position, remembered so that a batch is searched once however
// often its sentences restart the search.
class NextOf {
 public:
  NextOf(char c, const char* end) : c_(c), end_(end) {}
  const char* from(const char* p) {
    if (searched_ == nullptr || p < searched_ || (hit_ != nullptr && p > hit_)) {
      searched_ = p;
      hit_ = p < end_ ? static_cast<const char*>(std::memchr(p, c_, static_cast<std::size_t>(end_ - p))) : nullptr;
    }
    return hit_;
  }

 private:
  char c_;
  const char* end_;
  const char* searched_ = nullptr;
  const char* hit_ = nullptr;
};

enum class Talker { kGps, kBeiDou, kOther };

class Reader {
 public:
  void parse(const char* text, std::size_t count);
  void clear() {
    work_ = GpsInfo{};
    complete_[0] = complete_[1] = Tables{};
    publish_gps_info(work_);
  }
  void forget_hour() { hour_ = Hour{}; }
  std::mutex lock;

 private:
  void take(const char* dollar, const char* cr, const char* star, const char* end);
  void zda(const Sentence& s);
  void gsv(const Sentence& s, Talker talker);
  void gsa(const Sentence& s, Talker talker);
  void rmc(const Sentence& s);
  void gga(const Sentence& s);
  std::time_t hour_start(int year, int month, int day, int hour);

  void publish();

  GpsInfo work_;
  // The satellites of the last complete GSV group of GPS [0] and BeiDou [1]: what the record
  // shows, so that no reader sees a group that a batch boundary cut in two.
  struct Tables {
    std::int32_t ids[kSatSlots] = {};
    std::int32_t cn0[kSatSlots] = {};
  } complete_[2];
  bool group_complete_ = false;
  // Epoch seconds of the last hour a ZDA fell in: one conversion of local time an hour.
  struct Hour {
    int year = -1, month = 0, day = 0, hour = 0;
    std::time_t start = -1;
  } hour_;
};

Reader reader;
std::atomic<int> reset_request{0};

void Reader::parse(const char* text, std::size_t count) {
  const char* const end = text + count;
  NextOf dollars('$', end), stars('*', end), returns('\r', end);
  // The first carriage return followed by a line feed at or after p.
  const auto line_end = [&](const char* p) {
    for (const char* cr = returns.from(p); cr != nullptr; cr = returns.from(cr + 1)) {
      if (cr + 1 < end && cr[1] == '\n') return cr;
    }
    return static_cast<const char*>(nullptr);
  };
  group_complete_ = false;
  const char* cursor = text;
  for (;;) {
    const char* dollar = dollars.from(cursor);
    if (dollar == nullptr) break;
    const char* star = stars.from(dollar + 1);
    if (star == nullptr) break;  // no checksum anywhere further: no later sentence is whole either
    const char* next = dollars.from(dollar + 1);
    if (next != nullptr && next < star) {  // a fragment without a checksum
      cursor = next;
      continue;
    }
    cursor = star + 1;
    const char* cr = line_end(dollar + 1);
    if (cr == nullptr) continue;  // incomplete: the rest of the batch has no line end either
    cursor = end - star > 3 ? star + 3 : end;  // past the two checksum characters
    if (star - dollar > kMaxSpan) continue;
    take(dollar, cr, star, end);
  }
  publish();
  if (group_complete_) signal_report_ready();
}

void Reader::publish() {
  GpsInfo shown = work_;
  std::copy_n(complete_[0].ids, kSatSlots, shown.gps_sat_id);
  std::copy_n(complete_[0].cn0, kSatSlots, shown.gps_cn0);
  std::copy_n(complete_[1].ids, kSatSlots, shown.bd_sat_id);
  std::copy_n(complete_[1].cn0, kSatSlots, shown.bd_cn0);
  publish_gps_info(shown);
}

void Reader::take(const char* dollar, const char* cr, const char* star, const char* end) {
  std::uint8_t sum = 0;
  for (const char* p = dollar + 1; p < star; ++p) sum ^= static_cast<std::uint8_t>(*p);
  // Compared as text with the upper-case digits: lower-case digits do not match.
  if (end - star < 3 || star[1] != kHex[sum >> 4] || star[2] != kHex[sum & 15]) return;
  const auto size = std::min(static_cast<std::size_t>(cr - dollar), kSentenceChars);
  if (size < 6) return;
  const std::string_view talker(dollar + 1, 2);
  const Talker t = talker == "GP" ? Talker::kGps : talker == "BD" ? Talker::kBeiDou : Talker::kOther;
  const std::string_view type(dollar + 3, 3);
  if (type == "ZDA") {
    zda(Sentence(dollar, size));
  } else if (type == "GSV") {
    gsv(Sentence(dollar, size), t);
  } else if (type == "GSA") {
    gsa(Sentence(dollar, size), t);
  } else if (type == "RMC") {
    rmc(Sentence(dollar, size));
  } else if (type == "GGA") {
    gga(Sentence(dollar, size));
  }
}

std::time_t Reader::hour_start(int year, int month, int day, int hour) {
  if (year != hour_.year || month != hour_.month || day != hour_.day || hour != hour_.hour) {
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02d %02d:00:00", year, month, day, hour);
    hour_ = Hour{year, month, day, hour, support::strtotime(text)};
  }
  return hour_.start;
}

void Reader::zda(const Sentence& s) {
  const std::string_view time = s.field(1);
  const int minute = to_int(part(time, 2, 2)), second = to_int(part(time, 4, 2));
  const int zone_hours = to_int(s.field(5)), zone_minutes = to_int(s.field(6));
  // A time that does not convert, or a zone no receiver sends, leaves the last valid time.
  if (minute < 0 || minute > 59 || second < 0 || second > 61 || zone_hours < -23 || zone_hours > 23 ||
      zone_minutes < 0 || zone_minutes > 59) {
    return;
  }
  const std::time_t start = hour_start(to_int(s.field(4)), to_int(s.field(3)), to_int(s.field(2)), to_int(part(time, 0, 2)));
  if (start == -1) return;
  std::int64_t t = static_cast<std::int64_t>(start) + minute * 60 + second + kZdaOffset;
  const std::int64_t zone = std::abs(zone_hours) * 3600 + zone_minutes * 60;
  t += zone_hours >= 0 ? -zone : zone;
  if (t > 0 && t <= INT32_MAX) work_.gps_time = static_cast<std::int32_t>(t);
}

void Reader::gsv(const Sentence& s, Talker talker) {
  const bool gps = talker == Talker::kGps;
  std::int32_t* ids = gps ? work_.gps_sat_id : work_.bd_sat_id;
  std::int32_t* levels = gps ? work_.gps_cn0 : work_.bd_cn0;
  int number = to_int(s.field(2));
  if (talker != Talker::kOther && number == 1) {
    std::fill_n(ids, kSatSlots, 0);
    std::fill_n(levels, kSatSlots, 0);
  }
  if (number < 1 || number > 9) number = 0;
  // Only a numbered message of GPS or BeiDou stores anything. A sentence of 199 characters has
  // at most 48 blocks, so message 9 reaches no further than slot 79.
  static_assert((9 - 1) * 4 + (kSentenceChars - 1 - 3) / 4 - 1 < kSatSlots);
  const int blocks = talker != Talker::kOther && number != 0 ? (s.commas() - 3) / 4 : 0;
  for (int i = 0; i < blocks; ++i) {
    const int f = 4 + 4 * i;
    const std::string_view id = s.field(f);
    const int slot = (number - 1) * 4 + i;
    if (id.empty()) continue;
    ids[slot] = to_int(id);
    if (s.field(f + 1).empty() || s.field(f + 2).empty()) continue;
    std::string_view level = s.field(f + 3);
    if (level.empty()) level = s.to_star(f + 3);
    if (!level.empty()) levels[slot] = to_int(level);
  }
  if (number == to_int(s.field(1))) {
    group_complete_ = true;
    if (talker != Talker::kOther) {
      Tables& shown = complete_[gps ? 0 : 1];
      std::copy_n(ids, kSatSlots, shown.ids);
      std::copy_n(levels, kSatSlots, shown.cn0);
    }
  }
  if (talker == Talker::kGps) work_.gps_in_view = static_cast<float>(to_decimal(s.field(3)));
  if (talker == Talker::kBeiDou) work_.bd_in_view = static_cast<float>(to_decimal(s.field(3)));
}

void Reader::gsa(const Sentence& s, Talker talker) {
  int used = 0;
  for (int i = 0; i < s.commas() - 6; ++i) used += !s.field(3 + i).empty();
  if (talker == Talker::kGps) work_.gps_used = static_cast<float>(used);
  if (talker == Talker::kBeiDou) work_.bd_used = static_cast<float>(used);
}

void Reader::rmc(const Sentence& s) {
  if (s.field(2) == "V") return;
  work_.latitude = coordinate(s.field(3), 2);
  work_.longitude = coordinate(s.field(5), 3);
  work_.south = s.field(4) == "S";
  work_.west = s.field(6) == "W";
}

void Reader::gga(const Sentence& s) {
  if (s.field(2).empty()) return;
  work_.latitude = coordinate(s.field(2), 2);
  work_.longitude = coordinate(s.field(4), 3);
  work_.south = s.field(3) == "S";
  work_.west = s.field(5) == "W";
  work_.altitude = static_cast<float>(to_decimal(s.field(9))) + static_cast<float>(to_decimal(s.field(11)));
}

// The n-th occurrence of the needle, a search restarting one character after each hit.
const char* nth(const char* text, const char* needle, int n) {
  const char* hit = nullptr;
  for (const char* p = text; n > 0; --n, p = hit + 1) {
    hit = std::strstr(p, needle);
    if (hit == nullptr) return nullptr;
  }
  return hit;
}

}  // namespace

int BSP_GPS_READ(const char* text, int count) {
  if (text == nullptr || count <= kGpsBatchBytes) return -1;
  std::lock_guard<std::mutex> lock(reader.lock);
  if (reset_request.exchange(0) == 1) {
    reader.clear();
    remove_gps_files();
    return 0;
  }
  reader.parse(text, static_cast<std::size_t>(count));
  return 0;
}

void clear_gps_info() {
  std::lock_guard<std::mutex> lock(reader.lock);
  reader.clear();
}

void request_gps_reset() { reset_request.store(1); }

int remove_gps_files() { return platform::run_commandf("rm %s", platform::DevicePath("/tmp/gps_*").c_str()); }

const char* Read_A_Str(const char* text, int n, int m, const char* a, const char* b) {
  thread_local support::ThreadBuffer<kFieldChars + 1> str_read_buffer;
  auto& Str_Read = str_read_buffer.text();
  std::memset(Str_Read, 0, sizeof Str_Read);
  if (text == nullptr || a == nullptr || b == nullptr || *a == '\0' || *b == '\0' || n < 1 || m < 1) return Str_Read;
  const char* first = nth(text, a, n);
  const char* second = nth(text, b, m);
  if (first == nullptr || second == nullptr) return Str_Read;
  const char* begin = first + std::strlen(a);
  if (second < begin) return Str_Read;
  std::memcpy(Str_Read, begin, std::min(static_cast<std::size_t>(second - begin), kFieldChars));
  return Str_Read;
}

int Read_Str_Num(const char* text, const char* needle) {
  if (text == nullptr || needle == nullptr || *needle == '\0') return 0;
  int count = 0;
  for (const char* hit = std::strstr(text, needle); hit != nullptr; hit = std::strstr(hit + 1, needle)) ++count;
  return count;
}

std::uint8_t Check_sum(const std::uint8_t* data, int len) {
  std::uint8_t sum = 0;
  for (int i = 0; data != nullptr && i < len; ++i) sum ^= data[i];
  return sum;
}

void reset_gps_reader_for_tests() {
  std::lock_guard<std::mutex> lock(reader.lock);
  reader.clear();
  reader.forget_hour();
  reset_request.store(0);
  Read_GPS_dB_Flag();
}

}  // namespace fsu::gps
