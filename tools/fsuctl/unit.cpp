#include "tools/fsuctl/unit.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace fsuctl {
namespace {

constexpr std::size_t kAnswerMax = 64 * 1024;
constexpr int kPorts = 7;

// The whole file, at most `max` bytes; nothing when it cannot be opened. Not following a link
// in the last step: the files live in the unit's /tmp, where anyone may plant one.
std::optional<std::string> read_file(const std::string& path, std::size_t max) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::nullopt;
  std::string text;
  char chunk[4096];
  ssize_t n = 0;
  while (text.size() < max && (n = ::read(fd, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<std::size_t>(n));
  ::close(fd);
  if (text.size() > max) text.resize(max);
  return text;
}

bool alive(pid_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno == EPERM); }

struct Stamp {
  bool exists = false;
  ino_t inode = 0;
  timespec changed{};
  off_t size = 0;
  bool operator==(const Stamp& o) const {
    return exists == o.exists && inode == o.inode && changed.tv_sec == o.changed.tv_sec &&
           changed.tv_nsec == o.changed.tv_nsec && size == o.size;
  }
};

Stamp stamp(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) return {};
  return {true, st.st_ino, st.st_mtim, st.st_size};
}

void pause_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

double seconds_now() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// The owner of a flock lock on the file (device, inode) in /proc/locks: pid, -1 when the
// kernel does not name it to us, 0 when there is none.
pid_t lock_holder(dev_t device, ino_t inode) {
  FILE* locks = std::fopen("/proc/locks", "re");
  if (locks == nullptr) return 0;
  pid_t found = 0;
  char line[256];
  while (found == 0 && std::fgets(line, sizeof line, locks) != nullptr) {
    char kind[16] = {};
    long pid = 0;
    unsigned major_number = 0, minor_number = 0;
    unsigned long long node = 0;
    // "1: FLOCK  ADVISORY  WRITE 1234 00:19:6 0 EOF"; waiting requests carry a "->" first.
    const char* text = std::strstr(line, ": ");
    if (text == nullptr || std::strstr(line, "->") != nullptr) continue;
    if (std::sscanf(text + 2, "%15s %*s %*s %ld %x:%x:%llu", kind, &pid, &major_number, &minor_number, &node) != 5) {
      continue;
    }
    if (std::strcmp(kind, "FLOCK") != 0 || node != inode || major_number != major(device) ||
        minor_number != minor(device) || pid == ::getpid()) {
      continue;
    }
    found = pid > 0 ? static_cast<pid_t>(pid) : -1;
  }
  std::fclose(locks);
  return found;
}

// When /proc/locks cannot be read: whether the port's lock can be had, taken and given back at
// once (a shared lock, so that it never looks like an owner to a reader of /proc/locks).
bool lock_taken(const std::string& port) {
  const int fd = ::open(port.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  const bool taken = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  ::close(fd);
  return taken;
}

}  // namespace

std::string Unit::name() const { return simulated() ? "the simulated unit in " + root : "the device"; }

Unit unit_from_environment() {
  const char* root = std::getenv("FSU_ROOT");
  Unit unit{root != nullptr ? root : ""};
  while (unit.root.size() > 1 && unit.root.back() == '/') unit.root.pop_back();
  if (unit.root == "/") unit.root.clear();
  return unit;
}

std::string unit_down(const Unit& unit) {
  if (!unit.simulated()) {
    if (::access("/dev/ttymxc1", F_OK) == 0) return {};
    return "no unit here: /dev/ttymxc1 is missing (FSU_ROOT names a simulated unit)";
  }
  const auto pid_text = read_file(unit.path("/sim/board.pid"), 32);
  const long pid = pid_text ? std::strtol(pid_text->c_str(), nullptr, 10) : 0;
  if (pid <= 0 || pid > 0x7fffffff || !alive(static_cast<pid_t>(pid))) {
    return unit.name() + " is not running";
  }
  return {};
}

pid_t port_owner(const Unit& unit) {
  const bool proc_locks = ::access("/proc/locks", R_OK) == 0;
  for (int n = 1; n <= kPorts; ++n) {
    const std::string port = unit.path(("/dev/ttymxc" + std::to_string(n)).c_str());
    struct stat st {};
    if (::stat(port.c_str(), &st) != 0) continue;
    if (proc_locks) {
      if (const pid_t holder = lock_holder(st.st_dev, st.st_ino); holder != 0) return holder;
    } else if (lock_taken(port)) {
      return -1;
    }
  }
  return 0;
}

std::optional<std::string> ask(const Unit& unit, const char* request, const char* answer, const std::string& text,
                               double seconds) {
  const std::string request_path = unit.path(request);
  const std::string answer_path = unit.path(answer);
  const Stamp before = stamp(answer_path);
  const std::string aside = request_path + ".fsuctl." + std::to_string(::getpid());
  ::unlink(aside.c_str());  // left by an earlier fsuctl of the same number that was killed
  const int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) return std::nullopt;
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  if (!written || ::rename(aside.c_str(), request_path.c_str()) != 0) {
    ::unlink(aside.c_str());
    return std::nullopt;
  }
  // The thread removes the request, then renames the whole answer into place: the answer is
  // ours once the request is gone and the answer file is another one than before. It must
  // then stay the same for 100 ms, as a page waits, in case a second answer is on its way.
  const double deadline = seconds_now() + seconds;
  Stamp last;
  int steady_ms = 0;
  while (seconds_now() < deadline) {
    pause_ms(20);
    const Stamp now = stamp(answer_path);
    if (::access(request_path.c_str(), F_OK) == 0 || !now.exists || now == before) continue;
    steady_ms = now == last ? steady_ms + 20 : 0;
    last = now;
    if (steady_ms >= 100) return read_file(answer_path, kAnswerMax);
  }
  ::unlink(request_path.c_str());
  return std::nullopt;
}

}  // namespace fsuctl
