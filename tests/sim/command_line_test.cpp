#include <gtest/gtest.h>
#include <sys/shm.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/shared_memory.h"
#include "sim/sandbox.h"
#include "sim/web_pages.h"
#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

const std::string kFsusim = test::fsusim_path();

TEST(Fsusim, RunPassesStatusStreamsAndEnvironmentKeepsAGivenRootRefusesBadUseAndUpHoldsTheBoard) {
  test::TestSandbox box;
  for (const auto& [command, status] : {std::pair{"sh -c 'exit 7'", 7}, {"sh -c 'kill -TERM $$'", 128 + SIGTERM},
                                        {"no-such-command-here 2>/dev/null", 127}})
    EXPECT_EQ(exit_code(kFsusim + " run -- " + command), status) << command;
  const std::string streams = capture("printf 'in put' | " + kFsusim + " run -- sh -c 'cat; echo err >&2' 2>&1");
  EXPECT_EQ(streams.substr(streams.find('\n') + 1), "in puterr\n");  // after the board's line

  const std::string out = capture("TMPDIR=" + box.path("/tmp") + " " + kFsusim +
                                  " run -- sh -c 'echo $FSU_ROOT; echo $PATH; uci get dtm.sys.pcas' 2>&1");
  const std::string said = "fsusim: board up in ";  // the root made, for `fsusim ctl`
  ASSERT_EQ(out.rfind(said, 0), 0u) << out;
  const std::string root = out.substr(said.size(), out.find(' ', said.size()) - said.size());
  EXPECT_EQ(root.rfind(box.path("/tmp/fsusim."), 0), 0u) << out;
  EXPECT_NE(out.find("\n" + root + "\n" + root + "/bin:"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.size() - 2), "2\n");
  EXPECT_FALSE(box.exists("/tmp/" + root.substr(root.rfind('/') + 1)));

  const std::string unit = box.path("/tmp/unit");
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- reboot"), 0);
  EXPECT_TRUE(box.read("/tmp/unit/sim/calls.log") == "reboot\n" && !box.exists("/tmp/unit/sim/board.pid"));

  // Bad use names what is wrong; a root that a failed command made is removed again.
  const std::string fresh = box.path("/tmp/fresh");
  for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
           {"", "usage:\n"}, {" run", "run: no command to run"}, {" run --root", "run: --root needs a value"},
           {" up", "up: needs --root DIR"}, {" frobnicate", "unknown command frobnicate"},
           {" run --bogus -- true", "run: unknown option --bogus"}, {" ctl --root " + unit, "ctl: no control line"},
           {" up --root " + fresh + " --terminal 13", "up: --terminal 13: no port 13 (ports are 1 to 12)"}}) {
    const std::string printed = capture(kFsusim + args + " 2>&1; echo $?");
    EXPECT_NE(printed.find(message), std::string::npos) << printed;
    EXPECT_EQ(printed.find("usage:") == std::string::npos, !args.empty()) << printed;
    EXPECT_EQ(printed.substr(printed.size() - 3), "\n2\n") << args;
  }
  EXPECT_FALSE(box.exists("/tmp/fresh"));
  EXPECT_EQ(capture(kFsusim + " --version"), "fsusim 1.0.9\n");
  EXPECT_EQ(exit_code(kFsusim + " --help >/dev/null"), 0);
  for (const std::string& args : {std::string(" run --root '/tmp/a b' -- true"), " ctl --root " + unit + " 'uart 1 silent'"})
    EXPECT_EQ(exit_code(kFsusim + args + " 2>/dev/null"), 1) << args;  // the last: no board up

  // `up` holds the board, takes control lines and goes down on SIGTERM or when killed.
  std::string error;
  ASSERT_TRUE(make_sandbox(unit, kFsusim, &error)) << error;
  box.write("/tmp/unit/sys/class/gpio/gpio8/value", "1\n");

  test::ConsoleDriver up({kFsusim, "up", "--root", unit, "--terminal", "2", "--silent=3"}, test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(up.wait_for("(CTRL+C stops the board)", 5)) << up.output();
  EXPECT_NE(up.output().find("FSU_ROOT=" + unit + " PATH=" + unit + "/bin:$PATH"), std::string::npos) << up.output();
  EXPECT_NE(up.output().find("fsusim: Local/Uart/2 terminal: /dev/pts/"), std::string::npos) << up.output();
  EXPECT_NE(box.read("/tmp/unit/sim/state").find("uart 3 device=/dev/ttymxc3 for=Local/Uart/3 mode=silent"), std::string::npos);
  EXPECT_EQ(box.read("/tmp/unit/sys/class/gpio/gpio8/value"), "0\n");
  EXPECT_NE(capture(kFsusim + " status --root " + unit).find("\nuart 3 device=/dev/ttymxc3 for=Local/Uart/3 mode=silent "),
            std::string::npos);
  EXPECT_NE(capture(kFsusim + " status --json --root " + unit).find("\"uart 3\": {\"device\": \"/dev/ttymxc3\""),
            std::string::npos);
  const key_t counters = platform::shared_memory_key_in(unit.c_str(), kCounterSegmentKey);
  ASSERT_GE(shmget(counters, 16, IPC_CREAT | 0600), 0);  // not the console's: no counters to show, but it goes too
  EXPECT_EQ(capture(kFsusim + " web --root " + unit + " counters 2>&1; echo $?"),
            "fsusim: no usable counter segment in " + unit + ": the one there has 16 bytes, mode 0600, the console's has 1728 bytes, mode 0600\n1\n");
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- true 2>/dev/null"), 1);  // one board per root
  EXPECT_GE(shmget(counters, 0, 0), 0);  // and the refused run leaves the board's segment alone

  const std::string terminal = capture(kFsusim + " ctl --root " + unit + " 'uart 2 loopback' 'uart 3 terminal'");
  ASSERT_EQ(terminal.rfind("Local/Uart/3 terminal: /dev/pts/", 0), 0u) << terminal;
  EXPECT_NE(box.read("/tmp/unit/sim/state").find("terminal=" + terminal.substr(23, terminal.size() - 24) + " "), std::string::npos);
  EXPECT_TRUE(up.wait_for("fsusim: Local/Uart/3 terminal: /dev/pts/", 2)) << up.output();
  EXPECT_EQ(capture(kFsusim + " ctl --root " + unit + " 'uart 1 silent' frob 2>&1; echo $?"),
            "fsusim: \"frob\": unknown command (commands: uart, port, board, env, ai, di, modem, gps, reboot, record)\n1\n");
  EXPECT_TRUE(up.wait_for("fsusim: control: \"frob\"", 2)) << up.output();

  ASSERT_EQ(kill(std::stoi(box.read("/tmp/unit/sim/board.pid")), SIGTERM), 0);
  EXPECT_EQ(up.wait_exit(5), 0);
  EXPECT_EQ(box.read("/tmp/unit/sim/state"), "board down\n");  // what a stopped board leaves: the board tests
  EXPECT_EQ(capture(kFsusim + " status --root " + unit + " 2>&1; echo $?"),
            "fsusim: the simulated unit in " + unit + " is not running\n1\n");
  EXPECT_LT(shmget(counters, 0, 0), 0);  // the console's counter segment goes with the board
  test::ConsoleDriver killed({kFsusim, "up", "--root", unit}, test::ConsoleDriver::Mode::kPipes);  // and when killed
  ASSERT_TRUE(killed.wait_for("(CTRL+C stops the board)", 5)) << killed.output();
  ASSERT_EQ(kill(std::stoi(box.read("/tmp/unit/sim/board.pid")), SIGKILL), 0);
  EXPECT_TRUE(poll_until(5, [&] { return box.read("/tmp/unit/sim/state") == "board down\n"; }));
  EXPECT_FALSE(box.exists("/tmp/unit/sim/board.pid") || box.exists("/tmp/unit/dev/ttymxc1"));  // gone before
}

