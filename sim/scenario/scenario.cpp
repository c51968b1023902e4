#include "sim/scenario/scenario.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <yaml-cpp/yaml.h>

namespace fsu::sim::scenario {
namespace {

struct Keyword {
  std::string_view name;
  Kind kind;
};

constexpr Keyword kKeywords[] = {
    {"delay", Kind::kDelay},           {"set", Kind::kSet},
    {"input", Kind::kInput},           {"wait-output", Kind::kWaitOutput},
    {"fail-output", Kind::kFailOutput}, {"write-uart", Kind::kWriteUart},
    {"wait-uart", Kind::kWaitUart},    {"wait-state", Kind::kWaitState},
    {"expect-state", Kind::kExpectState}, {"web", Kind::kWeb},
    {"wait-web", Kind::kWaitWeb},      {"wait-exit", Kind::kWaitExit},
    {"wait-call", Kind::kWaitCall},
};

constexpr std::string_view kKeywordList =
    "delay, set, input, wait-output, fail-output, write-uart, wait-uart, wait-state, expect-state, web, wait-web, "
    "wait-exit, wait-call";

// The first words of the requests `fsusim web` knows.
constexpr std::string_view kWebActions[] = {"read-aidi", "read-gps", "read-gps-db", "uart",
                                            "log",       "com-attr", "all-outputs", "counters"};

// A problem at a line of the file; thrown out of the walk over the document, caught once.
struct Refused {
  int line;
  std::string why;
};

int line_of(const YAML::Node& node, int fallback) {
  const YAML::Mark mark = node.Mark();
  return mark.is_null() || mark.line < 0 ? fallback : mark.line + 1;
}

// Text for a message: quoted, control characters and long texts cut short.
std::string shown(std::string_view text) {
  std::string out = "\"";
  for (const char c : text.substr(0, 60)) out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  return out + (text.size() > 60 ? "...\"" : "\"");
}

std::string scalar(const YAML::Node& node, int line, std::string_view what) {
  if (!node.IsScalar()) throw Refused{line_of(node, line), std::string(what) + " must be a text"};
  if (node.Scalar().size() > kMaxText) {
    throw Refused{line_of(node, line), std::string(what) + " is longer than " + std::to_string(kMaxText) + " bytes"};
  }
  return node.Scalar();
}

std::string text_of(const YAML::Node& node, int line, std::string_view what) {
  std::string text = scalar(node, line, what);
  if (text.empty()) throw Refused{line_of(node, line), std::string(what) + " must not be empty"};
  return text;
}

// A line for sim/control: a break in it would slip further lines in.
std::string control_line(const YAML::Node& node, int line, std::string_view what) {
  std::string text = text_of(node, line, what);
  if (text.find_first_of("\r\n") != std::string::npos) {
    throw Refused{line_of(node, line), std::string(what) + " must be one line"};
  }
  return text;
}

int number(const YAML::Node& node, int line, std::string_view what, int low, int high) {
  const std::string text = scalar(node, line, what);
  int value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end != text.data() + text.size() || value < low || value > high) {
    throw Refused{line_of(node, line), std::string(what) + " must be a whole number from " + std::to_string(low) +
                                           " to " + std::to_string(high) + ", not " + shown(text)};
  }
  return value;
}

double duration(const YAML::Node& node, int line, std::string_view what) {
  const std::string text = scalar(node, line, what);
  double seconds = 0;
  if (!parse_duration(text, &seconds)) {
    throw Refused{line_of(node, line),
                  std::string(what) + " must be a duration with its unit (500ms, 2s, 1m; at most 1h), not " + shown(text)};
  }
  return seconds;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "7E 31 30" or "7E3130" as bytes.
std::string hex_bytes(const YAML::Node& node, int line) {
  const std::string text = text_of(node, line, "hex");
  std::string bytes;
  int high = -1;
  for (const char c : text) {
    if (c == ' ' && high < 0) continue;
    const int digit = hex_digit(c);
    if (digit < 0) throw Refused{line_of(node, line), "hex must be pairs of hex digits, not " + shown(text)};
    if (high < 0) {
      high = digit;
    } else {
      bytes += static_cast<char>(high * 16 + digit);
      high = -1;
    }
  }
  if (high >= 0 || bytes.empty()) throw Refused{line_of(node, line), "hex must be pairs of hex digits, not " + shown(text)};
  return bytes;
}

// The keys of a mapping, each once and each one of `allowed`.
void check_keys(const YAML::Node& map, int line, std::string_view what, std::initializer_list<std::string_view> allowed) {
  std::vector<std::string> seen;
  for (const auto& item : map) {
    const std::string key = item.first.IsScalar() ? item.first.Scalar() : "";
    const int at = line_of(item.first, line);
    if (std::find(allowed.begin(), allowed.end(), key) == allowed.end()) {
      std::string names;
      for (const std::string_view name : allowed) names += (names.empty() ? "" : ", ") + std::string(name);
      throw Refused{at, std::string(what) + " has no " + shown(key) + " (it takes " + names + ")"};
    }
    if (std::find(seen.begin(), seen.end(), key) != seen.end()) throw Refused{at, std::string(what) + " names " + key + " twice"};
    seen.push_back(key);
  }
}

YAML::Node map_of(const YAML::Node& node, int line, std::string_view what) {
  if (!node.IsMap()) throw Refused{line_of(node, line), std::string(what) + " takes a mapping, such as {port: 2, text: \"...\"}"};
  return node;
}

void uart_step(const YAML::Node& value, int line, Step* step) {
  const YAML::Node map = map_of(value, line, kind_name(step->kind));
  check_keys(map, line, kind_name(step->kind), {"port", "text", "hex"});
  if (!map["port"]) throw Refused{line, std::string(kind_name(step->kind)) + " needs a port (1 to 12)"};
  step->port = number(map["port"], line, "port", 1, 12);
  if (static_cast<bool>(map["text"]) == static_cast<bool>(map["hex"])) {
    throw Refused{line, std::string(kind_name(step->kind)) + " needs either text or hex"};
  }
  step->text = map["text"] ? text_of(map["text"], line, "text") : hex_bytes(map["hex"], line);
}

void state_step(const YAML::Node& value, int line, Step* step) {
  const YAML::Node map = map_of(value, line, kind_name(step->kind));
  check_keys(map, line, kind_name(step->kind), {"name", "value"});
  if (!map["name"] || !map["value"]) {
    throw Refused{line, std::string(kind_name(step->kind)) + " needs a name and a value, such as {name: \"relay 2\", value: \"on\"}"};
  }
  step->name = control_line(map["name"], line, "name");
  step->text = scalar(map["value"], line, "value");
}

void web_step(const YAML::Node& value, int line, Step* step) {
  step->text = control_line(value, line, "web");
  std::istringstream words(step->text);
  std::string action;
  words >> action;
  if (std::find(std::begin(kWebActions), std::end(kWebActions), action) == std::end(kWebActions)) {
    std::string names;
    for (const std::string_view name : kWebActions) names += (names.empty() ? "" : ", ") + std::string(name);
    throw Refused{line_of(value, line), "web has no request " + shown(action) + " (requests: " + names + ")"};
  }
}

Step load_step(const YAML::Node& item, bool* asked_web) {
  const int line = line_of(item, 1);
  if (!item.IsMap() || item.size() == 0) throw Refused{line, "a step is a mapping such as wait-output: \"ready\""};
  Step step;
  step.line = line;
  const Keyword* keyword = nullptr;
  YAML::Node value;
  std::optional<YAML::Node> timeout;
  for (const auto& entry : item) {
    const std::string key = entry.first.IsScalar() ? entry.first.Scalar() : "";
    const int at = line_of(entry.first, line);
    if (key == "timeout") {
      if (timeout) throw Refused{at, "the step names its timeout twice"};
      timeout = entry.second;
      continue;
    }
    const auto* found = std::find_if(std::begin(kKeywords), std::end(kKeywords), [&](const Keyword& k) { return k.name == key; });
    if (found == std::end(kKeywords)) throw Refused{at, "unknown step " + shown(key) + " (steps: " + std::string(kKeywordList) + ")"};
    if (keyword != nullptr) throw Refused{at, "one step per item: " + std::string(keyword->name) + " and " + key + " together"};
    keyword = found;
    value = entry.second;
  }
  if (keyword == nullptr) throw Refused{line, "a step needs one of " + std::string(kKeywordList)};
  step.kind = keyword->kind;
  if (timeout) {
    step.timeout = duration(*timeout, line, "timeout");
    if (step.timeout <= 0) throw Refused{line_of(*timeout, line), "timeout must be longer than 0"};
  }
  switch (step.kind) {
    case Kind::kDelay:
      step.seconds = duration(value, line, "delay");
      break;
    case Kind::kSet:
      step.text = control_line(value, line, "set");
      break;
    case Kind::kInput:
      step.text = text_of(value, line, "input");
      break;
    case Kind::kWaitOutput:
    case Kind::kFailOutput:
    case Kind::kWaitCall:
      step.text = text_of(value, line, keyword->name);
      break;
    case Kind::kWriteUart:
    case Kind::kWaitUart:
      uart_step(value, line, &step);
      break;
    case Kind::kWaitState:
    case Kind::kExpectState:
      state_step(value, line, &step);
      break;
    case Kind::kWeb:
      web_step(value, line, &step);
      *asked_web = true;
      break;
    case Kind::kWaitWeb:
      if (!*asked_web) throw Refused{line, "wait-web needs a web step before it"};
      step.text = text_of(value, line, "wait-web");
      break;
    case Kind::kWaitExit:
      step.code = number(value, line, "wait-exit", 0, 255);
      break;
  }
  return step;
}

std::string base_name(const std::string& file) {
  std::string name = file.substr(file.find_last_of('/') + 1);
  const std::size_t dot = name.find_last_of('.');
  if (dot != std::string::npos && dot > 0) name.resize(dot);
  return name;
}

void load_document(const YAML::Node& root, Scenario* scenario) {
  if (!root.IsMap()) throw Refused{line_of(root, 1), "a scenario is a mapping with steps: and a list of steps"};
  check_keys(root, 1, "a scenario", {"name", "board", "clock-rate", "timeout", "steps"});
  if (root["name"]) scenario->name = control_line(root["name"], 1, "name");
  if (const YAML::Node board = root["board"]) {
    if (board.IsSequence()) {
      for (const YAML::Node& line : board) scenario->board.push_back(control_line(line, line_of(board, 1), "a board line"));
    } else {
      scenario->board.push_back(control_line(board, 1, "board"));
    }
  }
  if (root["clock-rate"]) scenario->clock_rate = number(root["clock-rate"], 1, "clock-rate", 2, 100);
  if (root["timeout"]) scenario->timeout = duration(root["timeout"], 1, "timeout");
  const YAML::Node steps = root["steps"];
  if (!steps || !steps.IsSequence() || steps.size() == 0) {
    throw Refused{steps ? line_of(steps, 1) : 1, "a scenario needs steps: with at least one step"};
  }
  if (steps.size() > kMaxSteps) throw Refused{line_of(steps, 1), "more than " + std::to_string(kMaxSteps) + " steps"};
  bool asked_web = false;
  for (const YAML::Node& item : steps) scenario->steps.push_back(load_step(item, &asked_web));
}

}  // namespace

std::string_view kind_name(Kind kind) {
  for (const Keyword& keyword : kKeywords) {
    if (keyword.kind == kind) return keyword.name;
  }
  return "step";
}

bool parse_duration(std::string_view text, double* seconds) {
  std::size_t digits = 0;
  while (digits < text.size() && (std::isdigit(static_cast<unsigned char>(text[digits])) || text[digits] == '.')) ++digits;
  double value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + digits, value, std::chars_format::fixed);
  if (digits == 0 || ec != std::errc() || end != text.data() + digits) return false;
  const std::string_view unit = text.substr(digits);
  const double scale = unit == "ms" ? 0.001 : unit == "s" ? 1 : unit == "m" ? 60 : unit == "h" ? 3600 : 0;
  if (scale == 0 || !std::isfinite(value) || value * scale > kLongestDuration) return false;
  *seconds = value * scale;
  return true;
}

