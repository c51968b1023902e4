// `fsusim test` as a CI job runs it: scenario files against an example application and against
// small shell programs, verdicts as exit statuses and JUnit reports, nothing left behind.
#include <gtest/gtest.h>

#include <csignal>
#include <string>

#include "platform/clock.h"
#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

// Runs `fsusim test ARGS` in the sandbox's /tmp, which is also where it makes its units; gives
// its exit status and, in *out, what it printed.
int fsusim_test(const TestSandbox& box, const std::string& args, std::string* out) {
  const int code = sim::exit_code("cd " + box.path("/tmp") + " && TMPDIR=$PWD " + fsusim_path() + " test " + args + " >out.txt 2>&1");
  *out = box.read("/tmp/out.txt");
  return code;
}

// How many units a run left in the sandbox's /tmp.
std::string units_left(const TestSandbox& box) { return sim::capture("ls " + box.path("/tmp") + " | grep -c ^fsusim-test"); }

TEST(ScenarioOnSimulator, InputsRelaysPassesWithOneJunitCaseFailsWithinItsTimeoutAndAnUnknownStepRunsNothing) {
  TestSandbox box;
  const std::string app = std::string(" -- ") + FSU_TEST_INPUTS_RELAYS;
  const std::string steps =
      "steps:\n"
      "  - wait-output: \"inputs_relays: ready\"\n"
      "    timeout: 60s\n"
      "  - set: \"ai 3 2.5\"\n"
      "  - delay: 3s\n"
      "  - input: \"ai 3\\n\"\n"
      "  - wait-output: \"ai 3 = 2.5\"\n";
  box.write("/tmp/ok.yaml", steps);
  box.write("/tmp/never.yaml", steps + "  - wait-output: \"ai 3 = 9.9\"\n    timeout: 2s\n");
  box.write("/tmp/bad.yaml", "steps:\n  - wait-output: ready\n  - press-button: 3\n");
  std::string out;
  ASSERT_EQ(fsusim_test(box, "--junit ok.xml ok.yaml" + app, &out), 0) << out;
  const std::string passed = box.read("/tmp/ok.xml");
  EXPECT_NE(passed.find("tests=\"1\" failures=\"0\""), std::string::npos) << passed;
  EXPECT_NE(passed.find("<testcase name=\"ok\" classname=\"ok.yaml\""), std::string::npos) << passed;
  EXPECT_EQ(passed.find("<failure"), std::string::npos) << passed;

  const double start = platform::monotonic_seconds();
  ASSERT_EQ(fsusim_test(box, "--junit=never.xml never.yaml" + app, &out), 1) << out;
  EXPECT_LT(platform::monotonic_seconds() - start, 45);
  for (const std::string part : {"FAIL never (never.yaml)", "never.yaml:8: wait-output \"ai 3 = 9.9\": not on the output",
                                 "expected: \"ai 3 = 9.9\" on the output within 2.0 s", "seen:     not there after 2.",
                                 "last lines of the application's output:\n", "    | ai 3 = 2.5"}) {
    EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
  }
  const std::string failed = box.read("/tmp/never.xml");
  EXPECT_NE(failed.find("tests=\"1\" failures=\"1\""), std::string::npos) << failed;
  EXPECT_NE(failed.find("<failure message=\"never.yaml:8: wait-output &quot;ai 3 = 9.9&quot;"), std::string::npos) << failed;

  // A file that does not load stops the whole run before any scenario starts.
  EXPECT_EQ(fsusim_test(box, "--junit bad.xml ok.yaml bad.yaml" + app, &out), 2) << out;
  EXPECT_EQ(out.rfind("fsusim: test: bad.yaml:3: unknown step \"press-button\"", 0), 0u) << out;
  EXPECT_FALSE(box.exists("/tmp/bad.xml"));
  EXPECT_EQ(fsusim_test(box, "ok.yaml -- ./no-such-app", &out), 2) << out;
  EXPECT_EQ(units_left(box), "0\n");
}

