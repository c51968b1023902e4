// Applications and benchkit on the simulated board's extension and environment boards: inputs reach
// the application, relays follow it and the console, LEDs follow the links; the watchdog left unfed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "platform/clock.h"
#include "tests/common/console_driver.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::control;
using sim::gpio;
using sim::poll_until;
using sim::state_shows;

// The times at which a GPIO line changed its level while it was watched for `seconds`.
std::vector<double> changes(const TestSandbox& box, int line, double seconds) {
  std::vector<double> at;
  char last = '?';
  const double start = platform::monotonic_seconds();
  poll_until(seconds, [&] {
    const char now = gpio(box, line);
    if (now == '?') return false;
    if (last != '?' && now != last) at.push_back(platform::monotonic_seconds() - start);
    last = now;
    return false;
  });
  return at;
}

// An application on the board that reads points on request (examples/inputs_relays).
struct PointsApp {
  explicit PointsApp(const TestSandbox& box)
      : console({fsusim_path(), "run", "--root", box.root(), "--", FSU_TEST_INPUTS_RELAYS}, ConsoleDriver::Mode::kPipes),
        ready(console.wait_for("inputs_relays: ready\n", 60)) {}
  // Asks for a point ("ai 3") until `accept` takes the answer's value or `seconds` pass; the last value given.
  double ask_until(const std::string& point, double seconds, const auto& accept) {
    double value = -1;
    poll_until(seconds, [&] {
      console.send(point + "\n");
      const std::string prefix = point + " = ";
      if (!console.wait_for_count(prefix, ++asked[point], 2)) return false;
      value = std::strtod(console.output().c_str() + console.output().rfind(prefix) + prefix.size(), nullptr);
      return accept(value);
    });
    return value;
  }
  ConsoleDriver console;
  const bool ready;
  std::map<std::string, int> asked;
};

bool snapped_to_2_5(double volts) { return volts >= 2.5 && volts <= 2.5 + 9e-6 + 1e-7; }

TEST(BoardsOnSimulator, AnApplicationReadsInputsSwitchesRelaysAndTakesTheLedsWhileTheBoardsComeAndGo) {
  TestSandbox box;
  PointsApp app(box);
  ASSERT_TRUE(app.ready) << app.console.output();
  EXPECT_NE(app.console.output().find("\"Local/Uart/12\",\"Local/AI/1\""), std::string::npos);
  const std::vector<double> blinks = changes(box, 1, 3.6);  // the run LED, by the SDK's LED thread
  ASSERT_GE(blinks.size(), 3u);
  for (std::size_t i = 1; i < blinks.size(); ++i) EXPECT_NEAR(blinks[i] - blinks[i - 1], 1.0, 0.3) << i;
  EXPECT_EQ(gpio(box, 4), '0');  // the board LED: answers come in

  control(box, {"ai 3 2.5", "di 5 closed"});
  EXPECT_TRUE(snapped_to_2_5(app.ask_until("ai 3", 5, snapped_to_2_5)));
  EXPECT_EQ(app.ask_until("di 5", 5, [](double state) { return state == 1; }), 1);
  EXPECT_EQ(app.ask_until("di 6", 1, [](double) { return true; }), 0);
  app.console.send("do 1 1\ndo 5 1\nai 17\ndo 9 1\n");
  for (const char* relay : {"relay 1 ", "relay 5 "})
    EXPECT_TRUE(poll_until(5, [&] { return sim::state_line(box, relay).find("state=on") != std::string::npos; })) << relay;
  EXPECT_TRUE(app.console.wait_for("ai 17: no such input on this unit\ndo 9: no such output\n", 5));

  control(box, {"board 1 silent", "ai 3 1", "di 5 open"});  // the readings stay, the LED goes dark
  EXPECT_TRUE(poll_until(3, [&] { return gpio(box, 4) == '1'; }));
  EXPECT_TRUE(changes(box, 4, 2.5).empty());
  EXPECT_TRUE(snapped_to_2_5(app.ask_until("ai 3", 0.1, [](double) { return true; })));
  EXPECT_EQ(app.ask_until("di 5", 0.1, [](double) { return true; }), 1);
  control(box, {"board 1 on"});
  EXPECT_TRUE(poll_until(3, [&] { return gpio(box, 4) == '0'; }));
  EXPECT_NEAR(app.ask_until("ai 3", 5, [](double volts) { return volts < 2; }), 1.0, 1e-5);
  control(box, {"env noise", "ai 3 4"});  // every answer hit by noise on the line: dropped, the readings stay
  EXPECT_TRUE(poll_until(6, [&] { return sim::state_line(box, "env ").find("garbled=3") != std::string::npos; }));
  EXPECT_NEAR(app.ask_until("ai 3", 1, [](double volts) { return volts > 2; }), 1.0, 1e-5);
  control(box, {"env on"});
  EXPECT_NEAR(app.ask_until("ai 3", 5, [](double volts) { return volts > 2; }), 4.0, 1e-5);

  app.console.send("led 2 1\n");
  ASSERT_TRUE(app.console.wait_for("led 2 = 1", 5));
  EXPECT_LE(changes(box, 1, 3).size(), 1u);  // a pass already under way may still toggle it once

  ConsoleDriver second({FSU_TEST_INPUTS_RELAYS}, ConsoleDriver::Mode::kPipes,
                       {"FSU_ROOT=" + box.root(), "PATH=" + box.root() + "/bin:/usr/bin:/bin"});
  EXPECT_TRUE(second.wait_for("SDK: UART 1 is held by process ", 30)) << second.output();
  second.end_input();
  EXPECT_EQ(second.wait_exit(30), 0);
  EXPECT_EQ(second.output().find("is held", second.output().find("is held") + 1), std::string::npos);
  EXPECT_EQ(second.output().find("ErrNo:0x01020004"), std::string::npos);  // the ports it left alone are not errors
}

