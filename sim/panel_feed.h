// What the front panel shows, as one JSON text: the unit's status (the lines of sim/state,
// as `fsusim status --json` gives them) and what the page shows beyond it, read from the
// sandbox: the request files of the device's web pages and their answers, and the tail of
// the SDK log, and the device tools the SDK ran (sim/calls.log: a watchdog's reboot shows
// there). Every file is read as hostile input: no link followed, bounded.
#pragma once

#include <string>

namespace fsu::sim {

// Bytes kept of the end of the SDK log, and of each request or answer file.
constexpr std::size_t kPanelLogTail = 6 * 1024;
constexpr std::size_t kPanelFileTail = 2 * 1024;

// {"root": ROOT, "status": {...} or null while no board is up, "web": [{"file": "/tmp/AIDIIFO",
//  "text": "..."}, ...], "log": "last lines of /tmp/sdklog.log", "calls": "last lines of
//  sim/calls.log"}
std::string panel_snapshot(const std::string& root);

}  // namespace fsu::sim