TEST(Fsusim, LsListsTheRunningUnitTermIsARawTerminalOnAPortAndCleanRemovesOnlyAStoppedRootOfOurs) {
  test::TestSandbox box;
  setenv("FSUSIM_RUNTIME_DIR", box.path("/tmp/runtime").c_str(), 1);  // this test's units only
  const std::string unit = box.path("/tmp/unit");
  test::ConsoleDriver up({kFsusim, "up", "--root", unit}, test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(up.wait_for("(CTRL+C stops the board)", 5)) << up.output();
  const std::string board = box.read("/tmp/unit/sim/board.pid");
  const auto json = nlohmann::json::parse(capture(kFsusim + " status --json --root " + unit));
  EXPECT_TRUE(json["relay 1"]["state"] == "off" && json["watchdog"]["armed"] == "unknown") << json.dump();
  test::ConsoleDriver watch({kFsusim, "status", "--watch", "--root", unit}, test::ConsoleDriver::Mode::kTerminal);
  EXPECT_TRUE(watch.wait_for_count("\x1b[Hfsusim status " + unit + "  board process", 2, 5)) << watch.output();  // redrawn
  EXPECT_NE(watch.output().find("\nRelays    1 off  2 off  3 off  4 off  5 off  6 off  7 off  8 off\x1b[K"), std::string::npos);
  EXPECT_NE(watch.output().find("\nWatchdog  armed unknown  left - s  reboots 0\x1b[K"), std::string::npos);
  watch.send("\x03");
  EXPECT_EQ(watch.wait_exit(5), 0);

  // A person at a terminal: what the application sends shows, what is typed reaches it.
  test::ConsoleDriver term({kFsusim, "term", "3", "--root", unit}, test::ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(term.wait_for("; Ctrl-] leaves", 5)) << term.output();
  const int port = open_port(unit + "/dev/ttymxc3", B115200);
  ASSERT_GE(port, 0);
  put(port, "from the application");
  EXPECT_TRUE(term.wait_for("from the application", 3)) << term.output();
  term.send("typed\r");
  std::string got;
  EXPECT_TRUE(poll_until(3, [&] {
    char buf[64];
    const ssize_t n = read(port, buf, sizeof buf);
    if (n > 0) got.append(buf, static_cast<std::size_t>(n));
    return got == "typed\r";
  })) << got;
  const std::string listed = capture(kFsusim + " ls");  // the test holds ttymxc3 now
  EXPECT_EQ(listed.rfind(unit + "  board process " + board.substr(0, board.size() - 1) + " (fsusim)\n", 0), 0u) << listed;
  EXPECT_NE(listed.find(" ttymxc3=/dev/pts/"), std::string::npos) << listed;
  EXPECT_NE(listed.find("  program " + std::to_string(getpid()) + " ("), std::string::npos) << listed;
  term.send("\x1d");
  EXPECT_EQ(term.wait_exit(5), 0) << term.output();
  EXPECT_TRUE(poll_until(3, [&] {
    return box.read("/tmp/unit/sim/state").find("uart 3 device=/dev/ttymxc3 for=Local/Uart/3 mode=loopback ") != std::string::npos;
  }));

  test::ConsoleDriver hex({kFsusim, "term", "--hex", "--root", unit, "3"}, test::ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(hex.wait_for("shown in hex; Ctrl-] leaves", 5)) << hex.output();
  put(port, "A\x01\xff");
  EXPECT_TRUE(hex.wait_for("41 01 FF ", 3)) << hex.output();
  hex.send("\x1d");  // raw: ^D is a byte for the port like any other
  EXPECT_EQ(hex.wait_exit(5), 0);
  close(port);
  EXPECT_EQ(capture(kFsusim + " term 13 --root " + unit + " 2>&1; echo $?"),
            "fsusim: term: no port 13 (ports are 1 to 12); fsusim --help shows the usage\n2\n");

  // Only a stopped root that the simulator made goes, with its segment.
  EXPECT_EQ(capture(kFsusim + " clean --root " + unit + " 2>&1; echo $?"),
            "fsusim: the simulated unit in " + unit + " is running (process " + board.substr(0, board.size() - 1) +
                "); stop it first, or add --stop\n1\n");
  ASSERT_EQ(exit_code("mkdir -p " + box.path("/tmp/other/sim")), 0);  // looks a little like one: not ours
  box.write("/tmp/other/sim/state", "board down\n");
  EXPECT_EQ(capture(kFsusim + " clean --root " + box.path("/tmp/other") + " 2>&1; echo $?"),
            "fsusim: " + box.path("/tmp/other") + " is not the root of a simulated unit: nothing removed\n1\n");
  const key_t counters = platform::shared_memory_key_in(unit.c_str(), kCounterSegmentKey);
  ASSERT_GE(shmget(counters, kCounterSegmentSize, IPC_CREAT | 0600), 0);
  EXPECT_EQ(capture(kFsusim + " clean --stop --root " + unit), "fsusim: removed " + unit + " and its shared-memory segment\n");
  EXPECT_EQ(up.wait_exit(5), 0);
  EXPECT_FALSE(box.exists("/tmp/unit"));
  EXPECT_TRUE(box.exists("/tmp/other/sim/state") && shmget(counters, 0, 0) < 0);
  EXPECT_EQ(capture(kFsusim + " ls"), "no simulated unit is running (fsusim up --root DIR starts one)\n");
}

// A run recorded on one unit and played into a fresh one gives the application the same bytes,
// the far end normally there silent meanwhile. Capture files come from the field and are
// hostile: one that does not parse plays nothing and names its line.
TEST(Fsusim, ARecordedRunReplayedIntoAFreshUnitGivesTheSameBytesAndABadCapturePlaysNothing) {
  test::TestSandbox box;
  const std::string first = box.path("/tmp/first"), second = box.path("/tmp/second"), saved = box.path("/tmp/run.log");
  const auto read_all = [](int port, const std::string& tail) {  // what the port gives until `tail`
    std::string got;
    poll_until(5, [&] {
      char buf[512];
      const ssize_t n = read(port, buf, sizeof buf);
      if (n > 0) got.append(buf, static_cast<std::size_t>(n));
      return got.ends_with(tail);
    });
    return got;
  };
  test::ConsoleDriver up1({kFsusim, "up", "--root", first}, test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(up1.wait_for("(CTRL+C stops the board)", 5)) << up1.output();
  test::ConsoleDriver record({kFsusim, "record", "--root", first, "--port", "1", "--seconds", "2.5", "--out", saved},
                             test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(poll_until(5, [&] { return box.exists("/tmp/first/sim/record.log"); }));
  int port = open_port(first + "/dev/ttymxc1", B115200);
  put(port, "ping");  // the loopback plug answers it
  ASSERT_EQ(exit_code(kFsusim + " ctl --root " + first + " 'uart 1 send 4F4B0D0A'"), 0);
  EXPECT_EQ(read_all(port, "OK\r\n"), "pingOK\r\n");
  close(port);
  EXPECT_EQ(record.wait_exit(5), 0) << record.output();
  const std::string log = box.read("/tmp/run.log");
  EXPECT_NE(log.find("]:[Local/Uart/1][00001]\r\nTX:70 69 6E 67 \r\nRX:70 69 6E 67 "), std::string::npos) << log;
  EXPECT_EQ(log.find("Local/Port/7"), std::string::npos) << log;  // only the port asked for

  test::ConsoleDriver up2({kFsusim, "up", "--root", second}, test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(up2.wait_for("(CTRL+C stops the board)", 5)) << up2.output();
  port = open_port(second + "/dev/ttymxc1", B115200);
  test::ConsoleDriver replay({kFsusim, "replay", saved, "--root", second, "--speed", "2"}, test::ConsoleDriver::Mode::kPipes);
  EXPECT_TRUE(poll_until(3, [&] { return box.read("/tmp/second/sim/state").find("for=Local/Uart/1 mode=silent") != std::string::npos; }));
  put(port, "ping");  // heard by nobody: the loopback plug is out while the capture plays
  EXPECT_EQ(read_all(port, "OK\r\n"), "pingOK\r\n");
  EXPECT_EQ(replay.wait_exit(10), 0) << replay.output();
  EXPECT_NE(box.read("/tmp/second/sim/state").find("for=Local/Uart/1 mode=loopback"), std::string::npos);
  close(port);

  // The receiver's sentences, a cycle a second: ten seconds of them in well under two.
  std::string nmea;
  for (int s = 0; s < 10; ++s) nmea += "$GNZDA,08271" + std::to_string(s) + ".00,16,11,2026,00,00*75\n$GPGSV,1,1,00*79\n";
  box.write("/tmp/gps.txt", nmea);
  const int receiver = open_port(second + "/dev/ttymxc7", B9600);
  const auto started = std::chrono::steady_clock::now();
  EXPECT_EQ(exit_code(kFsusim + " replay " + box.path("/tmp/gps.txt") + " --root " + second + " --speed 10"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(3));
  std::string sent = nmea;
  for (std::size_t at = 0; (at = sent.find('\n', at)) != std::string::npos; at += 2) sent.insert(at, "\r");
  EXPECT_TRUE(read_all(receiver, sent).ends_with(sent));  // behind the receiver's last bytes before it
  EXPECT_NE(box.read("/tmp/second/sim/state").find("for=positioning-receiver mode=receiver"), std::string::npos);
  close(receiver);

  const std::string head = "\r\n[2026-11-16 21:14:04]:[Local/Uart/2][00001]\r\nTX:01 \r\nRX:";
  for (const auto& [text, message] : std::vector<std::pair<std::string, std::string>>{
           {head + "4F 4G ", "line 4: '4G ' is not a byte in hex followed by a blank"},
           {head + "4F " + head.substr(0, 20), "line 5: expected a record header"},
           {head + "4F \r\n[2026-11-16 21:14:05]:[Local/Uart/2", "line 5: record header cut short in its port name"},
           {head.substr(0, head.size() - 5), "line 3: record ends before its RX: mark"},
           {"\r\n[2026-11-16 21:14:04]:[Local/Uart/13][00001]\r\nTX:\r\nRX:01 ", "line 2: unknown port 'Local/Uart/13'"},
           {"$GNZDA\n\x7f" "ELF\x01\x00\xff", "line 2: neither an NMEA sentence"},
           {"$GNZDA\n[2026-11-16 21:14:04] $GNZDA\n", "line 2: time prefix where the sentences before have none"},
           {"\n\n", "line 3: no record or sentence"}}) {
    box.write("/tmp/bad.log", text);
    const std::string said = capture(kFsusim + " replay " + box.path("/tmp/bad.log") + " --root " + second + " 2>&1 >/dev/null; echo $?");
    EXPECT_TRUE(said.starts_with("fsusim: " + box.path("/tmp/bad.log") + ": " + message) && said.ends_with("\n2\n") &&
                std::count(said.begin(), said.end(), '\n') == 2) << said;
  }
  EXPECT_NE(box.read("/tmp/second/sim/state").find("for=Local/Uart/2 mode=loopback speed=9600 format=8N1 from_sdk=0 to_sdk=0 "),
            std::string::npos);  // nothing played, the far end never switched
}

}  // namespace
}  // namespace fsu::sim
