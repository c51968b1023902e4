// Where the device's files live. Every absolute device path ("/tmp/...", "/etc/config/...",
// "/sys/class/gpio/...", "/dev/ttymxcN") is resolved under one root directory, taken from the
// environment variable FSU_ROOT on first use: the folder of a simulated board, or "/" for the
// machine's own devices. Unset, it is the real device only where /dev/ttymxc1 exists. An
// unset FSU_ROOT off the board, one that names no folder or holds characters a command line
// could misread stop the process with one line on standard error and exit status 1.
#pragma once

#include <cstddef>

namespace fsu::platform {

// Longest root accepted; together with a device path it must fit the path buffers below.
constexpr std::size_t kMaxRootLength = 200;
// Size of a buffer that holds any resolved device path the SDK builds.
constexpr std::size_t kPathSize = 512;

// The root without a trailing slash: "" on the real device, "/abs/dir" in a sandbox.
const char* root();
bool in_sandbox();

// Replaces the root for the rest of the process (tests, the simulator). A null or empty
// argument re-reads FSU_ROOT. Relative roots are made absolute. Returns false, keeping the
// previous root, when the directory text is too long or holds characters that a shell
// command line could misread.
bool set_root(const char* dir);

// Writes `device_path` resolved under the root into `out`. Paths that are not absolute are
// copied unchanged. Returns false (and an empty `out`) when the result does not fit.
bool resolve(const char* device_path, char* out, std::size_t size);

// A resolved path in a buffer of its own, for call sites that need just the text.
class DevicePath {
 public:
  explicit DevicePath(const char* device_path);
  const char* c_str() const { return text_; }
  bool ok() const { return ok_; }

 private:
  char text_[kPathSize];
  bool ok_;
};

}  // namespace fsu::platform
