// What the simulator's tests share: deadlines, commands, ports, sim/state and a board in a sandbox.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "sim/board.h"
#include "sim/control_client.h"
#include "sim/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sim {

inline bool poll_until(double seconds, const auto& done) {
  const double deadline = platform::monotonic_seconds() + seconds;
  while (!done()) {
    if (platform::monotonic_seconds() > deadline) return false;
    platform::sleep_ms(2);
  }
  return true;
}

inline std::string capture(const std::string& command) {
  std::string out(8192, '\0');
  out.resize(static_cast<std::size_t>(std::max(0L, platform::capture_command(command.c_str(), out.data(), out.size()))));
  return out;
}

inline int exit_code(const std::string& command) { return std::max(-1, platform::run_command(command.c_str()) >> 8); }

// Read-write with synchronous writes, raw, reads that return at once; both queues flushed
// unless `flush` is false.
inline int open_port(const std::string& path, speed_t speed, tcflag_t extra_cflag = 0, bool flush = true) {
  const int fd = open(path.c_str(), O_RDWR | O_DSYNC | O_CLOEXEC);
  termios tio{};
  if (fd < 0 || tcgetattr(fd, &tio) != 0) return -1;
  cfmakeraw(&tio);
  cfsetspeed(&tio, speed);
  tio.c_cflag |= extra_cflag;
  tio.c_cc[VMIN] = tio.c_cc[VTIME] = 0;
  if (flush) tcflush(fd, TCIOFLUSH);
  tcsetattr(fd, TCSANOW, &tio);
  return fd;
}

inline void put(int fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << std::strerror(errno);
}

// Collects what `fd` gives until `size` bytes came or `seconds` passed.
inline std::string take(int fd, std::size_t size, double seconds) {
  std::string got;
  poll_until(seconds, [&] {
    char buf[4096];
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) got.append(buf, static_cast<std::size_t>(n));
    return got.size() >= size;
  });
  return got;
}

// The line of sim/state that starts with `prefix`.
inline std::string state_line(const test::TestSandbox& box, const std::string& prefix) {
  const std::string state = box.read("/sim/state");
  const std::size_t at = state.find("\n" + prefix);
  return at == std::string::npos ? "" : state.substr(at + 1, state.find('\n', at + 1) - at - 1);
}

// A counter of the modem's state line ("commands", "restarts", "power_cycles"), or -1.
inline long modem_count(const test::TestSandbox& box, const std::string& key) {
  const std::string line = state_line(box, "modem ");
  const std::size_t at = line.find(" " + key + "=");
  return at == std::string::npos ? -1 : std::stol(line.substr(at + key.size() + 2));
}

// How often `part` occurs in `text`.
inline int count(const std::string& text, const std::string& part) {
  int n = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

// Hands control lines to the board up in the sandbox, as `fsusim ctl` does.
inline void control(const test::TestSandbox& box, const std::vector<std::string>& lines) {
  std::vector<std::string> errors;
  EXPECT_TRUE(send_control(box.root(), lines, 10, &errors)) << errors.front();
}

// The level of a GPIO line, '0' or '1'; '?' while the value file is being rewritten.
inline char gpio(const test::TestSandbox& box, int line) {
  return (box.read("/sys/class/gpio/gpio" + std::to_string(line) + "/value") + "?")[0];
}

inline bool state_shows(const test::TestSandbox& box, const std::string& prefix, const std::string& text) {
  return poll_until(2, [&] { return state_line(box, prefix).find(text) != std::string::npos; });
}

// The person's end of a port's terminal, as sim/state names it.
inline std::string terminal_of(const test::TestSandbox& box, const std::string& prefix) {
  const std::string line = state_line(box, prefix);
  const std::size_t at = line.find(" terminal=");
  return at == std::string::npos ? "" : line.substr(at + 10, line.find(' ', at + 10) - at - 10);
}

// A pseudo-terminal standing in for one UART: the SDK opens the slave through its device path
// in the sandbox, the test plays the device on the master.
struct FakeUart {
  explicit FakeUart(std::string host_link) : link(std::move(host_link)) {
    EXPECT_TRUE(pty.open(nullptr) && symlink(pty.slave_path().c_str(), link.c_str()) == 0) << link;
  }
  ~FakeUart() { unlink(link.c_str()); }
  void send(const std::string& bytes) {  // the master does not block: wait for room
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t n = write(pty.master(), bytes.data() + done, bytes.size() - done);
      pollfd room{pty.master(), POLLOUT, 0};
      if (n > 0) done += static_cast<std::size_t>(n);
      else ASSERT_TRUE(poll_until(5, [&] { return poll(&room, 1, 0) > 0; })) << std::strerror(errno);
    }
  }
  // What the SDK sent, until `count` bytes came or `seconds` passed.
  std::string receive(std::size_t count, double seconds = 2) { return take(pty.master(), count, seconds); }
  std::string drain() { return take(pty.master(), SIZE_MAX, 0.05); }
  // The line as the SDK set it (the master reads the slave's settings).
  termios settings() const {
    termios t{};
    return tcgetattr(pty.master(), &t), t;
  }
  PtyPair pty;
  std::string link;
};

struct RunningBoard {
  explicit RunningBoard(std::vector<std::string> commands = {})
      : board(box.root(), {.commands = std::move(commands), .report = [](const std::string&) {}}) {
    std::string error;
    EXPECT_TRUE(started = board.start(&error)) << error;
  }
  std::vector<std::string> control(std::vector<std::string> lines) {
    std::vector<std::string> errors;
    send_control(box.root(), lines, 5, &errors);
    return errors;
  }
  test::TestSandbox box;
  Board board;
  bool started = false;
};

}  // namespace fsu::sim
