// The board's seven UARTs as the SDK and people meet them: pseudo-terminals linked in the
// sandbox, loopback plugs, person terminals and silent ports, all paced at the line rate, and
// the state and control files that show and change them.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "platform/clock.h"
#include "sim/board.h"
#include "sim/control_client.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sim {
namespace {

using fsu::test::TestSandbox;

bool poll_until(double seconds, const auto& done) {
  const double deadline = platform::monotonic_seconds() + seconds;
  while (!done()) {
    if (platform::monotonic_seconds() > deadline) return false;
    platform::sleep_ms(2);
  }
  return true;
}

// Opens a port as the SDK's driver does: read-write with synchronous writes, raw, reads that
// return at once, both queues flushed.
int open_port(const std::string& path, speed_t speed, tcflag_t extra_cflag = 0) {
  const int fd = open(path.c_str(), O_RDWR | O_DSYNC | O_CLOEXEC);
  termios tio{};
  if (fd < 0 || tcgetattr(fd, &tio) != 0) return -1;
  cfmakeraw(&tio);
  cfsetispeed(&tio, speed);
  cfsetospeed(&tio, speed);
  tio.c_cflag |= extra_cflag;
  tio.c_cc[VMIN] = 0;
  tio.c_cc[VTIME] = 0;
  tcflush(fd, TCIOFLUSH);
  tcsetattr(fd, TCSANOW, &tio);
  return fd;
}

void put(int fd, const std::string& bytes) {
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size())) << std::strerror(errno);
}

// Collects what `fd` gives until `size` bytes came or `seconds` passed.
std::string take(int fd, std::size_t size, double seconds) {
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
std::string state_line(const TestSandbox& box, const std::string& prefix) {
  const std::string state = box.read("/sim/state");
  const std::size_t at = state.find("\n" + prefix);
  if (at == std::string::npos) return "";
  return state.substr(at + 1, state.find('\n', at + 1) - at - 1);
}

bool state_shows(const TestSandbox& box, const std::string& prefix, const std::string& text) {
  return poll_until(2, [&] { return state_line(box, prefix).find(text) != std::string::npos; });
}

std::string field(const std::string& line, const std::string& key) {
  const std::size_t at = line.find(" " + key + "=");
  if (at == std::string::npos) return "";
  const std::size_t start = at + key.size() + 2;
  return line.substr(start, line.find(' ', start) - start);
}

struct RunningBoard {
  explicit RunningBoard(std::vector<std::string> commands = {}) : board(box.root(), options(std::move(commands))) {
    std::string error;
    started = board.start(&error);
    EXPECT_TRUE(started) << error;
  }
  BoardOptions options(std::vector<std::string> commands) {
    BoardOptions out;
    out.commands = std::move(commands);
    out.report = [this](const std::string& message) {
      const std::lock_guard lock(said_lock);
      said_text += message + "\n";
    };
    return out;
  }
  std::vector<std::string> control(std::vector<std::string> lines) {
    std::vector<std::string> errors;
    send_control(box.root(), lines, 5, &errors);
    return errors;
  }

  std::string said() {
    const std::lock_guard lock(said_lock);
    return said_text;
  }

  TestSandbox box;
  std::mutex said_lock;
  std::string said_text;  // what the board reported, from its own thread
  Board board;
  bool started = false;
};

std::string all_byte_values(std::size_t size) {
  std::string out;
  for (std::size_t i = 0; i < size; ++i) out += static_cast<char>(i * 7 % 256);
  return out;
}

TEST(SerialPorts, LoopbackPlugSendsEveryByteBackAtTheLineRate) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  for (const auto& [port, speed, size, low, high] :
       {std::tuple{"/dev/ttymxc1", B115200, 2300, 0.12, 1.0}, std::tuple{"/dev/ttymxc4", B9600, 480, 0.3, 1.5}}) {
    const int fd = open_port(unit.box.path(port), speed);
    ASSERT_GE(fd, 0) << port;
    put(fd, "U");
    EXPECT_EQ(take(fd, 1, 1), "U") << port;

    const std::string sent = all_byte_values(size);
    const double start = platform::monotonic_seconds();
    put(fd, sent);
    const std::string back = take(fd, sent.size(), 4);
    const double took = platform::monotonic_seconds() - start;
    EXPECT_EQ(back, sent) << port;
    EXPECT_GT(took, low) << port;
    EXPECT_LT(took, high) << port;
    close(fd);
  }
  EXPECT_TRUE(state_shows(unit.box, "uart 1 ", "from_sdk=2301 to_sdk=2301 dropped=0"));
}

