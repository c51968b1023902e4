#include "tests/common/pty_pair.h"

#include <cerrno>
#include <poll.h>
#include <stdexcept>
#include <unistd.h>

#include "platform/clock.h"

namespace fsu::test {

PtyPair::PtyPair(const std::string& host_link) : link_(host_link) {
  std::string error;
  if (!pty_.open(&error)) throw std::runtime_error(error);
  unlink(link_.c_str());
  if (symlink(pty_.slave_path().c_str(), link_.c_str()) != 0) throw std::runtime_error("cannot link " + link_);
}

PtyPair::~PtyPair() { unlink(link_.c_str()); }

void PtyPair::send(const std::vector<std::uint8_t>& bytes) {
  std::size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = write(pty_.master(), bytes.data() + done, bytes.size() - done);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) {
      pollfd p{pty_.master(), POLLOUT, 0};
      poll(&p, 1, 100);
      continue;
    }
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
    pollfd p{pty_.master(), POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0) continue;
    std::uint8_t buf[4096];
    const ssize_t n = read(pty_.master(), buf, sizeof buf);
    if (n > 0) out.insert(out.end(), buf, buf + n);
  }
  return out;
}

std::vector<std::uint8_t> PtyPair::drain() { return receive(SIZE_MAX, 0.05); }

termios PtyPair::settings() const {
  termios t{};
  tcgetattr(pty_.master(), &t);
  return t;
}

}  // namespace fsu::test
