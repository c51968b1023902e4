#include "platform/shared_memory.h"

#include <cstdint>

#include "platform/sandbox_root.h"

namespace fsu::platform {

key_t shared_memory_key_in(const char* root, int device_key) {
  if (root == nullptr) root = "";
  // FNV-1a over the root text (repeated and trailing slashes left out, so that every spelling
  // of one folder gives one key) and the device key.
  std::uint32_t hash = 2166136261u;
  const auto mix = [&hash](unsigned char c) { hash = (hash ^ c) * 16777619u; };
  bool plain = false;  // the root names a folder other than "/"
  for (const char* p = root; *p != '\0'; ++p) {
    if (*p == '/' && (p[1] == '/' || p[1] == '\0')) continue;
    plain = plain || *p != '/';
    mix(static_cast<unsigned char>(*p));
  }
  if (!plain) return device_key;
  for (int shift = 0; shift < 32; shift += 8) {
    mix(static_cast<unsigned char>(static_cast<std::uint32_t>(device_key) >> shift));
  }
  // Never the private key 0 and never a small key such as a device's own.
  return static_cast<key_t>((hash | 0x40000000u) & 0x7FFFFFFFu);
}

key_t shared_memory_key(int device_key) { return shared_memory_key_in(root(), device_key); }

}  // namespace fsu::platform
