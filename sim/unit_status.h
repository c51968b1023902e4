// The unit's state as data: the lines of sim/state split into their opening words and their
// key=value fields, looked up by name and rendered as one JSON object. `fsusim status`, the
// front panel and scenario files all read the unit through this, so the names a script uses
// are the names sim/state shows.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace fsu::sim {

struct StatusLine {
  // The line's opening words: "relay 2", "led run", "modem", "link ppp0", "error".
  std::string name;
  // Its key=value fields in order. An "error" line has "at", "line" (the rejected control
  // line) and "why".
  std::vector<std::pair<std::string, std::string>> fields;
};
using UnitStatus = std::vector<StatusLine>;

// Longest state text taken; anything beyond is ignored (the board writes a few kilobytes).
inline constexpr std::size_t kMaxStatusText = 1 << 20;

UnitStatus parse_unit_status(std::string_view state_text);
// ROOT/sim/state, read without following a planted link; nullopt when it is not there.
std::optional<UnitStatus> read_unit_status(const std::string& root);
// "relay 2" is that line's state= field; "modem.signal" the field signal= of line "modem";
// "link ppp0.address" the field address= of line "link ppp0". nullopt when there is none.
std::optional<std::string> unit_status_value(const UnitStatus& status, std::string_view key);
// One JSON object keyed by line name, each a JSON object of its fields (all values texts);
// the error lines as an array under "errors".
std::string unit_status_json(const UnitStatus& status);

}  // namespace fsu::sim
