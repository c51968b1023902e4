#include "sim/board.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "sim/sandbox.h"

namespace fsu::sim {
namespace {

bool write_file(const std::string& path, const std::string& text) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok;
}

// The process named in a pid file, or 0.
pid_t pid_in(const std::string& path) {
  char text[32] = {};
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t n = read(fd, text, sizeof text - 1);
  close(fd);
  if (n <= 0) return 0;
  const long pid = std::strtol(text, nullptr, 10);
  return pid > 0 && pid < 0x7fffffff ? static_cast<pid_t>(pid) : 0;
}

bool alive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

}  // namespace

Board::Board(std::string root) : root_(std::move(root)) {}

Board::~Board() { stop(); }

bool Board::start(std::string* error) {
  if (up_) return true;
  const std::string pid_file = root_ + "/sim/board.pid";
  const pid_t holder = pid_in(pid_file);
  if (holder != 0 && holder != getpid() && alive(holder)) {
    if (error != nullptr) *error = "a board is already up in " + root_ + " (process " + std::to_string(holder) + ")";
    return false;
  }
  for (const int line : kBoardGpioLines) {
    const std::string value = root_ + "/sys/class/gpio/gpio" + std::to_string(line) + "/value";
    if (!write_file(value, "0\n")) {
      if (error != nullptr) *error = "cannot reset " + value + ": " + std::strerror(errno);
      return false;
    }
  }
  const std::string tmp = pid_file + ".new";
  if (!write_file(tmp, std::to_string(getpid()) + "\n") || rename(tmp.c_str(), pid_file.c_str()) != 0) {
    if (error != nullptr) *error = "cannot write " + pid_file + ": " + std::strerror(errno);
    unlink(tmp.c_str());
    return false;
  }
  up_ = true;
  return true;
}

void Board::stop() {
  if (!up_) return;
  up_ = false;
  unlink((root_ + "/sim/board.pid").c_str());
}

}  // namespace fsu::sim
