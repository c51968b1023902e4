// The fsusim command line as scripts and people use it: `run` passes a command's streams and
// status through and cleans up after itself, `up` holds a board until it is told to stop.
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include "sim/sandbox.h"
#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

const std::string kFsusim = test::fsusim_path();

TEST(FsusimRun, PassesStatusStreamsAndTheBoardsEnvironmentAndRemovesItsTemporaryRoot) {
  test::TestSandbox box;
  for (const auto& [command, status] : {std::pair{"sh -c 'exit 7'", 7}, {"sh -c 'kill -TERM $$'", 128 + SIGTERM},
                                        {"no-such-command-here 2>/dev/null", 127}}) {
    EXPECT_EQ(exit_code(kFsusim + " run -- " + command), status) << command;
  }
  EXPECT_EQ(capture("printf 'in put' | " + kFsusim + " run -- sh -c 'cat; echo err >&2' 2>&1"), "in puterr\n");

  const std::string out = capture("TMPDIR=" + box.path("/tmp") + " " + kFsusim +
                                  " run -- sh -c 'echo $FSU_ROOT; echo $PATH; uci get dtm.sys.pcas'");
  const std::string root = out.substr(0, out.find('\n'));
  EXPECT_EQ(root.rfind(box.path("/tmp/fsusim."), 0), 0u) << out;
  EXPECT_NE(out.find("\n" + root + "/bin:"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.size() - 2), "2\n");
  EXPECT_FALSE(box.exists("/tmp/" + root.substr(root.rfind('/') + 1)));
}

TEST(FsusimRun, KeepsAGivenRootAndRefusesBadUse) {
  test::TestSandbox box;
  const std::string unit = box.path("/tmp/unit");
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- reboot"), 0);
  EXPECT_EQ(box.read("/tmp/unit/sim/calls.log"), "reboot\n");
  EXPECT_FALSE(box.exists("/tmp/unit/sim/board.pid"));

  for (const char* args : {"", " run", " run --root", " up", " frobnicate", " run --bogus -- true"}) {
    const std::string out = capture(kFsusim + args + " 2>&1; echo $?");
    EXPECT_NE(out.find("usage:"), std::string::npos) << args;
    EXPECT_EQ(out.substr(out.size() - 3), "\n2\n") << args;
  }
  EXPECT_EQ(exit_code(kFsusim + " --help >/dev/null"), 0);
  for (const std::string& args : std::vector<std::string>{" run --root '/tmp/a b' -- true", " run --silent 13 -- true",
                                 " ctl --root " + unit + " 'uart 1 silent'"}) {  // the last: no board up
    EXPECT_EQ(exit_code(kFsusim + args + " 2>/dev/null"), 1) << args;
  }
}

TEST(FsusimUp, HoldsTheBoardTakesControlLinesAndGoesDownOnSigterm) {
  test::TestSandbox box;
  const std::string unit = box.path("/tmp/unit");
  std::string error;
  ASSERT_TRUE(make_sandbox(unit, kFsusim, &error)) << error;
  box.write("/tmp/unit/sys/class/gpio/gpio8/value", "1\n");

  test::ConsoleDriver up({kFsusim, "up", "--root", unit, "--terminal", "2", "--silent=3"}, test::ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(up.wait_for("(CTRL+C stops the board)", 5)) << up.output();
  EXPECT_NE(up.output().find("FSU_ROOT=" + unit + " PATH=" + unit + "/bin:$PATH"), std::string::npos) << up.output();
  EXPECT_NE(up.output().find("fsusim: Local/Uart/2 terminal: /dev/pts/"), std::string::npos) << up.output();
  EXPECT_NE(box.read("/tmp/unit/sim/state").find("uart 3 device=/dev/ttymxc3 for=Local/Uart/3 mode=silent"),
            std::string::npos);
  EXPECT_EQ(box.read("/tmp/unit/sys/class/gpio/gpio8/value"), "0\n");
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- true 2>/dev/null"), 1);  // one board per root

  EXPECT_EQ(exit_code(kFsusim + " ctl --root " + unit + " 'uart 2 loopback' 'uart 3 terminal'"), 0);
  EXPECT_TRUE(up.wait_for("fsusim: Local/Uart/3 terminal: /dev/pts/", 2)) << up.output();
  EXPECT_EQ(capture(kFsusim + " ctl --root " + unit + " 'uart 1 silent' frob 2>&1; echo $?"),
            "fsusim: \"frob\": unknown command (commands: uart, port, board, env, ai, di, modem, gps)\n1\n");
  EXPECT_TRUE(up.wait_for("fsusim: control: \"frob\"", 2)) << up.output();

  const pid_t pid = std::stoi(box.read("/tmp/unit/sim/board.pid"));
  ASSERT_EQ(kill(pid, SIGTERM), 0);
  EXPECT_EQ(up.wait_exit(5), 0);
  EXPECT_FALSE(box.exists("/tmp/unit/sim/board.pid"));
  EXPECT_FALSE(box.exists("/tmp/unit/dev/ttymxc1"));
  EXPECT_EQ(box.read("/tmp/unit/sim/state"), "board down\n");
}

}  // namespace
}  // namespace fsu::sim