TEST(SerialPorts, SilentPortsTakeBytesAndSendNothing) {
  RunningBoard unit({"uart 3 silent"});
  ASSERT_TRUE(unit.started);
  for (const char* port : {"/dev/ttymxc3", "/dev/ttymxc5", "/dev/ttymxc6", "/dev/ttymxc7"}) {
    const int fd = open_port(unit.box.path(port), B115200);
    ASSERT_GE(fd, 0) << port;
    put(fd, "hello?");
    const std::string prefix = std::string("uart ") + port[11] + " ";
    EXPECT_TRUE(state_shows(unit.box, prefix, "mode=silent")) << port;
    EXPECT_TRUE(state_shows(unit.box, prefix, "from_sdk=6 to_sdk=0")) << port;
    EXPECT_EQ(take(fd, 1, 0.1), "") << port;
    close(fd);
  }
}

TEST(SerialPorts, PersonTerminalRelaysBothWays) {
  RunningBoard unit({"uart 2 terminal"});
  ASSERT_TRUE(unit.started);
  const std::string person_path = field(state_line(unit.box, "uart 2 "), "terminal");
  ASSERT_EQ(person_path.rfind("/dev/pts/", 0), 0u) << unit.box.read("/sim/state");
  EXPECT_EQ(unit.said(), "Local/Uart/2 terminal: " + person_path + "\n");

  const int sdk = open_port(unit.box.path("/dev/ttymxc2"), B115200);
  const int person = open_port(person_path, B115200);
  ASSERT_GE(sdk, 0);
  ASSERT_GE(person, 0);
  put(sdk, "AT\r\n\x01\xff");
  EXPECT_EQ(take(person, 6, 2), "AT\r\n\x01\xff");
  put(person, "typed by a person\r");
  EXPECT_EQ(take(sdk, 18, 2), "typed by a person\r");
  EXPECT_EQ(take(sdk, 1, 0.1), "");  // nothing echoed back
  close(person);
  close(sdk);
}

TEST(Control, SwitchesPortsAndAcknowledgesInOrder) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  EXPECT_TRUE(unit.control({"uart 2 terminal"}).empty());
  // The state already shows a line's effect when the line is acknowledged.
  EXPECT_NE(state_line(unit.box, "uart 2 ").find("mode=terminal terminal=/dev/pts/"), std::string::npos);

  // A person appends by hand, comments and blank lines included.
  std::ofstream(unit.box.path("/sim/control"), std::ios::app) << "# switch back\n\n  uart 2   loopback \r\n";
  EXPECT_TRUE(state_shows(unit.box, "uart 2 ", "mode=loopback"));
  EXPECT_TRUE(unit.control({"uart 1 silent", "uart 1 silent", "uart 1 loopback"}).empty());
  EXPECT_EQ(unit.box.read("/sim/control.done"), "7 " + std::to_string(unit.box.read("/sim/control").size()) + "\n");

  // A control file written anew (">" instead of ">>") is read from its start.
  unit.box.write("/sim/control", "uart 4 silent\n");
  EXPECT_TRUE(state_shows(unit.box, "uart 4 ", "mode=silent"));

  const int fd = open_port(unit.box.path("/dev/ttymxc2"), B115200);
  put(fd, "back");
  EXPECT_EQ(take(fd, 4, 1), "back");
  close(fd);
}