bool load_scenario(std::string_view text, const std::string& file, Scenario* scenario, std::string* error) {
  *scenario = Scenario{};
  scenario->file = file;
  scenario->name = base_name(file);
  try {
    if (text.size() > kMaxFileBytes) throw Refused{1, "longer than " + std::to_string(kMaxFileBytes) + " bytes"};
    if (text.find('\0') != std::string_view::npos) throw Refused{1, "not a text file (it holds a NUL byte)"};
    load_document(YAML::Load(std::string(text)), scenario);
    return true;
  } catch (const Refused& refused) {
    *error = file + ":" + std::to_string(refused.line) + ": " + refused.why;
  } catch (const YAML::Exception& e) {
    // Marks count from 0; a mark that is not set points at no line.
    *error = file + ":" + std::to_string(e.mark.is_null() ? 1 : e.mark.line + 1) + ": not YAML: " + e.msg;
  }
  *scenario = Scenario{};
  return false;
}

bool read_scenario(const std::string& file, Scenario* scenario, std::string* error) {
  struct stat st {};
  if (stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    *error = file + ": no such scenario file";
    return false;
  }
  std::ifstream in(file, std::ios::binary);
  std::string text(kMaxFileBytes + 1, '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(in.gcount()));
  return load_scenario(text, file, scenario, error);
}

}  // namespace fsu::sim::scenario
