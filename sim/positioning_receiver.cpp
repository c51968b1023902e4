#include "sim/positioning_receiver.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "platform/clock.h"
#include "sim/control.h"

namespace fsu::sim {
namespace {

constexpr double kBatchPeriod = 1.0;
constexpr std::size_t kMaxCommandLine = 128;
constexpr std::size_t kHeardKept = 4;
// Noise comes at about the rate of a real batch.
constexpr std::size_t kNoiseBytes = 700;

// A sentence: "$", the body, "*", its checksum in upper-case hex, CR LF.
std::string sentence(const std::string& body) {
  unsigned sum = 0;
  for (const char c : body) sum ^= static_cast<unsigned char>(c);
  char tail[8];
  std::snprintf(tail, sizeof tail, "*%02X\r\n", sum);
  return "$" + body + tail;
}

std::string format(const char* fmt, auto... args) {
  char text[128];
  std::snprintf(text, sizeof text, fmt, args...);
  return text;
}

// Degrees as NMEA writes them: whole degrees in `width` digits, then minutes, and the hemisphere.
std::string angle(double degrees, int width, char positive, char negative) {
  const double a = std::fabs(degrees);
  int whole = static_cast<int>(a);
  double minutes = (a - whole) * 60;
  if (minutes >= 59.999995) {  // would print as 60.00000
    ++whole;
    minutes = 0;
  }
  return format("%0*d%08.5f,%c", width, whole, minutes, degrees < 0 ? negative : positive);
}

bool number(std::string_view word, double lo, double hi, double* out) {
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), *out);
  return ec == std::errc() && end == word.data() + word.size() && *out >= lo && *out <= hi;
}

bool whole(std::string_view word, int lo, int hi, int* out) {
  const auto [end, ec] = std::from_chars(word.data(), word.data() + word.size(), *out);
  return ec == std::errc() && end == word.data() + word.size() && *out >= lo && *out <= hi;
}

std::string sky_text(const std::vector<PositioningReceiver::Satellite>& sky) {
  std::string out;
  for (const auto& s : sky) {
    if (!out.empty()) out += ',';
    out += format("%d:%d", s.id, s.cn0);
  }
  return out.empty() ? "none" : out;
}

}  // namespace

PositioningReceiver::PositioningReceiver()
    : gps_sky_{{1, 46}, {2, 41}, {12, 39}, {14, 45}, {15, 38}, {17, 25}, {19, 30}, {24, 42}, {25, 33}, {32, 0}},
      bd_sky_{{6, 41}, {9, 38}, {11, 35}, {14, 44}, {21, 40}, {23, 0}, {30, 37}, {34, 36}},
      next_batch_(platform::monotonic_seconds() + kBatchPeriod) {}

void PositioningReceiver::receive(std::span<const std::uint8_t> bytes, Uart&) {
  for (const std::uint8_t byte : bytes) {
    if (byte == '\n') {
      take_command(line_);
      line_.clear();
    } else if (byte != '\r' && line_.size() <= kMaxCommandLine) {
      line_ += static_cast<char>(byte);
    }
  }
}

void PositioningReceiver::take_command(std::string_view line) {
  if (line.empty()) return;
  const std::size_t star = line.find('*');
  const bool framed = line.size() <= kMaxCommandLine && line.front() == '$' && star != std::string_view::npos &&
                      star + 3 == line.size();
  if (!framed || sentence(std::string(line.substr(1, star - 1))) != std::string(line) + "\r\n") {
    ++bad_commands_;
    return;
  }
  heard_.emplace_back(line);
  if (heard_.size() > kHeardKept) heard_.pop_front();
  const std::string_view body = line.substr(1, star - 1);
  int systems = 0;
  if (body.starts_with("PCAS04,") && whole(body.substr(7), kGps, kGps | kBeiDou, &systems)) {
    constellations_ = systems;
    ++pcas04_;
  } else if (body == "PCAS00") {
    ++pcas00_;
  }
}

void PositioningReceiver::service(Uart& uart) {
  const double now = platform::monotonic_seconds();
  if (now < next_batch_) return;
  next_batch_ = std::max(next_batch_ + kBatchPeriod, now);
  if (output_ == Output::kSilent) return;
  // A receiver does not wait for its listener: a batch that finds the last one still on the
  // line (nobody reading the port) is not sent.
  if (uart.send_space() < Uart::kQueueCapacity) {
    ++skipped_;
    return;
  }
  const std::string bytes = next_batch(platform::seconds_now());
  ++batches_;
  uart.send({reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()});
}

