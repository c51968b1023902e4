// The front panel's request parser and gate on arbitrary browser text: a request is taken only
// when it is bounded printable ASCII, and the shell command shown for it reads back as the
// request; the gate lets through only the panel's own token, host and origin.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/pieces.h"
#include "sim/panel_request.h"

namespace {

// Reads back a word as a POSIX shell would: bare, or in single quotes with '\'' for a quote.
std::string unquoted(std::string_view word) {
  if (word.empty() || word.front() != '\'') return std::string(word);
  std::string text;
  for (std::size_t i = 1; i < word.size(); ++i) {
    if (word.substr(i).starts_with("'\\''")) {
      text += '\'';
      i += 3;
    } else if (word[i] != '\'') {
      text += word[i];
    }
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string body(reinterpret_cast<const char*>(data), size);
  std::string error;
  const auto action = fsu::sim::parse_panel_request(body, &error);
  require(action.has_value() == error.empty());
  if (action) {
    require(size <= fsu::sim::kMaxPanelRequest);
    for (const unsigned char c : body.substr(0, body.size() - (body.ends_with('\n') ? 1 : 0))) require(c >= 0x20 && c < 0x7f);
    const std::string command = fsu::sim::panel_shell_command(*action, "/tmp/unit");
    if (action->kind == fsu::sim::PanelAction::Kind::kControl) {
      const std::string prefix = "fsusim ctl --root /tmp/unit ";
      require(command.starts_with(prefix) && unquoted(std::string_view(command).substr(prefix.size())) == action->line);
    } else {
      require(command.starts_with("fsusim web --root /tmp/unit ") && !action->words.empty() && action->words.size() <= 8);
    }
  }
  // The same bytes as a token, a Host and an Origin, cut at the first two blanks.
  const std::size_t first = body.find(' ');
  const std::size_t second = first == std::string::npos ? first : body.find(' ', first + 1);
  const std::string given = body.substr(0, first);
  const std::string host = first == std::string::npos ? "" : body.substr(first + 1, second - first - 1);
  const fsu::sim::PanelGate gate{"0123456789abcdef0123456789abcdef", {"127.0.0.1:8123"}};
  const bool allowed = gate.allows(given, host, second == std::string::npos ? std::nullopt
                                                                            : std::optional<std::string_view>(body.substr(second + 1)));
  require(!allowed || (given == gate.token && host == gate.hosts[0]));
  return 0;
}
