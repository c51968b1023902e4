// The board's seven UARTs as the SDK and people meet them: loopback plugs, person terminals and
// silent ports, paced at the line rate, and the state and control files that show and change
// them.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

TEST(SerialPorts, LoopbackPlugSendsEveryByteBackAtTheLineRate) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  for (const auto& [port, speed, stop, size, low, high, settings] :
       {std::tuple{"/dev/ttymxc1", B115200, tcflag_t{0}, 2300, 0.12, 1.0, "speed=115200 format=8N1 from_sdk=2300 to_sdk=2300 dropped=0"},
        std::tuple{"/dev/ttymxc4", B9600, tcflag_t{CSTOPB}, 480, 0.35, 1.5, "speed=9600 format=8N2 from_sdk=480 to_sdk=480 dropped=0"}}) {
    const int fd = open_port(unit.box.path(port), speed, stop);
    ASSERT_GE(fd, 0) << port;
    std::string sent;
    for (int i = 0; i < size; ++i) sent += static_cast<char>(i * 7 % 256);
    const double start = platform::monotonic_seconds();
    put(fd, sent);
    EXPECT_EQ(take(fd, sent.size(), 4), sent) << port;
    const double took = platform::monotonic_seconds() - start;
    EXPECT_GT(took, low) << port;
    EXPECT_LT(took, high) << port;
    EXPECT_TRUE(state_shows(unit.box, "uart " + std::string(1, port[11]) + " ", settings)) << unit.box.read("/sim/state");
    close(fd);
  }
}

TEST(SerialPorts, PersonTerminalRelaysBothWaysAndSilentPortsSendNothing) {
  RunningBoard unit({"uart 2 terminal", "uart 3 silent", "port 7 silent"});
  ASSERT_TRUE(unit.started);
  const std::string person_path = terminal_of(unit.box, "uart 2 ");
  ASSERT_EQ(person_path.rfind("/dev/pts/", 0), 0u) << unit.box.read("/sim/state");
  EXPECT_EQ(unit.said(), "Local/Uart/2 terminal: " + person_path + "\n");
  const int sdk = open_port(unit.box.path("/dev/ttymxc2"), B115200);
  const int person = open_port(person_path, B115200);
  put(sdk, "AT\r\n\x01\xff");
  EXPECT_EQ(take(person, 6, 2), "AT\r\n\x01\xff");
  put(person, "typed by a person\r");
  EXPECT_EQ(take(sdk, 18, 2), "typed by a person\r");
  EXPECT_EQ(take(sdk, 1, 0.1), "");  // nothing echoed back
  close(person);
  close(sdk);

  for (const auto& [port, prefix] : {std::pair{"/dev/ttymxc3", "uart 3 "}, {"/dev/ttymxc7", "port 7 "}}) {
    const int fd = open_port(unit.box.path(port), B115200);
    put(fd, "hello?");
    EXPECT_TRUE(state_shows(unit.box, prefix, "mode=silent")) << port;
    EXPECT_TRUE(state_shows(unit.box, prefix, "from_sdk=6 to_sdk=0")) << port;
    EXPECT_EQ(take(fd, 1, 0.1), "") << port;
    close(fd);
  }
}