TEST(BenchkitOnSimulator, HiddenItemsSwitchTheRelaysOfTheEnvironmentBoardAndBoardTwo) {
  TestSandbox box;
  ConsoleDriver console({fsusim_path(), "run", "--root", box.root(), "--", "env", "FSU_CLOCK_RATE=2", benchkit_path()},
                        ConsoleDriver::Mode::kPipes);  // its start-up's waits take half the time
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  for (const auto& [item, relay, state] : {std::tuple{"111", "relay 1 ", "state=on"}, {"110", "relay 1 ", "state=off"},
                                           {"151", "relay 5 ", "state=on"}, {"150", "relay 5 ", "state=off"}}) {
    console.send(std::string(item) + "\n");
    EXPECT_TRUE(state_shows(box, relay, state)) << item;  // within 2 s
  }
}

TEST(Examples, WatchdogLeftUnfedRebootsTheUnit) {
  TestSandbox box;  // the SDK's clock runs ten times as fast: the 61 s after the last feed take 6.1 s
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", "env", "FSU_CLOCK_RATE=10", FSU_TEST_WATCHDOG, "1000", "1"},
                    ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(app.wait_for("watchdog: no more feeding", 60)) << app.output();
  const double unfed = platform::monotonic_seconds();
  EXPECT_EQ(box.calls().find("reboot"), std::string::npos);
  // The unit shows the watchdog counting down (interval 1 s and the minute of grace).
  EXPECT_TRUE(poll_until(5, [&] { return sim::state_line(box, "watchdog ").starts_with("watchdog armed=yes interval=1 left="); }))
      << sim::state_line(box, "watchdog ");
  EXPECT_TRUE(poll_until(30, [&] { return box.calls().find("\nreboot\n") != std::string::npos; })) << box.calls();
  EXPECT_TRUE(state_shows(box, "watchdog ", " reboots=1"));
  EXPECT_GT(platform::monotonic_seconds() - unfed, 5.5);  // not before it is due
  EXPECT_NE(box.read("/tmp/sdklog.log").find("soft dog start,ready reboot=1"), std::string::npos);
}

}  // namespace
}  // namespace fsu::test
