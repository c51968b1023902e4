// The running simulated board as the SDK and people meet it: the UARTs' far ends paced at the line
// rate, the state and control files, the extension and environment boards on their links.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

TEST(SerialPorts, LoopbackPlugSendsEveryByteBackAtTheLineRateAndSilentPortsNothing) {
  RunningBoard unit({"uart 3 silent", "port 7 silent"});
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
    EXPECT_TRUE(took > low && took < high) << port << " " << took;
    EXPECT_TRUE(state_shows(unit.box, "uart " + std::string(1, port[11]) + " ", settings)) << unit.box.read("/sim/state");
    close(fd);
  }
  for (const auto& [port, prefix] : {std::pair{"/dev/ttymxc3", "uart 3 "}, {"/dev/ttymxc7", "port 7 "}}) {
    const int fd = open_port(unit.box.path(port), B115200);
    put(fd, "hello?");
    EXPECT_TRUE(state_shows(unit.box, prefix, "mode=silent speed=115200 format=8N1 from_sdk=6 to_sdk=0")) << port;
    EXPECT_EQ(take(fd, 1, 0.1), "") << port;
    if (prefix[0] == 'u') {  // what a person types at the panel comes from the far end, whatever it is
      EXPECT_TRUE(unit.control({"uart 3 send 6F6B0D0A"}).empty());
      EXPECT_EQ(take(fd, 4, 2), "ok\r\n");
      EXPECT_TRUE(state_shows(unit.box, prefix, "to_sdk=4 dropped=0 recent_from_sdk=68656C6C6F3F recent_to_sdk=6F6B0D0A"));
    }
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

  for (const auto& [line, why] : std::vector<std::pair<std::string, std::string>>{
      {"frob 1", "\"frob 1\": unknown command (commands: uart, port, board, env, ai, di, modem, gps, reboot, record)"},
      {"uart 13 loopback", "no port 13 (ports are 1 to 12)"}, {"uart 2", "\"uart 2\": needs a port and a mode"},
      {"uart 2 sideways", "no mode sideways; usage: uart N loopback|terminal|silent, uart N send HEX (N 1 to 12)"},
      {"port 5 terminal", "port 5 leads to extension board 1"}, {"board 3 silent", "no board 3 (boards are 1 and 2)"},
      {"board 1 off", "no state off"}, {"ai 17 1", "no channel 17 (channels are 1 to 16)"},
      {"ai 1 5.2", "volts are 0 to 5.1197"}, {"ai 1 current 21", "milliamperes are 0 to 20.478"},
      {"ai 1 1,5", "not a number: 1,5"}, {"di 0 open", "no input 0 (inputs are 1 to 16)"},
      {"uart 2 send 6F6", "send needs 1 to 1024 bytes in hex digits"}, {"uart 2 send 0x", "send needs"},
      {"uart 2 send " + std::string(2050, '0'), "send needs"}}) {
    const std::vector<std::string> errors = unit.control({line});
    ASSERT_EQ(errors.size(), 1u) << line;
    EXPECT_NE(errors[0].find(why), std::string::npos) << errors[0];
  }
  EXPECT_EQ(state_line(unit.box, "control "), "control applied=4 failed=15");
  EXPECT_NE(state_line(unit.box, "ai 1 ").find("volts=0.0000 milliamps=0.000 words=0000/0000"), std::string::npos);
  // A control file written anew (">" instead of ">>") is read from its start.
  unit.box.write("/sim/control", "uart 4 silent\n");
  EXPECT_TRUE(state_shows(unit.box, "uart 4 ", "mode=silent"));
  // Junk without line breaks is taken in bounded pieces and rejected.
  unit.box.write("/sim/control", std::string(10000, '\x01') + "\n");
  EXPECT_TRUE(state_shows(unit.box, "control ", "failed=18"));
  EXPECT_NE(unit.box.read("/sim/state").find(" \"" + std::string(80, '?') + "...\": unknown command"), std::string::npos);
  EXPECT_EQ(unit.control({"uart 1\nsilent"}), std::vector<std::string>{"a control line holds a line break"});
}

