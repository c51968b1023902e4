// The board's seven UARTs as the SDK and people meet them: pseudo-terminals linked in the
// sandbox, loopback plugs, person terminals and silent ports, all paced at the line rate, and
// the state and control files that show and change them.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <termios.h>
#include <unistd.h>
#include <vector>

#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

using fsu::test::TestSandbox;

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
  for (const auto& [port, prefix] : {std::pair{"/dev/ttymxc3", "uart 3 "}, std::pair{"/dev/ttymxc7", "port 7 "}}) {
    const int fd = open_port(unit.box.path(port), B115200);
    ASSERT_GE(fd, 0) << port;
    put(fd, "hello?");
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
      unit.control({"frob 1", "uart 13 loopback", "uart 2 sideways", "uart 2", "uart x1 silent", "uart 3 silent"});
  ASSERT_EQ(errors.size(), 5u);
  EXPECT_NE(errors[0].find("\"frob 1\": unknown command (commands: uart, port, board, env, ai, di)"), std::string::npos) << errors[0];
  EXPECT_NE(errors[1].find("no port 13 (ports are 1 to 12)"), std::string::npos) << errors[1];
  EXPECT_NE(errors[2].find("no mode sideways; usage: uart N loopback|terminal|silent (N 1 to 12)"), std::string::npos) << errors[2];
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
  Board board(box.root(), {.commands = {"uart 13 terminal"}, .report = {}});
  std::string error;
  EXPECT_FALSE(board.start(&error));
  EXPECT_NE(error.find("no port 13"), std::string::npos) << error;
  EXPECT_FALSE(box.exists("/dev/ttymxc1"));
  EXPECT_FALSE(box.exists("/sim/board.pid"));
}

}  // namespace
}  // namespace fsu::sim
