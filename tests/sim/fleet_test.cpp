#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "platform/shared_memory.h"
#include "sim/web_pages.h"
#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

const std::string kFsusim = test::fsusim_path();

// A fleet in `base` under the test's own registry folder, stopped whatever the test's end.
struct FleetRun {
  std::string base;
  std::unique_ptr<test::ConsoleDriver> driver;
  FleetRun(const test::TestSandbox& box, int count, std::vector<std::string> application) : base(box.path("/tmp/fleet")) {
    setenv("FSUSIM_RUNTIME_DIR", box.path("/tmp/runtime").c_str(), 1);  // this test's units only
    std::vector<std::string> argv = {kFsusim, "fleet", std::to_string(count), "--base", base};
    const std::string folder = kFsusim.substr(0, kFsusim.rfind('/') + 1);
    if (application.empty() && folder + "benchkit" != test::benchkit_path()) application = {test::benchkit_path(), "web"};
    if (!application.empty()) argv.push_back("--");
    argv.insert(argv.end(), application.begin(), application.end());
    driver = std::make_unique<test::ConsoleDriver>(argv, test::ConsoleDriver::Mode::kPipes);
  }
  ~FleetRun() {
    if (capture(kFsusim + " fleet stop --base " + base + " 2>&1").find("stopped") != std::string::npos) driver->wait_exit(5);
  }
  std::string unit(int k, const std::string& command, const std::string& args) const {
    return capture(kFsusim + " " + command + " --unit " + std::to_string(k) + " " + args + " 2>&1");
  }
};

// The line of `text` that opens with `prefix`, or "".
std::string line_of(const std::string& text, const std::string& prefix) {
  const std::size_t at = text.starts_with(prefix) ? 0 : text.find("\n" + prefix);
  if (at == std::string::npos) return {};
  const std::size_t start = at == 0 ? 0 : at + 1;
  return text.substr(start, text.find('\n', start) - start);
}

TEST(Fleet, TenUnitsEachAnswerAWebRequestAndStopLeavingNoProcessSegmentOrRoot) {
  test::TestSandbox box;
  // Notes under the registry folder are anyone's guess: a fleet note of a process that is no
  // fleet, or a unit's note for a root no board holds, names nothing.
  ASSERT_EQ(mkdir(box.path("/tmp/runtime").c_str(), 0700), 0);
  box.write("/tmp/runtime/fleet-" + std::to_string(getpid()), "/etc\n");
  box.write("/tmp/runtime/1", box.root() + "\nunit 3\n");
  setenv("FSUSIM_RUNTIME_DIR", box.path("/tmp/runtime").c_str(), 1);
  EXPECT_EQ(capture(kFsusim + " fleet stop 2>&1; echo $?"), "fsusim: no fleet is running\n1\n");
  for (const auto& [args, said] : std::vector<std::pair<std::string, std::string>>{
           {"ctl --unit 3 'ai 1 1'", "fsusim: no unit 3 is running (fsusim ls lists them)\n1\n"},
           {"status --unit=0", "fsusim: status: --unit 0: a unit's number is 1 to 99999; fsusim --help shows the usage\n2\n"},
           {"fleet 1001", "fsusim: fleet: 1001 units: a fleet has 1 to 1000; fsusim --help shows the usage\n2\n"}})
    EXPECT_EQ(capture(kFsusim + " " + args + " 2>&1; echo $?"), said) << args;
  EXPECT_FALSE(box.exists("/tmp/runtime/fleet-" + std::to_string(getpid())) || box.exists("/tmp/runtime/1"));

  const double start = platform::monotonic_seconds();
  FleetRun fleet(box, 10, {});
  ASSERT_TRUE(fleet.driver->wait_for("fsusim: 10 units up in " + fleet.base, 60)) << fleet.driver->output();
  const double started = platform::monotonic_seconds() - start;
  EXPECT_TRUE(fleet.driver->output().starts_with("unit 1  " + fleet.base + "/unit-1\nunit 2  ")) << fleet.driver->output();
  // Each unit's application answers once its SDK is up, some seconds after its board: asked
  // all at once, as a platform would, again until each has answered.
  std::vector<int> waiting = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  for (int round = 0; round < 8 && !waiting.empty(); ++round) {
    std::vector<std::unique_ptr<test::ConsoleDriver>> asked;
    for (const int k : waiting) {
      asked.push_back(std::make_unique<test::ConsoleDriver>(
          std::vector<std::string>{kFsusim, "web", "--unit", std::to_string(k), "read-aidi"}, test::ConsoleDriver::Mode::kPipes));
    }
    std::vector<int> left;
    for (std::size_t n = 0; n < asked.size(); ++n) {
      if (asked[n]->wait_exit(20) != 0 || !asked[n]->output().starts_with("AI 01 ")) left.push_back(waiting[n]);
    }
    waiting = left;
  }
  EXPECT_TRUE(waiting.empty()) << waiting.size() << " units did not answer";
  const double answered = platform::monotonic_seconds() - start;
  // Every process of the fleet (each board and the application that holds its ports), and each
  // unit's counter segment, as they are while it runs.
  const std::string listed = capture(kFsusim + " ls");
  std::vector<pid_t> processes;
  for (const std::string word : {"board process ", "  program "}) {
    for (std::size_t at = listed.find(word); at != std::string::npos; at = listed.find(word, at + 1))
      processes.push_back(std::atoi(listed.c_str() + at + word.size()));
  }
  EXPECT_GE(processes.size(), 20u) << listed;
  std::vector<key_t> segments;
  for (int k = 1; k <= 10; ++k) {
    const std::string root = fleet.base + "/unit-" + std::to_string(k);
    EXPECT_NE(listed.find("unit " + std::to_string(k) + "  " + root + "  board process "), std::string::npos) << listed;
    segments.push_back(platform::shared_memory_key_in(root.c_str(), kCounterSegmentKey));
    // The console makes its counter segment a while after it answers: one is made here if not yet.
    EXPECT_GE(shmget(segments.back(), kCounterSegmentSize, IPC_CREAT | 0600), 0) << k;
  }

  const double stop = platform::monotonic_seconds();
  EXPECT_EQ(capture(kFsusim + " fleet stop --base " + fleet.base), "fsusim: stopped the fleet in " + fleet.base + "\n");
  EXPECT_EQ(fleet.driver->wait_exit(5), 0);
  std::printf("10 units up in %.1f s, all answering after %.1f s, stopped in %.1f s\n", started, answered,
              platform::monotonic_seconds() - stop);
  for (const pid_t pid : processes) EXPECT_NE(kill(pid, 0), 0) << pid;
  for (const key_t key : segments) EXPECT_LT(shmget(key, 0, 0), 0);
  EXPECT_FALSE(box.exists("/tmp/fleet"));
  EXPECT_EQ(capture(kFsusim + " ls"), "no simulated unit is running (fsusim up --root DIR starts one)\n");
}