TEST(Board, ShowsTheGpioLinesGoesDownCleanlyRefusesABadStartAndComesUpAgain) {
  RunningBoard unit({"uart 2 terminal"});
  ASSERT_TRUE(unit.started);
  EXPECT_EQ(state_line(unit.box, "12v 2 "), "12v 2 gpio=5 value=0 state=off");
  for (const auto& [gpio, prefix, shown] : {std::tuple{1, "led run ", "gpio=1 value=1 state=dark"},
                                            {8, "12v 1 ", "gpio=8 value=1 state=on"},
                                            {12, "power modem ", "gpio=12 value=1 state=on"}}) {
    unit.box.write("/sys/class/gpio/gpio" + std::to_string(gpio) + "/value", "1\n");
    EXPECT_TRUE(state_shows(unit.box, prefix, shown)) << gpio;
  }
  const int sdk = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(sdk, std::string(3000, 'x'));  // still in flight when the board goes down
  unit.board.stop();
  close(sdk);
  for (int n = 1; n <= 7; ++n) EXPECT_FALSE(unit.box.exists("/dev/ttymxc" + std::to_string(n))) << n;
  EXPECT_EQ(unit.box.read("/sim/state"), "board down\n");

  std::string error;
  Board bad(unit.box.root(), {.commands = {"uart 13 terminal"}, .report = {}});
  EXPECT_FALSE(bad.start(&error));
  EXPECT_NE(error.find("no port 13"), std::string::npos) << error;
  EXPECT_FALSE(unit.box.exists("/dev/ttymxc1") || unit.box.exists("/sim/board.pid"));

  ASSERT_TRUE(unit.board.start(&error)) << error;
  const int again = open_port(unit.box.path("/dev/ttymxc1"), B115200);
  put(again, "new");
  EXPECT_EQ(take(again, 3, 1), "new");
  EXPECT_EQ(unit.box.read("/sim/control.done"), "0 0\n");
  close(again);
}

struct Frame { std::uint8_t command; std::string data; };

bool presence(const std::vector<Frame>& frames) { return frames.size() == 1 && frames[0].command == 'A'; }

// The SDK's end of one board link of a board that has just come up (which announced itself
// with a presence frame before anybody listened: `announced`).
class Link {
 public:
  Link(const test::TestSandbox& box, const char* device)
      : fd(open_port(box.path(device), B115200, 0, false)), announced(presence(frames(1))) {}
  ~Link() { close(fd); }

  void send(std::uint8_t command, const std::string& data = "") {
    std::string frame(data.size() + serial::kLinkOverhead, '\0');
    frame.resize(serial::build_link_frame(command, reinterpret_cast<const std::uint8_t*>(data.data()), data.size(),
                                          reinterpret_cast<std::uint8_t*>(frame.data()), frame.size()));
    put(fd, frame);
  }
  // The frames that come within `seconds`, until `enough` says so.
  std::vector<Frame> frames_until(double seconds, const auto& enough) {
    std::vector<Frame> got;
    poll_until(seconds, [&] {
      const ssize_t n = read(fd, buffer_ + fill_, sizeof buffer_ - fill_);
      if (n > 0) fill_ += static_cast<std::int32_t>(n);
      std::uint8_t frame[sizeof buffer_];
      std::int32_t length = 0;
      while ((length = serial::read_a_msg(buffer_, frame, sizeof frame, fill_, &fill_)) > 0) {
        got.push_back({frame[3], std::string(reinterpret_cast<char*>(frame) + 4, static_cast<std::size_t>(length) - 6)});
      }
      return enough(got);
    });
    return got;
  }
  std::vector<Frame> frames(std::size_t count, double seconds = 2) {
    return frames_until(seconds, [count](const std::vector<Frame>& got) { return got.size() >= count; });
  }
  // The data of the frames of `command` that come within `seconds`, until `size` bytes came.
  std::string data_of(std::uint8_t command, std::size_t size, double seconds = 2, std::size_t* count = nullptr) {
    std::string data;
    frames_until(seconds, [&](const std::vector<Frame>& got) {
      data.clear();
      for (const Frame& f : got) data += f.command == command ? f.data : "";
      if (count != nullptr) *count = got.size();
      return data.size() >= size;
    });
    return data;
  }

  std::uint8_t buffer_[8192] = {};
  std::int32_t fill_ = 0;
  const int fd;
  const bool announced;
};

std::string line_params(unsigned baud, char data_bits, char stop_bits, char parity) {
  return {char(baud >> 24), char(baud >> 16), char(baud >> 8), char(baud), data_bits, stop_bits, parity};
}