std::string PositioningReceiver::next_batch(std::time_t pc_time) {
  std::string bytes;
  if (output_ == Output::kNoise) {
    for (std::size_t i = 0; i < kNoiseBytes; ++i) {
      noise_ ^= noise_ << 13, noise_ ^= noise_ >> 17, noise_ ^= noise_ << 5;
      bytes += static_cast<char>(noise_ & 0xFF);
    }
  } else {
    bytes = batch(pc_time + time_offset_);
  }
  if (drop_every_ == 0) {
    line_bytes_ += bytes.size();
    return bytes;
  }
  // The line loses one byte in drop_every_, counted across batches.
  std::string kept;
  for (const char c : bytes) {
    if (++line_bytes_ % static_cast<std::uint64_t>(drop_every_) != 0) kept += c;
  }
  return kept;
}

std::string PositioningReceiver::batch(std::time_t utc) const {
  std::tm t{};
  gmtime_r(&utc, &t);
  const bool gps = (constellations_ & kGps) != 0, bd = (constellations_ & kBeiDou) != 0;
  std::string out = fix_sentences(gn_talker_ || (gps && bd) ? "GN" : gps ? "GP" : "BD", t);
  if (gps) out += constellation_sentences(gn_talker_ ? "GN" : "GP", "GP", 1, gps_sky_);
  if (bd) out += constellation_sentences(gn_talker_ ? "GN" : "BD", "BD", 4, bd_sky_);
  return out;
}

std::string PositioningReceiver::fix_sentences(std::string_view talker, const std::tm& t) const {
  const std::string tk(talker);
  if (output_ == Output::kCold) {  // no time and no position yet
    return sentence(tk + "ZDA,,,,,,") + sentence(tk + "GGA,,,,,,0,00,99.99,,,,,,") + sentence(tk + "RMC,,V,,,,,,,,,,N");
  }
  const std::string clock = format("%02d%02d%02d.00", t.tm_hour, t.tm_min, t.tm_sec);
  const std::string date = format("%02d%02d%02d", t.tm_mday, t.tm_mon + 1, t.tm_year % 100);
  std::string out = sentence(tk + "ZDA," + clock + format(",%02d,%02d,%04d,00,00", t.tm_mday, t.tm_mon + 1, t.tm_year + 1900));
  if (output_ == Output::kNoFix) {
    out += sentence(tk + "GGA," + clock + ",,,,,0,00,99.99,,,,,,");
    return out + sentence(tk + "RMC," + clock + ",V,,,,,,," + date + ",,,N");
  }
  std::size_t used = 0;
  for (const int system : {kGps, kBeiDou}) {
    std::size_t tracked = 0;
    for (const Satellite& s : system == kGps ? gps_sky_ : bd_sky_) tracked += s.cn0 > 0;
    if ((constellations_ & system) != 0) used += std::min<std::size_t>(tracked, 12);
  }
  const std::string position = angle(latitude_, 2, 'N', 'S') + "," + angle(longitude_, 3, 'E', 'W');
  out += sentence(tk + "GGA," + clock + "," + position + format(",1,%02zu,0.9,%.1f,M,%.1f,M,,", used, altitude_, separation_));
  return out + sentence(tk + "RMC," + clock + ",A," + position + ",0.00,0.00," + date + ",,,A");
}

std::string PositioningReceiver::constellation_sentences(std::string_view gsa_talker, std::string_view gsv_talker,
                                                         int system, const std::vector<Satellite>& sky) const {
  const bool fix = output_ != Output::kNoFix && output_ != Output::kCold;
  // The satellites used in the fix: those tracked, at most twelve.
  std::string gsa = std::string(gsa_talker) + (fix ? "GSA,A,3" : "GSA,A,1");
  int listed = 0;
  for (const Satellite& s : sky) {
    if (fix && s.cn0 > 0 && listed < 12) {
      gsa += format(",%02d", s.id);
      ++listed;
    }
  }
  for (; listed < 12; ++listed) gsa += ",";
  std::string out = sentence(gsa + format(",1.2,0.9,0.8,%d", system));
  const std::size_t messages = std::max<std::size_t>(1, (sky.size() + 3) / 4);
  for (std::size_t m = 0; m < messages; ++m) {
    std::string gsv = std::string(gsv_talker) + format("GSV,%zu,%zu,%02zu", messages, m + 1, sky.size());
    for (std::size_t i = m * 4; i < sky.size() && i < m * 4 + 4; ++i) {
      const Satellite& s = sky[i];
      gsv += format(",%02d,%02d,%03d,", s.id, 10 + s.id * 37 % 80, s.id * 73 % 360);
      if (s.cn0 > 0 && output_ != Output::kCold) gsv += format("%02d", s.cn0);  // a cold receiver tracks none yet
    }
    out += sentence(gsv);
  }
  return out;
}

