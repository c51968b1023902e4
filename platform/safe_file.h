// Writing files in a folder that anyone may write (/tmp). The SDK runs as root there, so a link
// or a hard link that another user plants at one of its file names must never make it write a
// file elsewhere. Every file the SDK writes goes through one of the two calls below:
// - a whole file is written to a new file beside it and renamed over the name, so whatever
//   stood at the name (a planted link included) is replaced, never followed;
// - a log is appended through a descriptor that follows no link and belongs to a regular file
//   of this user with one name; anything else at the name is removed and a new file started.
// Both report a failure themselves (report_file_failure). Neither allocates memory, so the
// serial readers' hex logs may use them.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace fsu::platform {

// Replaces the file at device path `path` with the `size` bytes of `data`, created `mode` (less
// the umask). 0, or -1 (errno set) with the old file in place and no new file left behind.
int replace_file(const char* path, const char* data, std::size_t size, mode_t mode);

// A write-only descriptor (close-on-exec) of the file at device path `path`, created `mode`
// when missing; `flags` adds O_APPEND where wanted. Refuses a link, a hard link, a file of
// another user and anything not a regular file: that entry is removed and a new file is
// created in its place (exclusively, so a link planted again meanwhile is refused too).
// -1 with errno set when no file of our own can be had.
int open_own_file(const char* path, int flags, mode_t mode);

// Reports a failed file write on standard error, at most one line per failure period (60 s
// of platform::monotonic_seconds()): a read-only /tmp must not print a line per record.
// `what` names the step ("open", "write", "rename"), `err` is the errno of the failure.
void report_file_failure(const char* what, const char* path, int err);
constexpr double kFileFailurePeriod = 60;

}  // namespace fsu::platform
