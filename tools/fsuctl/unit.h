// The unit fsuctl works on: the device (FSU_ROOT unset or empty) or a simulated unit (FSU_ROOT),
// whether it is up, whether an SDK program already owns its ports, and the web request files
// through which such a program is asked, as the device's web pages ask it.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

namespace fsuctl {

struct Unit {
  std::string root;  // "" on the device
  bool simulated() const { return !root.empty(); }
  // Host path of a device path ("/tmp/AIDIIFO").
  std::string path(const char* device_path) const { return root + device_path; }
  // "the device" or "the simulated unit in ROOT".
  std::string name() const;
};

// The unit the environment names; a trailing slash of FSU_ROOT is dropped.
Unit unit_from_environment();

// Why the unit cannot be used, in one line, or empty when it is up. A simulated unit is up
// while sim/board.pid names a live process; the device while its first UART exists.
std::string unit_down(const Unit& unit);

// The process holding the advisory lock that every SDK program takes on the serial ports it
// opens (/dev/ttymxc1 to /dev/ttymxc7): its pid, -1 when a port is locked by a process we
// cannot name, 0 when no port is locked.
pid_t port_owner(const Unit& unit);

// Puts a request file in place (written aside and renamed, with `text` as its content) and
// waits up to `seconds` for the owner's web request thread to take it and write the answer
// file anew; the answer's text (at most 64 KiB), or nothing at the deadline, when the request
// file is taken back so that no later program answers it.
std::optional<std::string> ask(const Unit& unit, const char* request, const char* answer, const std::string& text,
                               double seconds);

}  // namespace fsuctl