TEST(Control, ReportsBadLinesAndCarriesOn) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  const std::vector<std::string> errors =
      unit.control({"frob 1", "uart 9 loopback", "uart 2 sideways", "uart 2", "uart x1 silent", "uart 3 silent"});
  ASSERT_EQ(errors.size(), 5u);
  EXPECT_NE(errors[0].find("\"frob 1\": unknown command (commands: uart)"), std::string::npos) << errors[0];
  EXPECT_NE(errors[1].find("no port 9 (ports are 1 to 7)"), std::string::npos) << errors[1];
  EXPECT_NE(errors[2].find("no mode sideways; usage: uart N loopback|terminal|silent"), std::string::npos) << errors[2];
  EXPECT_NE(errors[3].find("\"uart 2\": needs a port and a mode"), std::string::npos) << errors[3];
  EXPECT_NE(errors[4].find("no port x1"), std::string::npos) << errors[4];
  EXPECT_EQ(state_line(unit.box, "control "), "control applied=1 failed=5");
  EXPECT_NE(state_line(unit.box, "uart 3 ").find("mode=silent"), std::string::npos);
  EXPECT_NE(unit.said().find("control: \"frob 1\": unknown command"), std::string::npos) << unit.said();

  // Junk without line breaks is taken in bounded pieces and rejected.
  unit.box.write("/sim/control", std::string(10000, '\x01') + "\n");
  EXPECT_TRUE(state_shows(unit.box, "control ", "failed=8"));
  EXPECT_EQ(unit.control({"uart 1\nsilent"}), std::vector<std::string>{"a control line holds a line break"});
}

TEST(State, ShowsLineSettingsAndGpioLines) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  EXPECT_EQ(state_line(unit.box, "led run "), "led run gpio=1 value=0 state=lit");
  const int fd = open_port(unit.box.path("/dev/ttymxc1"), B57600, CSTOPB);
  EXPECT_TRUE(state_shows(unit.box, "uart 1 ", "speed=57600 format=8N2"));
  unit.box.write("/sys/class/gpio/gpio1/value", "1");
  unit.box.write("/sys/class/gpio/gpio8/value", "1\n");
  unit.box.write("/sys/class/gpio/gpio12/value", "1\n");
  EXPECT_TRUE(state_shows(unit.box, "led run ", "value=1 state=dark"));
  EXPECT_TRUE(state_shows(unit.box, "12v 1 ", "gpio=8 value=1 state=on"));
  EXPECT_TRUE(state_shows(unit.box, "power modem ", "gpio=12 value=1 state=on"));
  EXPECT_EQ(state_line(unit.box, "12v 2 "), "12v 2 gpio=5 value=0 state=off");
  close(fd);
}

TEST(Board, GoesDownCleanlyAndComesUpAgain) {
  RunningBoard unit({"uart 2 terminal"});
  ASSERT_TRUE(unit.started);
  const int sdk = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(sdk, std::string(3000, 'x'));  // still in flight when the board goes down
  unit.board.stop();
  for (int n = 1; n <= 7; ++n) EXPECT_FALSE(unit.box.exists("/dev/ttymxc" + std::to_string(n))) << n;
  char target[64];
  EXPECT_EQ(readlink(unit.box.path("/dev/ttymxc1").c_str(), target, sizeof target), -1);
  EXPECT_EQ(unit.box.read("/sim/state"), "board down\n");
  EXPECT_FALSE(unit.box.exists("/sim/board.pid"));
  close(sdk);

  std::string error;
  ASSERT_TRUE(unit.board.start(&error)) << error;
  const int again = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(again, "new");
  EXPECT_EQ(take(again, 3, 1), "new");
  EXPECT_EQ(unit.box.read("/sim/control.done"), "0 0\n");
  close(again);
}

TEST(Board, RefusesABadStartUpCommandAndLeavesNothingBehind) {
  TestSandbox box;
  Board board(box.root(), {.commands = {"uart 8 terminal"}, .report = {}});
  std::string error;
  EXPECT_FALSE(board.start(&error));
  EXPECT_NE(error.find("no port 8"), std::string::npos) << error;
  EXPECT_FALSE(box.exists("/dev/ttymxc1"));
  EXPECT_FALSE(box.exists("/sim/board.pid"));
}

}  // namespace
}  // namespace fsu::sim