std::string PositioningReceiver::control(std::span<const std::string_view> args) {
  if (args.empty()) return "needs what to set";
  const std::string_view what = args[0];
  const auto rest = args.subspan(1);
  if (what == "position") return set_position(rest);
  if (what == "time") return set_time(rest);
  if (what == "sky") return set_sky(rest);
  if (what == "talker" || what == "leap" || what == "drop") return set_fault(what, rest);
  if (rest.empty()) {
    const struct {
      std::string_view word;
      Output output;
    } outputs[] = {{"fix", Output::kFix}, {"nofix", Output::kNoFix}, {"silent", Output::kSilent}, {"noise", Output::kNoise},
                   {"cold", Output::kCold}};
    for (const auto& o : outputs) {
      if (what == o.word) {
        output_ = o.output;
        return "";
      }
    }
  }
  return "no setting " + quoted_line(what);
}

std::string PositioningReceiver::set_position(std::span<const std::string_view> args) {
  double v[4] = {0, 0, altitude_, separation_};
  const double limits[4] = {90, 180, 10000, 1000};
  if (args.size() < 2 || args.size() > 4) return "needs latitude and longitude";
  for (std::size_t i = 0; i < args.size(); ++i) {
    if (!number(args[i], -limits[i], limits[i], &v[i])) return "not a value within +-" + format("%g", limits[i]) + ": " + quoted_line(args[i]);
  }
  latitude_ = v[0], longitude_ = v[1], altitude_ = v[2], separation_ = v[3];
  return "";
}

std::string PositioningReceiver::set_time(std::span<const std::string_view> args) {
  if (args.size() != 1) return "needs now or a time";
  if (args[0] == "now") {
    time_offset_ = 0;
    return "";
  }
  std::tm t{};
  const std::string text(args[0]);
  const char* end = strptime(text.c_str(), "%Y-%m-%dT%H:%M:%S", &t);
  if (end == nullptr || *end != '\0') return "not a time YYYY-MM-DDTHH:MM:SS: " + quoted_line(args[0]);
  time_offset_ = timegm(&t) - platform::seconds_now();
  return "";
}

std::string PositioningReceiver::set_sky(std::span<const std::string_view> args) {
  if (args.empty() || (args[0] != "gps" && args[0] != "bd")) return "needs gps or bd";
  if (args.size() - 1 > kMaxSky) return "at most 36 satellites";
  std::vector<Satellite> sky;
  for (const std::string_view item : args.subspan(1)) {
    const std::size_t colon = item.find(':');
    Satellite s{};
    if (colon == std::string_view::npos || !whole(item.substr(0, colon), 1, 99, &s.id) ||
        !whole(item.substr(colon + 1), 0, 99, &s.cn0)) {
      return "not a satellite ID:CN0 (1 to 99, 0 to 99): " + quoted_line(item);
    }
    sky.push_back(s);
  }
  (args[0] == "gps" ? gps_sky_ : bd_sky_) = std::move(sky);
  return "";
}

std::string PositioningReceiver::set_fault(std::string_view what, std::span<const std::string_view> args) {
  if (args.size() != 1) return "needs one value";
  if (what == "talker") {
    if (args[0] != "gn" && args[0] != "split") return "needs gn or split";
    gn_talker_ = args[0] == "gn";
    return "";
  }
  int n = 0;
  if (what == "leap") {
    // Up to ten years either way: a receiver's week number rolling over, or a wrong almanac corrected.
    if (!whole(args[0], -315360000, 315360000, &n)) return "not seconds within +-315360000: " + quoted_line(args[0]);
    time_offset_ += n;
    return "";
  }
  if (!whole(args[0], 0, 1000, &n) || n == 1) return "not 0 or one byte in 2 to 1000: " + quoted_line(args[0]);
  drop_every_ = n;
  return "";
}

void PositioningReceiver::describe_state(std::string& out) const {
  static constexpr const char* kOutputs[] = {"fix", "nofix", "silent", "noise", "cold"};
  static constexpr const char* kSystems[] = {"none", "gps", "bd", "gps+bd"};
  std::string heard;
  for (const std::string& h : heard_) {
    if (!heard.empty()) heard += '|';
    heard += h;
  }
  out += "receiver port=7 output=" + std::string(kOutputs[static_cast<int>(output_)]) +
         " constellations=" + kSystems[constellations_] + " talker=" + (gn_talker_ ? "gn" : "split") +
         " drop=" + std::to_string(drop_every_) + format(" latitude=%.6f longitude=%.6f altitude=%.1f", latitude_, longitude_, altitude_) +
         " time_offset=" + std::to_string(time_offset_) + " gps=" + sky_text(gps_sky_) + " bd=" + sky_text(bd_sky_) +
         " batches=" + std::to_string(batches_) + " skipped=" + std::to_string(skipped_) +
         " pcas04=" + std::to_string(pcas04_) + " pcas00=" + std::to_string(pcas00_) +
         " bad_commands=" + std::to_string(bad_commands_) + " heard=" + (heard.empty() ? "none" : heard) + "\n";
}

}  // namespace fsu::sim
