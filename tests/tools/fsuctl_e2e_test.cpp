// fsuctl on a simulated unit as a person or a script runs it: it starts the SDK itself when no
// program owns the unit, asks the program that does through the web request files, exits 2
// for a wrong point and 1 for a unit that is not running, with one line.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

struct Ran {
  int status;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs fsuctl on the unit in `box`, standard error kept apart in a file of the sandbox.
Ran fsuctl(const TestSandbox& box, const std::vector<std::string>& args) {
  const std::string err = box.root() + "/fsuctl.err";
  std::vector<std::string> argv{"/bin/sh", "-c", "exec \"$0\" \"$@\" 2>" + err, FSU_TEST_FSUCTL};
  argv.insert(argv.end(), args.begin(), args.end());
  ConsoleDriver run(argv, ConsoleDriver::Mode::kPipes, {"FSU_ROOT=" + box.root()});
  const int status = run.wait_exit(40);
  std::ostringstream text;
  text << std::ifstream(err).rdbuf();
  return {status, run.output(), text.str()};
}

long lines(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

TEST(Fsuctl, ReadsAndSwitchesPointsStartingTheSdkItselfOrAskingTheProgramThatOwnsTheUnit) {
  sim::RunningBoard unit;
  ASSERT_TRUE(unit.started);
  ASSERT_TRUE(unit.control({"ai 3 2.5", "di 5 closed"}).empty());

  Ran ai = fsuctl(unit.box, {"--json", "ai", "Local/AI/3"});
  ASSERT_EQ(ai.status, 0) << ai.err;
  const auto json = nlohmann::json::parse(ai.out);  // one object; the SDK's own prints went elsewhere
  EXPECT_EQ(json["via"], "sdk");
  EXPECT_EQ(json["unit"], "simulated");
  EXPECT_EQ(json["root"], unit.box.root());
  EXPECT_NEAR(json["volts"].get<double>(), 2.5, 1e-3);
  EXPECT_EQ(ai.err, "");

  Ran relay = fsuctl(unit.box, {"do", "2", "on"});
  EXPECT_EQ(relay.status, 0) << relay.err;
  EXPECT_EQ(relay.out, "Local/DO/2: on\n");
  EXPECT_EQ(relay.err, "fsuctl: the simulated unit in " + unit.box.root() + "; started the SDK in this process\n");
  EXPECT_TRUE(sim::state_shows(unit.box, "relay 2 ", "state=on"));

  // An application owns the ports: asked through the request files, in about a second.
  ConsoleDriver app({FSU_TEST_INPUTS_RELAYS}, ConsoleDriver::Mode::kPipes, {"FSU_ROOT=" + unit.box.root()});
  ASSERT_TRUE(app.wait_for("inputs_relays: ready\n", 60)) << app.output();
  const double start = platform::monotonic_seconds();
  Ran di = fsuctl(unit.box, {"--json", "di", "5"});
  EXPECT_LT(platform::monotonic_seconds() - start, 4);
  ASSERT_EQ(di.status, 0) << di.err;
  const auto asked = nlohmann::json::parse(di.out);
  EXPECT_EQ(asked["via"], "web requests");
  EXPECT_GT(asked["pid"].get<long>(), 0);
  EXPECT_EQ(asked["value"], 1);
  Ran text = fsuctl(unit.box, {"ai", "3"});
  EXPECT_EQ(text.out, "Local/AI/3: 2.500 V, 0.000 mA\n");
  EXPECT_NE(text.err.find("asked the SDK program running there (pid "), std::string::npos) << text.err;
  // What the request files cannot carry is refused, not fought over.
  Ran refused = fsuctl(unit.box, {"do", "2", "off"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(lines(refused.err), 1) << refused.err;
  EXPECT_NE(refused.err.find("owns the ports"), std::string::npos) << refused.err;
  EXPECT_TRUE(sim::state_shows(unit.box, "relay 2 ", "state=on"));
}

TEST(Fsuctl, AWrongPointOrCommandGivesExitTwoAndAUnitThatIsNotRunningExitOneWithOneLine) {
  TestSandbox box;  // made, but no board up in it
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"ai", "17"}, {"ai", "Local/DI/3"}, {"di", "0"}, {"ai", "03"}, {"do", "2", "dim"},
                                             {"do", "9", "on"}, {"ai"}, {"ai", "3", "4"}, {"dial", "--timeout", "x"},
                                             {"clock", "set", "2024-01-01 12:00:00; reboot"}, {"bogus"}}) {
    const Ran r = fsuctl(box, args);
    EXPECT_EQ(r.status, 2) << args[0] << " " << r.err;
    EXPECT_EQ(lines(r.err), 1) << r.err;
    EXPECT_EQ(r.out, "");
  }
  // No pid file, then one naming no process (and not even a number).
  for (const char* command : {"ai", "di"}) {
    const Ran r = fsuctl(box, {command, "3"});
    box.write("/sim/board.pid", "4194305x\n");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "fsuctl: the simulated unit in " + box.root() + " is not running\n");
    EXPECT_EQ(r.out, "");
  }
  const Ran version = fsuctl(box, {"--json", "version"});  // the library's own: no unit needed
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(nlohmann::json::parse(version.out)["version"], "SE-1.0.9");
}

}  // namespace
}  // namespace fsu::test