TEST(Control, AppliesLinesInOrderAndReportsBadOnes) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  EXPECT_TRUE(unit.control({"uart 2 terminal"}).empty());
  // The state already shows a line's effect when the line is acknowledged.
  EXPECT_NE(state_line(unit.box, "uart 2 ").find("mode=terminal terminal=/dev/pts/"), std::string::npos);
  // A person appends by hand, comments and blank lines included.
  std::ofstream(unit.box.path("/sim/control"), std::ios::app) << "# switch back\n\n  uart 2   loopback \r\n";
  EXPECT_TRUE(state_shows(unit.box, "uart 2 ", "mode=loopback"));
  EXPECT_TRUE(unit.control({"uart 1 silent", "uart 1 loopback"}).empty());
  EXPECT_EQ(unit.box.read("/sim/control.done"), "6 " + std::to_string(unit.box.read("/sim/control").size()) + "\n");

  const std::vector<std::pair<std::string, std::string>> bad = {
      {"frob 1", "\"frob 1\": unknown command (commands: uart, port, board, env, ai, di, modem, gps)"},
      {"uart 13 loopback", "no port 13 (ports are 1 to 12)"},
      {"uart 2 sideways", "no mode sideways; usage: uart N loopback|terminal|silent (N 1 to 12)"},
      {"uart 2", "\"uart 2\": needs a port and a mode"},
      {"port 5 terminal", "port 5 leads to extension board 1"},
      {"board 3 silent", "no board 3 (boards are 1 and 2)"},
      {"board 1 off", "no state off"},
      {"ai 17 1", "no channel 17 (channels are 1 to 16)"},
      {"ai 1 5.2", "volts are 0 to 5.1197"},
      {"ai 1 current 21", "milliamperes are 0 to 20.478"},
      {"ai 1 1,5", "not a number: 1,5"},
      {"di 0 open", "no input 0 (inputs are 1 to 16)"}};
  for (const auto& [line, why] : bad) {
    const std::vector<std::string> errors = unit.control({line});
    ASSERT_EQ(errors.size(), 1u) << line;
    EXPECT_NE(errors[0].find(why), std::string::npos) << errors[0];
  }
  EXPECT_EQ(state_line(unit.box, "control "), "control applied=4 failed=12");
  EXPECT_NE(unit.said().find("control: \"frob 1\": unknown command"), std::string::npos) << unit.said();
  EXPECT_NE(state_line(unit.box, "ai 1 ").find("volts=0.0000 milliamps=0.000 words=0000/0000"), std::string::npos);
  // A control file written anew (">" instead of ">>") is read from its start.
  unit.box.write("/sim/control", "uart 4 silent\n");
  EXPECT_TRUE(state_shows(unit.box, "uart 4 ", "mode=silent"));
  // Junk without line breaks is taken in bounded pieces and rejected.
  unit.box.write("/sim/control", std::string(10000, '\x01') + "\n");
  EXPECT_TRUE(state_shows(unit.box, "control ", "failed=15"));
  EXPECT_EQ(unit.control({"uart 1\nsilent"}), std::vector<std::string>{"a control line holds a line break"});
}

TEST(State, ShowsTheGpioLines) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  EXPECT_EQ(state_line(unit.box, "12v 2 "), "12v 2 gpio=5 value=0 state=off");
  for (const auto& [gpio, prefix, shown] : {std::tuple{1, "led run ", "gpio=1 value=1 state=dark"},
                                            {8, "12v 1 ", "gpio=8 value=1 state=on"},
                                            {12, "power modem ", "gpio=12 value=1 state=on"}}) {
    unit.box.write("/sys/class/gpio/gpio" + std::to_string(gpio) + "/value", "1\n");
    EXPECT_TRUE(state_shows(unit.box, prefix, shown)) << gpio;
  }
}

TEST(Board, GoesDownCleanlyRefusesABadStartAndComesUpAgain) {
  RunningBoard unit({"uart 2 terminal"});
  ASSERT_TRUE(unit.started);
  const int sdk = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(sdk, std::string(3000, 'x'));  // still in flight when the board goes down
  unit.board.stop();
  close(sdk);
  for (int n = 1; n <= 7; ++n) EXPECT_FALSE(unit.box.exists("/dev/ttymxc" + std::to_string(n))) << n;

  std::string error;
  Board bad(unit.box.root(), {.commands = {"uart 13 terminal"}, .report = {}});
  EXPECT_FALSE(bad.start(&error));
  EXPECT_NE(error.find("no port 13"), std::string::npos) << error;
  EXPECT_FALSE(unit.box.exists("/dev/ttymxc1"));
  EXPECT_FALSE(unit.box.exists("/sim/board.pid"));

  ASSERT_TRUE(unit.board.start(&error)) << error;
  const int again = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(again, "new");
  EXPECT_EQ(take(again, 3, 1), "new");
  EXPECT_EQ(unit.box.read("/sim/control.done"), "0 0\n");
  close(again);
}

}  // namespace
}  // namespace fsu::sim