TEST(Fleet, EachKindOfActionOnOneUnitShowsOnItAndNeverOnItsNeighbour) {
  test::TestSandbox box;
  FleetRun fleet(box, 2, {"env", "FSU_CLOCK_RATE=4", test::benchkit_path(), "web"});
  ASSERT_TRUE(fleet.driver->wait_for("fsusim: 2 units up in ", 30)) << fleet.driver->output();
  // Identities from the number.
  for (const int k : {1, 2}) {
    const std::string status = fleet.unit(k, "status", "| grep -E '^(modem|receiver) '");
    EXPECT_NE(line_of(status, "modem ").find(" imsi=46000123450000" + std::to_string(k) + " imei=86612345000000" +
                                             std::to_string(k) + " "), std::string::npos) << status;
    EXPECT_NE(line_of(status, "receiver ").find(" latitude=31.23" + std::to_string(k) + "400 "), std::string::npos) << status;
  }
  // On unit 2: an input and a contact, a modem fault, the outputs by a web request, and a port's
  // attribute by another, which the SDK logs.
  EXPECT_EQ(fleet.unit(2, "ctl", "'ai 3 2.5' 'di 9 closed' 'modem unplug'"), "");
  EXPECT_EQ(fleet.unit(2, "web", "all-outputs on"), "");
  EXPECT_NE(fleet.unit(2, "web", "com-attr 3 1").find("com3_attr=1"), std::string::npos);
  std::string aidi;
  EXPECT_TRUE(poll_until(10, [&] { return (aidi = fleet.unit(2, "web", "read-aidi")).find("AI 03 电压型(0-5V)In:2.5") != std::string::npos; }));
  EXPECT_NE(aidi.find(";DI9-16: 1 ,"), std::string::npos) << aidi;
  const std::string shown = "| grep -E '^(relay 1|modem) '";
  EXPECT_TRUE(poll_until(10, [&] { return line_of(fleet.unit(2, "status", shown), "relay 1 ").ends_with("state=on"); }));
  EXPECT_NE(line_of(fleet.unit(2, "status", shown), "modem ").find(" state=unplugged "), std::string::npos);
  const auto holds = [&](int k, const std::string& path, const std::string& text) {
    return exit_code("grep -aqF '" + text + "' " + fleet.base + "/unit-" + std::to_string(k) + path) == 0;
  };
  EXPECT_TRUE(holds(2, "/tmp/sdklog.log", "set com3 attr=1"));
  // Nothing of it on unit 1.
  aidi = fleet.unit(1, "web", "read-aidi");
  EXPECT_TRUE(aidi.find("AI 03 电压型(0-5V)In:0.0") != std::string::npos && aidi.find(";DI9-16: 0 ,") != std::string::npos) << aidi;
  const std::string status = fleet.unit(1, "status", shown);
  EXPECT_TRUE(line_of(status, "relay 1 ").ends_with("state=off")) << status;
  EXPECT_NE(line_of(status, "modem ").find(" state=ready "), std::string::npos) << status;
  EXPECT_TRUE(holds(1, "/tmp/sdklog.log", "InitializeSDK") && !holds(1, "/tmp/sdklog.log", "set com3 attr"));
  EXPECT_FALSE(holds(1, "/etc/sdk_com_attr", "com3_attr=1"));
}

}  // namespace
}  // namespace fsu::sim
