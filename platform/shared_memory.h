// System V shared memory keys. On the device a segment has the key its users agree on (the
// console's counter segment: 1236). In a sandbox the key is derived from the sandbox root, so
// that two simulated units on one PC never share a segment, and every process working on the
// same root (the console, the simulator's page side) finds the same one.
#pragma once

#include <sys/types.h>

namespace fsu::platform {

// The key of `device_key` for this process's root.
key_t shared_memory_key(int device_key);
// The key of `device_key` for the root `root` ("" or "/" for the device).
key_t shared_memory_key_in(const char* root, int device_key);

}  // namespace fsu::platform
