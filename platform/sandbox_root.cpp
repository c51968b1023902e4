#include "platform/sandbox_root.h"

#include "platform/coverage.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace fsu::platform {
namespace {

// The board's first UART: where it exists, an unset FSU_ROOT means this is the board.
constexpr const char* kBoardDevice = "/dev/ttymxc1";

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

// Stops the process with one line on standard error: nothing may fall back to the host's
// own files, tools or devices.
[[noreturn]] void refuse(const char* format, ...) __attribute__((format(printf, 1, 2)));
void refuse(const char* format, ...) {
  std::fflush(stdout);
  std::fputs("fsu: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  flush_coverage();
  _exit(EXIT_FAILURE);
}

bool is_directory(const char* path) {
  struct stat st;
  return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// Where the SDK runs, from the environment: FSU_ROOT names the folder of a simulated board,
// or "/" for this machine's own devices; unset (or empty), the real device only where its
// first UART exists, so that a program started on a PC by mistake touches nothing.
const char* root_from_environment() {
  const char* setting = std::getenv("FSU_ROOT");
  if (setting == nullptr || setting[0] == '\0') {
    if (access(kBoardDevice, F_OK) == 0) return "";
    refuse("no board here (%s is missing) and FSU_ROOT is not set: run the program on a simulated board "
           "(fsusim run -- PROGRAM) or set FSU_ROOT to a board's folder (FSU_ROOT=/ uses this machine's devices)",
           kBoardDevice);
  }
  const char* r = make_root(setting);
  if (r == nullptr) {
    refuse("FSU_ROOT is unusable: at most %zu characters of letters, digits and / . _ - + , are allowed",
           kMaxRootLength);
  }
  if (r[0] != '\0' && !is_directory(r)) refuse("FSU_ROOT names no folder (%s): start the board with fsusim first", r);
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
