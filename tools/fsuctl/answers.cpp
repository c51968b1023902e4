#include "tools/fsuctl/answers.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fsuctl {
namespace {

bool digit(char c) { return c >= '0' && c <= '9'; }

// A decimal number at the start of `text` (blanks first allowed), or nothing.
std::optional<double> number_at(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  std::size_t end = i;
  if (end < text.size() && text[end] == '-') ++end;
  while (end < text.size() && (digit(text[end]) || text[end] == '.')) ++end;
  // The number must end where the report's text goes on: "1e999" or "2.5x" is no reading.
  if (end < text.size() && std::string_view(" ,;\r\n").find(text[end]) == std::string_view::npos) return std::nullopt;
  const std::string word(text.substr(i, end - i));
  if (word.empty() || word == "-" || word == ".") return std::nullopt;
  char* stop = nullptr;
  const double value = std::strtod(word.c_str(), &stop);
  if (stop != word.c_str() + word.size() || !std::isfinite(value)) return std::nullopt;
  return value;
}

}  // namespace

bool report_without_inputs(std::string_view report) {
  return report.find("AI 01") == std::string_view::npos && report.find("环境板通信异常") != std::string_view::npos;
}

std::optional<Analogue> report_analogue(std::string_view report, int n) {
  if (n < 1 || n > 99) return std::nullopt;
  char key[8];
  std::snprintf(key, sizeof key, "AI %02d ", n);
  const std::size_t at = report.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  const std::string_view entry = report.substr(at, report.find(';', at) - at);
  const std::size_t volts_at = entry.find("In:");
  const std::size_t amps_at = volts_at == std::string_view::npos ? volts_at : entry.find("In:", volts_at + 3);
  if (amps_at == std::string_view::npos) return std::nullopt;
  const auto volts = number_at(entry.substr(volts_at + 3));
  const auto amps = number_at(entry.substr(amps_at + 3));
  if (!volts || !amps) return std::nullopt;
  return Analogue{*volts, *amps};
}

std::optional<int> report_digital(std::string_view report, int n) {
  const std::size_t start = report.find("DI1-08:");
  if (n < 1 || start == std::string_view::npos) return std::nullopt;
  // Values in order; the group labels ("DI9-16:") between them are skipped, "NULL" is an input
  // that could not be read.
  int index = 0;
  for (std::size_t i = start; i < report.size();) {
    if (report.compare(i, 2, "DI") == 0) {
      const std::size_t colon = report.find(':', i);
      if (colon == std::string_view::npos) break;
      i = colon + 1;
    } else if (report.compare(i, 4, "NULL") == 0) {
      if (++index == n) return std::nullopt;
      i += 4;
    } else if (digit(report[i])) {
      std::size_t end = i;
      while (end < report.size() && digit(report[end])) ++end;
      if (++index == n) {
        if (end - i != 1 || (report[i] != '0' && report[i] != '1')) return std::nullopt;
        return report[i] - '0';
      }
      i = end;
    } else if (report[i] == ' ' || report[i] == ',' || report[i] == ';' || report[i] == ':') {
      ++i;
    } else {
      break;  // the report ends here (or is not a report)
    }
  }
  return std::nullopt;
}

std::optional<std::vector<double>> report_position(std::string_view report) {
  std::vector<double> values;
  for (std::size_t at = report.find('='); at != std::string_view::npos && values.size() < 7;
       at = report.find('=', at + 1)) {
    const auto value = number_at(report.substr(at + 1));
    if (!value) return std::nullopt;
    values.push_back(*value);
  }
  if (values.size() != 7) return std::nullopt;
  return values;
}

}  // namespace fsuctl
