// The modem half of the SDK on the simulated modem: what benchkit shows of it, and recovery from
// the faults modems have in the field, each timed from the fault's end to service back.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "platform/clock.h"
#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::control;
using sim::modem_count;
using sim::poll_until;
using sim::state_line;

// The dial example (examples/dial) on a quick modem, answering requests on its input; more
// control lines as the board comes up, and settings for the example's environment. Its SDK
// runs 4 times faster than real time unless the settings say otherwise, the modem at real time.
std::vector<std::string> dial_app(const TestSandbox& box, const std::vector<std::string>& lines = {},
                                  const std::vector<std::string>& settings = {}) {
  std::vector<std::string> command = {fsusim_path(), "run", "--root", box.root(), "--ctl", "modem boot-delay 2",
                                      "--ctl", "modem dial-delay 2"};
  for (const std::string& line : lines) command.insert(command.end(), {"--ctl", line});
  command.push_back("--");
  command.insert(command.end(), {"env", "FSU_CLOCK_RATE=4"});
  command.insert(command.end(), settings.begin(), settings.end());
  command.push_back(FSU_TEST_DIAL);
  return command;
}

// Sends a request and waits for the `count`-th occurrence of its answer.
bool ask(ConsoleDriver& app, const std::string& request, const std::string& answer, int count, double seconds) {
  app.send(request + "\n");
  return app.wait_for_count(answer, count, seconds);
}

// The `count`-th dial request, and the link up within a minute.
bool dial(ConsoleDriver& app, int count) {
  return ask(app, "dial", "dial 0", count, 5) && ask(app, "online 60", "online reached", count, 65);
}

bool led(const TestSandbox& box, const char* state) {
  return poll_until(5, [&] { return state_line(box, "led net ").find(state) != std::string::npos; });
}

// The example is ready and the modem's identities are saved.
bool ready(ConsoleDriver& app, const TestSandbox& box) {
  return app.wait_for("dial: ready\n", 60) && poll_until(20, [&] { return !box.read("/tmp/Globalp.ini").empty(); });
}

::testing::AssertionResult has(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "no \"" << part << "\" in:\n" << text;
}

void report(const char* fault, double since) {
  std::printf("[ recovery ] %s: service back %.1f s after the fault ended\n", fault, platform::monotonic_seconds() - since);
}

TEST(ModemOnSimulator, BenchkitShowsTheSimThenTheLinkBothTextsAndTheNetLed) {
  TestSandbox box;
  ConsoleDriver console({fsusim_path(), "run", "--root", box.root(), "--", benchkit_path()}, ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  const std::string saved = "cimi=460001234567890\nimei=866123456789012\ncsq=-61\n";
  EXPECT_TRUE(poll_until(20, [&] { return box.read("/tmp/Globalp.ini") == saved; })) << box.read("/tmp/Globalp.ini");
  int prompts = 1;
  console.send("16\n");  // the first call also asks for the link
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", ++prompts, 10));
  EXPECT_TRUE(has(console.output(), "SIM 卡状态: 正常\r\nSIM 卡ISMI号: 460001234567890\r\n模块IMEI: 866123456789012\r\n模块信号强度:-61\r\n"));
  EXPECT_TRUE(led(box, "state=dark"));
  // That one request starts the dial, with no further item.
  EXPECT_TRUE(poll_until(20, [&] { return has(box.calls(), "nohup lte.sh\n"); }));
  EXPECT_TRUE(poll_until(40, [&] {
    console.send("16\n");
    console.wait_for_count("输入测试项: ", ++prompts, 10);
    return console.output().find("模块网络IP:10.64.12.34\r\n") != std::string::npos;
  })) << console.output();
  EXPECT_TRUE(led(box, "state=lit"));
  // The simulated receiver's position, once the positioning reader has taken a batch.
  EXPECT_TRUE(poll_until(20, [&] { return box.read("/tmp/sdklog.log").find("GPS:J:121.473701;") != std::string::npos; }));
  console.send("98\n");
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", ++prompts, 10));
  EXPECT_TRUE(has(console.output(),
                  "模块静态信息:{\"TelcomCarrier\":\"CARRIER_MOBILE\",\"MFRS\":\"Quectel\", \"ModelName\":\"Quectel\", "
                  "\"Model\":\"EC20\", \"Version\":\"0.1\", \"IMEI\":\"866123456789012\", \"IMSI\":\"460001234567890\"}\r\n"
                  "模块动态信息:{\"CardStat\":\"1\", \"NetworkType\":\"4\",\"SignalStrength\":\"-61\", \"IP\":\"10.64.12.34\", "
                  "\"Longitude\":\"121.473701\", \"Latitude\":\"31.230400\",\"PositionMode\":\"2\"}\r\n"));
  // Pulled while online: offline, the net LED dark and no address shown within 3 s.
  control(box, {"modem unplug"});
  const double since = platform::monotonic_seconds();
  EXPECT_TRUE(led(box, "state=dark"));
  console.send("16\n");
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", ++prompts, 10));
  EXPECT_TRUE(has(console.output().substr(console.output().rfind("SIM 卡状态")), "模块网络IP:\r\n"));
  EXPECT_LT(platform::monotonic_seconds() - since, 3.0);
  // Discovery set the data device and registered the modem's id; every tool was the sandbox's.
  const std::string calls = box.calls();
  EXPECT_TRUE(has(calls, "uci set network.ppp0.device=/dev/ttyUSB2\nuci commit\n"));
  EXPECT_EQ(box.read("/sys/bus/usb-serial/drivers/option1/new_id"), "0x2c7c 0x0125\n");
  EXPECT_TRUE(has(calls, "killall lte.sh\nnohup lte.sh\nlte.sh\n"));
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);
}

