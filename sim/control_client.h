// The sending side of sim/control, for `fsusim ctl` and tests: append command lines to a
// running board's control file and wait until the board has taken them.
#pragma once

#include <span>
#include <string>
#include <vector>

namespace fsu::sim {

// Appends `lines` (one command each, without line breaks) to the control file of the board up
// in `root`, in one piece, and waits until the board has taken them, for at most `timeout`
// seconds. Returns true when every line was applied. Otherwise returns false and adds to
// `errors` the board's reason for each rejected line, or why the lines could not be delivered.
bool send_control(const std::string& root, std::span<const std::string> lines, double timeout,
                  std::vector<std::string>* errors);

}  // namespace fsu::sim
