#include "platform/caller_text.h"

#include <cstring>

namespace fsu::platform {

bool caller_text_is_safe(const char* text, Blanks blanks) {
  if (text == nullptr) return false;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
    const unsigned char c = *p;
    if (c < 0x20 || c == 0x7f) return false;
    if (c == ' ' && blanks == Blanks::kRefused) return false;
    if (std::strchr("'\"`$\\;&|<>()", c) != nullptr) return false;
  }
  return true;
}

bool caller_path_is_safe(const char* path) {
  if (!caller_text_is_safe(path, Blanks::kAllowed) || path[0] != '/') return false;
  if (std::strpbrk(path, "*?[]{}~") != nullptr) return false;
  for (const char* step = path; step != nullptr; step = std::strchr(step + 1, '/')) {
    if (std::strncmp(step, "/..", 3) == 0 && (step[3] == '/' || step[3] == '\0')) return false;
  }
  return true;
}

}  // namespace fsu::platform
