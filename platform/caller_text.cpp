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

bool caller_account_is_safe(const char* name) {
  if (name == nullptr || name[0] == '\0' || name[0] == '-') return false;
  const std::size_t n = std::strspn(name, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.-");
  return name[n] == '\0' && n <= 32;
}

ShellWord::ShellWord(const char* text) : text_(), ok_(text != nullptr) {
  std::size_t n = 0;
  const auto put = [&](const char* part) {
    const std::size_t len = std::strlen(part);
    ok_ = ok_ && n + len < sizeof text_;
    if (ok_) {
      std::memcpy(text_ + n, part, len);
      n += len;
    }
  };
  put("'");
  for (const char* p = text; ok_ && *p != '\0'; ++p) {
    const char one[2] = {*p, '\0'};
    put(*p == '\'' ? "'\\''" : one);
  }
  put("'");
  text_[ok_ ? n : 0] = '\0';
}

}  // namespace fsu::platform
