#include <gtest/gtest.h>
#include <sys/shm.h>

#include <csignal>
#include <string>
#include <vector>

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
            "fsusim: \"frob\": unknown command (commands: uart, port, board, env, ai, di, modem, gps)\n1\n");
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

}  // namespace
}  // namespace fsu::sim
