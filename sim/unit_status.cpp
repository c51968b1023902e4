#include "sim/unit_status.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace fsu::sim {
namespace {

std::string_view next_word(std::string_view& rest) {
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  const std::size_t end = rest.find(' ');
  const std::string_view word = rest.substr(0, end);
  rest.remove_prefix(end == std::string_view::npos ? rest.size() : end);
  return word;
}

// "error at=57 "uart 13 loopback": no port 13 ..." as the board writes a rejected line.
StatusLine error_line(std::string_view rest) {
  StatusLine line{"error", {}};
  const std::string_view at = next_word(rest);
  if (at.starts_with("at=")) line.fields.emplace_back("at", std::string(at.substr(3)));
  while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
  std::string_view text = rest;
  std::string_view why;
  if (rest.starts_with('"')) {
    const std::size_t close = rest.find("\": ", 1);
    if (close != std::string_view::npos) {
      text = rest.substr(1, close - 1);
      why = rest.substr(close + 3);
    }
  }
  line.fields.emplace_back("line", std::string(text));
  line.fields.emplace_back("why", std::string(why));
  return line;
}

void append_json_text(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < 0x20 || byte == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
      out += escaped;
    } else if (byte >= 0x80) {
      // The board writes ASCII; anything else is shown as the replacement mark, so the
      // object stays valid UTF-8 whatever the file holds.
      out += "\\ufffd";
    } else {
      out += c;
    }
  }
  out += '"';
}

void append_fields(std::string& out, const StatusLine& line) {
  out += '{';
  bool first = true;
  for (const auto& [key, value] : line.fields) {
    if (!first) out += ", ";
    first = false;
    append_json_text(out, key);
    out += ": ";
    append_json_text(out, value);
  }
  out += '}';
}

}  // namespace

UnitStatus parse_unit_status(std::string_view text) {
  UnitStatus status;
  text = text.substr(0, kMaxStatusText);
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    std::string_view rest = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    if (rest.starts_with("error ")) {
      status.push_back(error_line(rest.substr(6)));
      continue;
    }
    StatusLine line;
    for (std::string_view word = next_word(rest); !word.empty(); word = next_word(rest)) {
      const std::size_t equals = word.find('=');
      if (equals == std::string_view::npos && line.fields.empty()) {
        if (!line.name.empty()) line.name += ' ';
        line.name += word;
      } else if (equals != std::string_view::npos && equals > 0) {
        line.fields.emplace_back(std::string(word.substr(0, equals)), std::string(word.substr(equals + 1)));
      }
    }
    if (!line.name.empty()) status.push_back(std::move(line));
  }
  return status;
}

std::optional<UnitStatus> read_unit_status(const std::string& root) {
  const int fd = ::open((root + "/sim/state").c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char buffer[8192];
  for (ssize_t got; text.size() < kMaxStatusText && (got = ::read(fd, buffer, sizeof buffer)) != 0;) {
    if (got < 0) break;
    text.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(fd);
  return parse_unit_status(text);
}

std::optional<std::string> unit_status_value(const UnitStatus& status, std::string_view key) {
  std::string_view name = key;
  std::string_view field = "state";
  if (const std::size_t dot = key.rfind('.'); dot != std::string_view::npos) {
    name = key.substr(0, dot);
    field = key.substr(dot + 1);
  }
  for (const StatusLine& line : status) {
    if (line.name != name) continue;
    for (const auto& [k, v] : line.fields)
      if (k == field) return v;
  }
  return std::nullopt;
}

std::string unit_status_json(const UnitStatus& status) {
  std::string out = "{";
  std::string errors;
  std::vector<std::string_view> seen;
  for (const StatusLine& line : status) {
    if (line.name == "error") {
      errors += errors.empty() ? "" : ", ";
      append_fields(errors, line);
      continue;
    }
    // A name shows once (the first line wins), so the object has no duplicate keys.
    bool dup = false;
    for (const std::string_view name : seen) dup = dup || name == line.name;
    if (dup) continue;
    seen.push_back(line.name);
    if (out.size() > 1) out += ", ";
    append_json_text(out, line.name);
    out += ": ";
    append_fields(out, line);
  }
  if (out.size() > 1) out += ", ";
  out += "\"errors\": [" + errors + "]}";
  return out;
}

}  // namespace fsu::sim