// The supervisor's passes and timeouts run 4 times faster: these faults test that service comes
// back; how soon a pulled modem is offline in real time, benchkit's test above.
TEST(ModemRecovery, ASilentPortADroppedLinkAndAModemPulledWhileOnlineAndPluggedBack) {
  TestSandbox box;
  ConsoleDriver app(dial_app(box), ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(ready(app, box)) << app.output();
  control(box, {"modem silent on"});
  const long heard = modem_count(box, "commands");
  const std::size_t calls_before = box.calls().size();
  // The supervisor is not held by the silent port: its passes go on looking for the modem.
  EXPECT_TRUE(poll_until(30, [&] {
    const std::string calls = box.calls();
    const std::size_t first = calls.find("lsusb", calls_before);
    return first != std::string::npos && calls.find("lsusb", first + 1) != std::string::npos;
  }));
  EXPECT_EQ(modem_count(box, "commands"), heard) << "a silent modem answers nothing";
  control(box, {"modem silent off"});
  double since = platform::monotonic_seconds();
  // Queries resume, and a dial request is served: no thread was left stuck.
  ASSERT_TRUE(poll_until(20, [&] { return modem_count(box, "commands") > heard + 2; }));
  ASSERT_TRUE(dial(app, 1)) << app.output();
  report("AT port silent", since);
  EXPECT_TRUE(led(box, "state=lit"));
  control(box, {"modem link-drop"});
  since = platform::monotonic_seconds();
  ASSERT_TRUE(ask(app, "offline 10", "offline reached", 1, 15)) << app.output();
  EXPECT_TRUE(led(box, "state=dark"));  // the net LED follows the link
  ASSERT_TRUE(dial(app, 2)) << app.output();
  EXPECT_TRUE(led(box, "state=lit"));
  report("link dropped", since);

  // Pulled while online: offline, the net LED dark and no address in the report within 3 s.
  control(box, {"modem unplug"});
  since = platform::monotonic_seconds();
  ASSERT_TRUE(ask(app, "offline 3", "offline reached", 2, 4)) << app.output();
  EXPECT_TRUE(poll_until(3 - (platform::monotonic_seconds() - since),
                         [&] { return state_line(box, "led net ").find("state=dark") != std::string::npos; }));
  ASSERT_TRUE(ask(app, "info", "dynamic {", 1, 5)) << app.output();
  EXPECT_TRUE(has(app.output(), "\"IP\":\"\", "));
  EXPECT_LT(platform::monotonic_seconds() - since, 3.0);
  control(box, {"modem plug"});
  since = platform::monotonic_seconds();
  ASSERT_TRUE(dial(app, 3)) << app.output();
  report("modem plugged back", since);
  ASSERT_TRUE(ask(app, "info", "dynamic {", 2, 5)) << app.output();
  EXPECT_TRUE(has(app.output(), "static {"));
  app.end_input();
  EXPECT_EQ(app.wait_exit(30), 0);  // the example ends with its input
}

TEST(ModemRecovery, SoftRestartPowerCyclesRowElevenAndRestartsRowTenByCommandBothOffUsbAndBackWithBootLines) {
  for (const auto& rows : {std::tuple{"11", "power_cycles", "restarts"}, {"10", "restarts", "power_cycles"}}) {
    const auto [row, counter_binding, other] = rows;
    const std::string counter = counter_binding;  // a lambda below captures it
    TestSandbox box;
    ConsoleDriver app(dial_app(box, {std::string("modem row ") + row}), ConsoleDriver::Mode::kPipes);
    ASSERT_TRUE(ready(app, box)) << app.output();
    const long said = modem_count(box, "urcs");
    ASSERT_TRUE(ask(app, "soft", "soft 0", 1, 5));
    // Off USB while it restarts: the listing lacks it.
    EXPECT_TRUE(poll_until(20, [&] { return box.read("/sim/usb").find("LTE modem") == std::string::npos; })) << row;
    ASSERT_TRUE(poll_until(20, [&] { return modem_count(box, counter) == 1; })) << row << state_line(box, "modem ");
    const double restarted = platform::monotonic_seconds();
    ASSERT_TRUE(poll_until(20, [&] { return box.read("/sim/usb").find("LTE modem") != std::string::npos; })) << row;
    control(box, {"modem signal 31"});
    // Its six boot lines come while the SDK queries it; they are read past, and the queries succeed.
    EXPECT_TRUE(poll_until(5, [&] { return modem_count(box, "urcs") == said + 6; })) << row << state_line(box, "modem ");
    EXPECT_TRUE(poll_until(20, [&] {
      return box.read("/tmp/Globalp.ini") == "cimi=460001234567890\nimei=866123456789012\ncsq=-54\n";
    })) << row << box.read("/tmp/Globalp.ini");
    report(row == std::string("11") ? "soft restart of row 11 (power cycle)" : "soft restart of row 10 (AT+CFUN=1,1)", restarted);
    EXPECT_EQ(modem_count(box, other), 0) << row;
  }
}

TEST(ModemOnSimulator, RowElevenOnlineAMinuteHearsNoCommandOnItsDataPortAndASimSwappedBetweenStartsIsSeen) {
  TestSandbox box;
  {
    // The SDK's clock at five times the pace: its minute online takes 12 s.
    ConsoleDriver app(dial_app(box, {"modem row 11"}, {"FSU_CLOCK_RATE=5"}), ConsoleDriver::Mode::kPipes);
    ASSERT_TRUE(ready(app, box)) << app.output();
    ASSERT_TRUE(dial(app, 1)) << app.output();
    const std::size_t from = box.calls().size();
    const auto listings = [&] {  // a USB listing every other pass, a pass a second on the SDK's clock
      app.wait_for("\x01", 0.01);  // the example's output read on, so that its printing never blocks
      int n = 0;
      for (std::size_t at = box.calls().find("lsusb", from); at != std::string::npos; at = box.calls().find("lsusb", at + 1)) ++n;
      return n;
    };
    EXPECT_TRUE(poll_until(40, [&] { return listings() >= 30; }));
    EXPECT_NE(state_line(box, "link ppp0 ").find("state=up address=10.64.12.34 dials=1 at_on_link=0"), std::string::npos)
        << state_line(box, "link ppp0 ");
    EXPECT_TRUE(ask(app, "online 1", "online reached", 2, 5)) << app.output();
    app.end_input();
    EXPECT_EQ(app.wait_exit(30), 0);
  }
  // The board started again in the same root with another SIM in the modem.
  ConsoleDriver app(dial_app(box, {"modem row 11", "modem imsi 460017777777777"}, {"FSU_CLOCK_RATE=5"}), ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(app.wait_for("dial: ready\n", 60)) << app.output();
  EXPECT_TRUE(poll_until(20, [&] { return box.read("/tmp/Globalp.ini").starts_with("cimi=460017777777777\n"); }))
      << box.read("/tmp/Globalp.ini");
  ASSERT_TRUE(ask(app, "info", "static {", 1, 5)) << app.output();
  EXPECT_TRUE(has(app.output(), "\"IMSI\":\"460017777777777\"}"));
  app.end_input();
  EXPECT_EQ(app.wait_exit(30), 0);
}

}  // namespace
}  // namespace fsu::test