TEST(ExtensionBoards, AnnounceThemselvesAnswerKeepAlivesAndLineParametersSwitchRelaysAndCarryTheEnvironmentBoard) {
  RunningBoard unit({"ai 3 2.5"});
  ASSERT_TRUE(unit.started);
  Link board1(unit.box, "/dev/ttymxc5");
  Link board2(unit.box, "/dev/ttymxc6");
  EXPECT_TRUE(board1.announced && board2.announced);  // at power-up, before anybody listened

  board1.send(0x92);
  EXPECT_TRUE(presence(board1.frames(1)));
  board1.send(0x61, line_params(19200, 7, 2, 2));
  EXPECT_TRUE(presence(board1.frames(1)));
  EXPECT_TRUE(state_shows(unit.box, "uart 6 ", "channel=1 mode=loopback speed=19200 format=7E2"));
  board2.send(0x63, line_params(4800, 8, 1, 1));
  board2.send(0x62, line_params(9600, 9, 1, 0));  // no such line: answered, not applied
  EXPECT_EQ(board2.frames(2).size(), 2u);
  EXPECT_TRUE(state_shows(unit.box, "uart 12 ", "speed=4800 format=8O1"));
  EXPECT_TRUE(state_shows(unit.box, "uart 10 ", "channel=2 mode=loopback speed=9600 format=8N1"));
  board2.send(0x64, line_params(9600, 8, 1, 0));  // board 2 has no channel 4
  put(board2.fd, std::string("\x7E\x00\x00\x92\x93\x0D", 6));  // a keep-alive with a wrong sum

  // Board 2 switches its four relays and does not answer for them.
  board2.send(0xAA, "\x01");
  board2.send(0xAD, "\x01");
  board1.send(0xAB, "\x01");  // board 1 has no relays
  EXPECT_TRUE(state_shows(unit.box, "relay 8 ", "on=board-2 output=4 state=on"));
  EXPECT_TRUE(state_shows(unit.box, "relay 5 ", "state=on"));
  board2.send(0xAA, std::string(1, '\0'));
  EXPECT_TRUE(state_shows(unit.box, "relay 5 ", "state=off"));
  EXPECT_NE(state_line(unit.box, "relay 6 ").find("state=off"), std::string::npos);  // not by board 1
  EXPECT_TRUE(board2.frames(1, 0.2).empty());
  EXPECT_TRUE(state_shows(unit.box, "board 2 ", "state=on frames_in=7 frames_out=3 bad_frames=1"));

  // Board 1 carries the environment board's answers in pieces cut differently from answer to
  // answer; the SDK's gatherer puts each together again. (The readings and relays are met end to
  // end in tests/e2e/boards_e2e_test.cpp.)
  const std::string poll = serial::kEnvPoll;
  for (int round = 0; round < 5; ++round) {
    serial::clear_env_info();
    for (const auto& [at, size] : {std::pair{0, 5}, {5, 6}, {11, 7}}) board1.send(0x84, poll.substr(at, size));
    std::size_t whole = 0;
    for (const Frame& piece : board1.frames_until(2, [](const std::vector<Frame>& got) {
           return !got.empty() && got.back().data.ends_with('\r');
         })) {
      EXPECT_EQ(piece.command, 'T');
      whole += piece.data.size();
      serial::env_answer_handler(reinterpret_cast<const std::uint8_t*>(piece.data.data()),
                                 static_cast<std::int32_t>(piece.data.size()), 0);
    }
    EXPECT_EQ(whole, 200u) << round;
    EXPECT_NEAR(serial::STR_BSP_ENV_INFO.fAiVolt[2], 2.5, 1e-5) << round;
  }
  EXPECT_TRUE(state_shows(unit.box, "env ", "from_sdk=90 to_sdk=1000 dropped=0 state=on polls=5 commands=0 answers=5"));

  // Silenced, board 1 says nothing until it is revived; the environment board likewise.
  EXPECT_TRUE(unit.control({"board 1 silent"}).empty());
  board1.send(0x92);
  board1.send(0x80, "echo?");
  EXPECT_TRUE(board1.frames(1, 0.5).empty());
  EXPECT_TRUE(unit.control({"board 1 on", "env silent"}).empty());
  EXPECT_TRUE(presence(board1.frames(1)));  // back, it announces itself
  board1.send(0x84, poll);
  board1.send(0x92);
  EXPECT_TRUE(presence(board1.frames_until(0.5, [](const auto&) { return false; })));  // board 1 speaks, env not
  EXPECT_TRUE(unit.control({"env on"}).empty());
  board1.send(0x84, poll);
  EXPECT_EQ(board1.data_of('T', 200).size(), 200u);
}

TEST(ExtensionBoards, CarryChannelBytesBothWaysAtTheChannelRate) {
  RunningBoard unit({"uart 10 terminal"});
  ASSERT_TRUE(unit.started);
  const int person = open_port(terminal_of(unit.box, "uart 10 "), B9600);
  ASSERT_GE(person, 0) << unit.box.read("/sim/state");
  Link board1(unit.box, "/dev/ttymxc5");
  Link board2(unit.box, "/dev/ttymxc6");

  board1.send(0x80, "through the plug of channel 0");
  EXPECT_EQ(board1.data_of(0x50, 29), "through the plug of channel 0");
  board2.send(0x82, "to the person");
  EXPECT_EQ(take(person, 13, 2), "to the person");

  std::string typed;
  for (int i = 0; i < 480; ++i) typed += static_cast<char>('a' + i % 26);
  const double start = platform::monotonic_seconds();
  put(person, typed);
  std::size_t frames = 0;
  EXPECT_EQ(board2.data_of(0x52, typed.size(), 3, &frames), typed);
  EXPECT_GT(platform::monotonic_seconds() - start, 0.4);  // 480 bytes at 960 a second
  EXPECT_LT(frames, 48u);                                 // gathered, not a frame a byte
  EXPECT_TRUE(state_shows(unit.box, "uart 10 ", "from_sdk=13 to_sdk=480 dropped=0"));
  EXPECT_TRUE(unit.control({"uart 10 send 6869"}).empty());
  EXPECT_EQ(board2.data_of(0x52, 2), "hi");
  close(person);
}