TEST(ScenarioOnSimulator, CommandLineChecksBoardStepsHostileOutputAndCtrlCEndTheirRunsCleanly) {
  TestSandbox box;
  std::string out;
  // Without a scenario file: a text awaited, the exit status judged, a text forbidden.
  EXPECT_EQ(fsusim_test(box, "--expect-text up --timeout 20s -- sh -c 'echo up; exec sleep 60'", &out), 0) << out;
  EXPECT_EQ(fsusim_test(box, "--timeout 20s -- sh -c 'exit 3'", &out), 1) << out;
  EXPECT_NE(out.find("command line: wait-exit 0: exit status 3"), std::string::npos) << out;
  // The application's output is anybody's bytes: the report stays well-formed XML.
  EXPECT_EQ(fsusim_test(box, "--junit out.xml --fail-text FATAL -- sh -c \"printf '\\377<&>\\001\\\\n'; echo FATAL\"", &out), 1);
  EXPECT_NE(out.find("command line: fail-output \"FATAL\": it appeared on the output"), std::string::npos) << out;
  EXPECT_NE(box.read("/tmp/out.xml").find("<system-out>\\xFF&lt;&amp;&gt;\\x01\nFATAL\n</system-out>"), std::string::npos)
      << box.read("/tmp/out.xml");

  // The unit's control lines, its status and the application's input; a rejected line and a
  // scenario's own timeout fail only their scenario.
  box.write("/tmp/unit.yaml",
            "board: \"di 5 closed\"\n"
            "steps:\n"
            "  - set: \"ai 3 current 12\"\n"
            "  - wait-state: {name: \"ai 3.milliamps\", value: \"12.000\"}\n"
            "  - expect-state: {name: \"di 5\", value: closed}\n"
            "  - input: \"hello\\n\"\n"
            "  - wait-output: \"got hello\"\n");
  box.write("/tmp/rejected.yaml", "steps:\n  - expect-state: {name: \"di 5\", value: open}\n  - set: \"ai 99 1\"\n");
  box.write("/tmp/slow.yaml", "timeout: 1s\nsteps:\n  - delay: 30s\n");
  const double start = platform::monotonic_seconds();
  EXPECT_EQ(fsusim_test(box, "--junit units.xml unit.yaml rejected.yaml slow.yaml -- sh -c 'read l; echo \"got $l\"; exec sleep 60'", &out), 1);
  EXPECT_LT(platform::monotonic_seconds() - start, 20);  // each application stopped at its scenario's end
  for (const std::string part : {"PASS unit (unit.yaml)", "FAIL rejected (rejected.yaml)", "FAIL slow (slow.yaml)",
                                 "rejected.yaml:3: set \"ai 99 1\": not applied", "seen:     \"ai 99 1\": no channel",
                                 "slow.yaml: the scenario did not end within its timeout", "1 passed, 2 failed"}) {
    EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
  }
  EXPECT_NE(box.read("/tmp/units.xml").find("tests=\"3\" failures=\"2\""), std::string::npos);

  // CTRL+C at fsusim's terminal ends the run: the application, in a session of its own, is
  // stopped by fsusim, and its unit removed.
  ConsoleDriver run({"env", "TMPDIR=" + box.path("/tmp"), fsusim_path(), "test", "--expect-text", "never", "--timeout",
                     "60s", "--", "sh", "-c", "echo $$ >" + box.path("/tmp/app.pid") + "; exec sleep 60"},
                    ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(sim::poll_until(20, [&] { return box.read("/tmp/app.pid").size() > 1; }));
  run.send("\x03");
  EXPECT_EQ(run.wait_exit(10), 128 + SIGINT) << run.output();
  const pid_t app = std::stoi(box.read("/tmp/app.pid"));
  EXPECT_TRUE(sim::poll_until(5, [&] { return kill(app, 0) != 0; }));
  EXPECT_EQ(units_left(box), "0\n");
}

}  // namespace
}  // namespace fsu::test
