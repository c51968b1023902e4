// The device tools of a sandbox's bin/: small generated shell scripts that record their
// command line in sim/calls.log and answer as the device's tools do, without touching the host.
#pragma once

#include <string>

namespace fsu::sim {

// (Re)writes every stand-in tool into `root`/bin (mode 0755). `root` must be absolute;
// `fsusim_path` is the simulator executable that the tools implemented in C++ call back.
bool write_stand_in_tools(const std::string& root, const std::string& fsusim_path, std::string* error);

}  // namespace fsu::sim
