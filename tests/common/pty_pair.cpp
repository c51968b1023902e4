#include "tests/common/pty_pair.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "platform/clock.h"

namespace fsu::test {

PtyPair::PtyPair(const std::string& host_link) : link_(host_link) {
  master_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) throw std::runtime_error("no pty");
  const char* slave = ptsname(master_);
  if (slave == nullptr) throw std::runtime_error("no pty name");
  keep_slave_ = open(slave, O_RDWR | O_NOCTTY | O_CLOEXEC);
  termios raw{};
  tcgetattr(keep_slave_, &raw);
  cfmakeraw(&raw);
  tcsetattr(keep_slave_, TCSANOW, &raw);
  unlink(link_.c_str());
  if (symlink(slave, link_.c_str()) != 0) throw std::runtime_error("cannot link " + link_);
}

PtyPair::~PtyPair() {
  unlink(link_.c_str());
  if (keep_slave_ >= 0) close(keep_slave_);
  if (master_ >= 0) close(master_);
}

void PtyPair::send(const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(master_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw std::runtime_error("pty write failed");
    done += static_cast<std::size_t>(n);
  }
}

std::vector<std::uint8_t> PtyPair::receive(std::size_t count, double seconds) {
  std::vector<std::uint8_t> out;
  const double deadline = platform::monotonic_seconds() + seconds;
  while (out.size() < count) {
    const double left = deadline - platform::monotonic_seconds();
    if (left <= 0) break;
    pollfd p{master_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) continue;
    std::uint8_t buf[4096];
    const ssize_t n = read(master_, buf, sizeof buf);
    if (n > 0) out.insert(out.end(), buf, buf + n);
  }
  return out;
}

std::vector<std::uint8_t> PtyPair::drain() { return receive(SIZE_MAX, 0.05); }

termios PtyPair::settings() const {
  termios t{};
  tcgetattr(master_, &t);
  return t;
}

}  // namespace fsu::test
