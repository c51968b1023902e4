// Shell commands of the device (date, hwclock, uci, killall, rm, zip, echo into sysfs, ...).
// On the device they run as given. In a sandbox they run with $FSU_ROOT/bin first on the PATH,
// so that the simulator's stand-in tools answer instead of the host's; without that folder,
// or when a device tool named in the command has no stand-in, nothing runs at all.
#pragma once

#include <cstddef>

namespace fsu::platform {

// Size of the buffer that run_commandf builds its command line in.
constexpr std::size_t kCommandSize = 4096;

// True when `command` may run here (always on the device).
bool command_allowed(const char* command);

// Runs `command` through /bin/sh -c, as system(3) does. Two frequent forms skip the shell with
// the same effect: `echo WORD > FILE` of plain words is written in-process, and in a sandbox a
// stand-in tool with plain-word arguments is started directly. Returns the wait status, or -1 when
// the command is null, refused or cannot be started.
int run_command(const char* command);

// printf-style form of run_command; a command line that does not fit kCommandSize is refused.
int run_commandf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Runs `command` as popen(3) for reading would, and stores up to `size` bytes of its standard
// output in `out` (not terminated), then closes the pipe and waits for the command. Returns
// the number of bytes stored, or -1 when the command is refused or cannot be started.
long capture_command(const char* command, char* out, std::size_t size);

}  // namespace fsu::platform
