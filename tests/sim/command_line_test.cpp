// The fsusim command line as scripts and people use it: `run` passes a command's streams and
// status through and cleans up after itself, `up` holds a board until it is told to stop.
#include <gtest/gtest.h>

#include <cctype>
#include <csignal>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/clock.h"
#include "platform/command_runner.h"
#include "sim/sandbox.h"
#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"

extern char** environ;

namespace fsu::sim {
namespace {

using fsu::test::TestSandbox;

const std::string kFsusim = fsu::test::fsusim_path();

std::string capture(const std::string& command) {
  std::string out(8192, '\0');
  const long n = platform::capture_command(command.c_str(), out.data(), out.size());
  out.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
  return out;
}

int exit_code(const std::string& command) {
  const int status = platform::run_command(command.c_str());
  return status < 0 ? -1 : status >> 8;
}

bool poll_until(double seconds, const auto& done) {
  const double deadline = platform::monotonic_seconds() + seconds;
  while (!done()) {
    if (platform::monotonic_seconds() > deadline) return false;
    platform::sleep_ms(10);
  }
  return true;
}

TEST(FsusimRun, PassesStatusAndStreamsThrough) {
  TestSandbox box;
  EXPECT_EQ(exit_code(kFsusim + " run -- sh -c 'exit 7'"), 7);
  EXPECT_EQ(exit_code(kFsusim + " run -- sh -c 'kill -TERM $$'"), 128 + SIGTERM);
  EXPECT_EQ(exit_code(kFsusim + " run -- no-such-command-here 2>/dev/null"), 127);
  EXPECT_EQ(capture("printf 'in put' | " + kFsusim + " run -- cat"), "in put");
  EXPECT_EQ(capture(kFsusim + " run -- sh -c 'echo err >&2' 2>&1"), "err\n");
}

TEST(FsusimRun, SetsTheBoardsEnvironmentAndRemovesItsTemporaryRoot) {
  TestSandbox box;
  const std::string out = capture("TMPDIR=" + box.path("/tmp") + " " + kFsusim +
                                  " run -- sh -c 'echo $FSU_ROOT; echo $PATH; cat $FSU_ROOT/sim/board.pid; "
                                  "uci get dtm.sys.pcas'");
  const std::string root = out.substr(0, out.find('\n'));
  EXPECT_EQ(root.rfind(box.path("/tmp/fsusim."), 0), 0u) << out;
  EXPECT_NE(out.find("\n" + root + "/bin:"), std::string::npos) << out;
  EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(out[out.find('\n', root.size() + 1) + 1]))) << out;
  EXPECT_EQ(out.substr(out.size() - 2), "2\n");
  EXPECT_FALSE(box.exists("/tmp/" + root.substr(root.rfind('/') + 1)));
}

TEST(FsusimRun, KeepsAGivenRootForInspection) {
  TestSandbox box;
  const std::string unit = box.path("/tmp/unit");
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- reboot"), 0);
  EXPECT_TRUE(box.exists("/tmp/unit/etc/config/dtm"));
  EXPECT_EQ(box.read("/tmp/unit/sim/calls.log"), "reboot\n");
  EXPECT_FALSE(box.exists("/tmp/unit/sim/board.pid"));
}

TEST(FsusimCommandLine, BadUseGivesTheUsage) {
  TestSandbox box;
  for (const char* args : {"", " run", " run --root", " up", " frobnicate", " run --bogus -- true"}) {
    EXPECT_EQ(exit_code(kFsusim + args + " 2>/dev/null"), 2) << args;
    EXPECT_NE(capture(kFsusim + args + " 2>&1").find("usage:"), std::string::npos) << args;
  }
  EXPECT_EQ(exit_code(kFsusim + " --help 2>/dev/null"), 0);
  EXPECT_EQ(exit_code(kFsusim + " run --root '/tmp/a b' -- true 2>/dev/null"), 1);
}

