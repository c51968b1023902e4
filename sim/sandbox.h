// The simulated unit's file system: a sandbox root with the device's folders, factory
// configuration, the sysfs GPIO tree of the board's lines and the stand-in device tools.
#pragma once

#include <string>

namespace fsu::sim {

// GPIO lines of the board: LEDs (0, 1, 4, 18), 12 V outputs (5, 8) and the modem's power (12).
inline constexpr int kBoardGpioLines[] = {0, 1, 4, 5, 8, 12, 18};

// Makes (or refreshes) the sandbox in `root`, which is created when missing. Folders and the
// GPIO tree are created, the stand-in tools of bin/ are (re)written to call `fsusim_path` where
// they need the simulator, configuration files are written only where missing. On failure
// returns false with a reason in `error`.
bool make_sandbox(const std::string& root, const std::string& fsusim_path, std::string* error);

// Removes a sandbox made by make_sandbox: the tree under `root` and `root` itself, never
// following symbolic links out of it.
bool remove_sandbox(const std::string& root);

}  // namespace fsu::sim
