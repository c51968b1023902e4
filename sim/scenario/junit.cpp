#include "sim/scenario/junit.h"

#include <cstdio>
#include <ctime>

namespace fsu::sim::scenario {
namespace {

// Length of the well-formed UTF-8 sequence of a character XML allows at the start of `text`,
// or 0.
std::size_t xml_character(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  if (lead < 0x80) return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
  std::size_t length = 0;
  char32_t code = 0;
  char32_t least = 0;
  if ((lead & 0xE0) == 0xC0) {
    length = 2, code = lead & 0x1F, least = 0x80;
  } else if ((lead & 0xF0) == 0xE0) {
    length = 3, code = lead & 0x0F, least = 0x800;
  } else if ((lead & 0xF8) == 0xF0) {
    length = 4, code = lead & 0x07, least = 0x10000;
  } else {
    return 0;
  }
  if (text.size() < length) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  const bool allowed = code >= least && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF) && code != 0xFFFE &&
                       code != 0xFFFF;
  return allowed ? length : 0;
}

std::string seconds_text(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

}  // namespace

std::string xml_text(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t length = xml_character(text.substr(i));
    if (length == 0) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned char>(text[i]));
      out += escaped;
      ++i;
      continue;
    }
    switch (text[i]) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      case '\r': out += "&#13;"; break;  // kept: a parser would turn a bare CR into a line feed
      default: out.append(text.substr(i, length));
    }
    i += length;
  }
  return out;
}

std::string junit_report(std::string_view suite, const std::vector<CaseReport>& cases) {
  double total = 0;
  int failures = 0;
  for (const CaseReport& c : cases) {
    total += c.seconds;
    failures += c.passed ? 0 : 1;
  }
  char stamp[32];
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &utc);
  const std::string counts = " tests=\"" + std::to_string(cases.size()) + "\" failures=\"" + std::to_string(failures) +
                             "\" errors=\"0\" time=\"" + seconds_text(total) + "\"";
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<testsuites name=\"" + xml_text(suite) + "\"" + counts +
                    ">\n  <testsuite name=\"" + xml_text(suite) + "\"" + counts + " skipped=\"0\" timestamp=\"" + stamp +
                    "\">\n";
  for (const CaseReport& c : cases) {
    out += "    <testcase name=\"" + xml_text(c.name) + "\" classname=\"" + xml_text(c.file) + "\" file=\"" +
           xml_text(c.file) + "\" time=\"" + seconds_text(c.seconds) + "\">\n";
    if (!c.passed) {
      out += "      <failure message=\"" + xml_text(c.message) + "\" type=\"failure\">" + xml_text(c.details) +
             "</failure>\n";
    }
    if (!c.output.empty()) out += "      <system-out>" + xml_text(c.output) + "</system-out>\n";
    out += "    </testcase>\n";
  }
  return out + "  </testsuite>\n</testsuites>\n";
}

}  // namespace fsu::sim::scenario