TEST(FsusimUp, ComesUpAndGoesDownOnSigterm) {
  TestSandbox box;
  const std::string unit = box.path("/tmp/unit");
  std::string error;
  ASSERT_TRUE(make_sandbox(unit, kFsusim, &error)) << error;
  box.write("/tmp/unit/sys/class/gpio/gpio8/value", "1\n");

  int out[2];
  ASSERT_EQ(pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  std::string arg0 = kFsusim, arg1 = "up", arg2 = "--root", arg3 = unit;
  char* argv[] = {arg0.data(), arg1.data(), arg2.data(), arg3.data(), nullptr};
  pid_t pid = -1;
  ASSERT_EQ(posix_spawn(&pid, argv[0], &actions, nullptr, argv, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);

  std::string line;
  pollfd pfd{out[0], POLLIN, 0};
  char c = 0;
  while (line.find('\n') == std::string::npos && poll(&pfd, 1, 5000) == 1 && read(out[0], &c, 1) == 1) line += c;
  close(out[0]);
  EXPECT_NE(line.find("FSU_ROOT=" + unit + " PATH=" + unit + "/bin:$PATH"), std::string::npos) << line;
  EXPECT_EQ(box.read("/tmp/unit/sim/board.pid"), std::to_string(pid) + "\n");
  EXPECT_EQ(box.read("/tmp/unit/sys/class/gpio/gpio8/value"), "0\n");
  // One board per root.
  EXPECT_EQ(exit_code(kFsusim + " run --root " + unit + " -- true 2>/dev/null"), 1);

  ASSERT_EQ(kill(pid, SIGTERM), 0);
  int status = -1;
  ASSERT_TRUE(poll_until(5, [&] { return waitpid(pid, &status, WNOHANG) == pid; }));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_FALSE(box.exists("/tmp/unit/sim/board.pid"));
}

TEST(FsusimPorts, TerminalsAndControlFromTheCommandLine) {
  TestSandbox box;
  const std::string unit = box.path("/tmp/unit");
  EXPECT_NE(capture(kFsusim + " run --terminal 2 -- true 2>&1").find("fsusim: Local/Uart/2 terminal: /dev/pts/"),
            std::string::npos);
  EXPECT_EQ(exit_code(kFsusim + " run --silent 13 -- true 2>/dev/null"), 1);
  EXPECT_EQ(exit_code(kFsusim + " ctl --root " + unit + " 'uart 1 silent' 2>/dev/null"), 1);  // no board up
  {
    fsu::test::ConsoleDriver up({kFsusim, "up", "--root", unit, "--terminal", "2", "--silent=3"},
                                fsu::test::ConsoleDriver::Mode::kPipes);
    ASSERT_TRUE(up.wait_for("(CTRL+C stops the board)", 5)) << up.output();
    EXPECT_NE(up.output().find("fsusim: Local/Uart/2 terminal: /dev/pts/"), std::string::npos) << up.output();
    EXPECT_NE(box.read("/tmp/unit/sim/state").find("uart 3 device=/dev/ttymxc3 for=Local/Uart/3 mode=silent"),
              std::string::npos);

    EXPECT_EQ(exit_code(kFsusim + " ctl --root " + unit + " 'uart 2 loopback' 'uart 3 terminal'"), 0);
    EXPECT_TRUE(up.wait_for("fsusim: Local/Uart/3 terminal: /dev/pts/", 2)) << up.output();
    const std::string out = capture(kFsusim + " ctl --root " + unit + " 'uart 1 silent' frob 2>&1; echo status=$?");
    EXPECT_NE(out.find("fsusim: \"frob\": unknown command"), std::string::npos) << out;
    EXPECT_NE(out.find("status=1"), std::string::npos) << out;
    EXPECT_TRUE(up.wait_for("fsusim: control: \"frob\"", 2)) << up.output();
  }
  EXPECT_FALSE(box.exists("/tmp/unit/dev/ttymxc1"));
  EXPECT_EQ(box.read("/tmp/unit/sim/state"), "board down\n");
}

}  // namespace
}  // namespace fsu::sim
