// What the front panel's page asks the simulator to do: one action per request, the text of a
// `fsusim ctl` control line or of a `fsusim web` request, so that the page changes the unit
// only the ways a person at a shell can. The text comes from a browser and is treated as
// hostile: it is bounded, printable ASCII, and names a known kind of action.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fsu::sim {

struct PanelAction {
  enum class Kind { kControl, kWeb };
  Kind kind = Kind::kControl;
  std::string line;                // kControl: the control line, as `fsusim ctl` takes it
  std::vector<std::string> words;  // kWeb: the arguments of `fsusim web`
};

// Longest request body taken.
constexpr std::size_t kMaxPanelRequest = 1024;

// Parses a request body, "ctl LINE" or "web ACTION ARG...", one line with at most a final line
// break. Gives nullopt and a reason in `error` for anything else.
std::optional<PanelAction> parse_panel_request(std::string_view body, std::string* error);

// The shell command that does the same as `action` on the board in `root`, as the page shows it:
// fsusim ctl --root /tmp/unit 'di 3 closed'.
std::string panel_shell_command(const PanelAction& action, std::string_view root);

// Who may use a panel.
struct PanelGate {
  std::string token;
  std::vector<std::string> hosts;  // Host values that name the panel: "127.0.0.1:8123", ...

  // The token as given in the request, its Host header and its Origin header (nullopt when
  // absent): true when the request may be served.
  bool allows(std::string_view given_token, std::string_view host, std::optional<std::string_view> origin) const;
};

// 32 hexadecimal digits from the kernel's random source.
std::string new_panel_token();

// The address fsusim listens on when none is given.
constexpr const char kPanelLoopback[] = "127.0.0.1";

// What a panel bound to `bind` exposes, for the person who chose it (empty for the loopback).
std::string panel_exposure(std::string_view bind, std::string_view root);

}  // namespace fsu::sim
