#include "platform/sandbox_root.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <unistd.h>

namespace fsu::platform {
namespace {

// Characters a root may hold: the root appears unquoted inside shell command lines.
bool root_text_is_plain(const char* s) {
  for (; *s; ++s) {
    const char c = *s;
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '/' || c == '.' || c == '_' || c == '-' || c == '+' || c == ',';
    if (!ok) return false;
  }
  return true;
}

// Root texts are kept for the life of the process: readers on other threads may still hold
// an old one, and the root changes only a handful of times per process (tests).
std::atomic<const char*> g_root{nullptr};
// Never destroyed: threads that are never joined may resolve paths while the process exits.
std::mutex& g_roots_lock = *new std::mutex;
std::deque<std::string>& g_roots = *new std::deque<std::string>;

const char* keep(std::string text) {
  std::lock_guard<std::mutex> lock(g_roots_lock);
  return g_roots.emplace_back(std::move(text)).c_str();
}

const char* make_root(const char* dir) {
  if (dir == nullptr || dir[0] == '\0') return "";
  std::string text;
  if (dir[0] != '/') {
    char cwd[1024];
    if (getcwd(cwd, sizeof cwd) == nullptr) return nullptr;
    text = cwd;
    text += '/';
  }
  text += dir;
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  if (text == "/") return "";
  if (text.size() > kMaxRootLength || !root_text_is_plain(text.c_str())) return nullptr;
  return keep(std::move(text));
}

const char* root_from_environment() {
  const char* r = make_root(std::getenv("FSU_ROOT"));
  if (r == nullptr) {
    // A root we cannot use safely must never fall back to the real device.
    std::fprintf(stderr, "FSU_ROOT is unusable (too long or unusual characters)\n");
    std::abort();
  }
  return r;
}

}  // namespace

const char* root() {
  const char* r = g_root.load(std::memory_order_acquire);
  if (r != nullptr) return r;
  const char* fresh = root_from_environment();
  const char* expected = nullptr;
  if (g_root.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) return fresh;
  return expected;
}

bool in_sandbox() { return root()[0] != '\0'; }

bool set_root(const char* dir) {
  const char* r = (dir == nullptr || dir[0] == '\0') ? root_from_environment() : make_root(dir);
  if (r == nullptr) return false;
  g_root.store(r, std::memory_order_release);
  return true;
}

bool resolve(const char* device_path, char* out, std::size_t size) {
  if (out == nullptr || size == 0) return false;
  if (device_path == nullptr) {
    out[0] = '\0';
    return false;
  }
  const char* prefix = device_path[0] == '/' ? root() : "";
  const int n = std::snprintf(out, size, "%s%s", prefix, device_path);
  if (n < 0 || static_cast<std::size_t>(n) >= size) {
    out[0] = '\0';
    return false;
  }
  return true;
}

DevicePath::DevicePath(const char* device_path) : ok_(resolve(device_path, text_, sizeof text_)) {}

}  // namespace fsu::platform