TEST(Modem, BootsWithItsLinesLeavesUsbToRestartRegistersLateAndLosesItsLinkToACommandOnItsDataPort) {
  RunningBoard unit({"modem row 11", "modem boot-delay 1", "modem dial-delay 0"});
  ASSERT_TRUE(unit.started);
  const std::string port = unit.box.path("/dev/ttyUSB3");
  const auto hears = [](int fd, const std::string& said) { EXPECT_EQ(take(fd, said.size(), 3), said); };
  // What it said since its port came up; lines that came before the port was raw had CR read as LF.
  const auto boot_lines = [&] {
    const int fd = open_port(port, B115200, 0, false);
    std::string got = take(fd, 85, 3);
    std::ranges::replace(got, '\r', '\n');
    EXPECT_EQ(got, "\n\nRDY\n\n\n\n+CFUN: 1\n\n\n\n+CPIN: READY\n\n\n\n+QUSIM: 1\n\n\n\n+QIND: SMS DONE\n\n\n\n+QIND: PB DONE\n\n");
    return fd;
  };
  int fd = boot_lines();
  // A report at once, and two between the next command (echoed) and its reply.
  ASSERT_TRUE(unit.control({"modem urc +QIND: \"act\",\"LTE\"", "modem interleave 2", "modem register-delay 2"}).empty());
  put(fd, "AT+CSQ\r");
  hears(fd, "\r\n+QIND: \"act\",\"LTE\"\r\nAT+CSQ\r\r\n+QIND: \"csq\",24,99\r\n\r\n+QIND: \"csq\",24,99\r\n\r\n+CSQ: 24,99\r\n\r\nOK\r\n");
  // A restart by command: acknowledged, then off USB (listing and port gone) for the boot.
  put(fd, "AT+CFUN=1,1\r");
  hears(fd, "AT+CFUN=1,1\r\r\nOK\r\n");
  const auto listed = [&] { return access(port.c_str(), F_OK) == 0 && unit.box.read("/sim/usb").find("ID 2c7c:6026 M820") != std::string::npos; };
  EXPECT_TRUE(poll_until(1, [&] { return access(port.c_str(), F_OK) != 0 && unit.box.read("/sim/usb").find("2c7c") == std::string::npos; }));
  close(fd);
  ASSERT_TRUE(poll_until(3, listed));
  fd = boot_lines();
  // Registered 2 s after it came back: searching until then, and a dial meanwhile gets no link.
  ASSERT_TRUE(unit.control({"modem dial"}).empty());
  put(fd, "AT+CREG?\r");
  EXPECT_EQ(take(fd, 50, 1).substr(0, 21), "AT+CREG?\r\r\n+CREG: 2,2");
  EXPECT_TRUE(state_shows(unit.box, "modem ", "registered=searching"));
  EXPECT_TRUE(poll_until(3, [&] { return state_line(unit.box, "modem ").find("registered=yes") != std::string::npos; }));
  ASSERT_TRUE(state_shows(unit.box, "link ppp0 ", "state=down dials=1 at_on_link=0") && unit.control({"modem dial"}).empty());
  ASSERT_TRUE(state_shows(unit.box, "link ppp0 ", "state=up"));
  // Row 11 carries PPP on its AT port: a command written there breaks the link, and is data.
  put(fd, "AT+CSQ\r");
  hears(fd, "\r\nNO CARRIER\r\n");
  EXPECT_TRUE(state_shows(unit.box, "link ppp0 ", "state=down dials=2 at_on_link=1"));
  close(fd);
  // Models differ: row 17 keeps its echo off after a boot, row 18 knows no ^SYSINFO.
  for (const auto& [row, answer] : {std::pair{"17", "\r\n^SYSINFO:2,3,0,17,1\r\n\r\nOK\r\n"}, {"18", "AT^SYSINFO\r\r\nERROR\r\n"}}) {
    ASSERT_TRUE(unit.control({"modem boot-delay 0", "modem register-delay 0", std::string("modem row ") + row}).empty());
    fd = open_port(unit.box.path("/dev/ttyUSB2"), B115200);
    put(fd, "AT^SYSINFO\r");
    hears(fd, answer);
    close(fd);
  }
}

}  // namespace
}  // namespace fsu::sim
