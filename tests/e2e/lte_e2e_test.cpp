// The modem half of the SDK on the simulated modem: what benchkit shows of it, and recovery from
// the faults modems have in the field, each timed from the fault's end to service back.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::modem_count;
using sim::poll_until;
using sim::state_line;
using sim::state_shows;

const std::vector<std::string> kQuickModem = {"--ctl", "modem boot-delay 2", "--ctl", "modem dial-delay 2"};

void control(const TestSandbox& box, const std::vector<std::string>& lines) {
  std::vector<std::string> errors;
  EXPECT_TRUE(sim::send_control(box.root(), lines, 10, &errors)) << errors.front();
}

// An application that makes the dial calls on request (examples/dial).
class DialApp {
 public:
  DialApp(const TestSandbox& box, const std::vector<std::string>& options) : app_(argv(box, options), ConsoleDriver::Mode::kPipes) {
    EXPECT_TRUE(app_.wait_for("dial: ready\n", 60)) << app_.output();
  }
  // Sends a request and waits for the answer's `count`-th occurrence of `answer`.
  bool ask(const std::string& request, const std::string& answer, int count, double seconds) {
    app_.send(request + "\n");
    return app_.wait_for_count(answer, count, seconds);
  }
  const std::string& output() const { return app_.output(); }
  int finish() {
    app_.end_input();
    return app_.wait_exit(30);
  }

 private:
  static std::vector<std::string> argv(const TestSandbox& box, const std::vector<std::string>& options) {
    std::vector<std::string> out = {fsusim_path(), "run", "--root", box.root()};
    out.insert(out.end(), options.begin(), options.end());
    out.insert(out.end(), {"--", FSU_TEST_DIAL});
    return out;
  }
  ConsoleDriver app_;
};

void report(const char* fault, double since) {
  std::printf("[ recovery ] %s: service back %.1f s after the fault ended\n", fault, platform::monotonic_seconds() - since);
}

TEST(ModemOnSimulator, BenchkitShowsTheSimThenTheLinkBothTextsAndTheNetLed) {
  TestSandbox box;
  ConsoleDriver console({fsusim_path(), "run", "--root", box.root(), "--", benchkit_path()}, ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  EXPECT_TRUE(poll_until(20, [&] { return box.read("/tmp/Globalp.ini") == "cimi=460001234567890\nimei=866123456789012\ncsq=-61\n"; }))
      << box.read("/tmp/Globalp.ini");
  int prompts = 1;
  console.send("16\n");  // the first call also asks for the link
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", ++prompts, 10));
  EXPECT_NE(console.output().find("SIM 卡状态: 正常\r\nSIM 卡ISMI号: 460001234567890\r\n模块IMEI: 866123456789012\r\n"
                                  "模块信号强度:-61\r\n"),
            std::string::npos)
      << console.output();
  EXPECT_TRUE(state_shows(box, "led net ", "state=dark"));
  EXPECT_TRUE(poll_until(40, [&] {
    console.send("16\n");
    console.wait_for_count("输入测试项: ", ++prompts, 10);
    return console.output().find("模块网络IP:10.64.12.34\r\n") != std::string::npos;
  })) << console.output();
  EXPECT_TRUE(poll_until(5, [&] { return state_line(box, "led net ").find("state=lit") != std::string::npos; }));
  // The simulated receiver's position, once the positioning reader has taken a batch.
  EXPECT_TRUE(poll_until(20, [&] { return box.read("/tmp/sdklog.log").find("GPS:J:121.473701;") != std::string::npos; }));
  console.send("98\n");
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", ++prompts, 10));
  EXPECT_NE(console.output().find(
                "模块静态信息:{\"TelcomCarrier\":\"CARRIER_MOBILE\",\"MFRS\":\"Quectel\", \"ModelName\":\"Quectel\", "
                "\"Model\":\"EC20\", \"Version\":\"0.1\", \"IMEI\":\"866123456789012\", \"IMSI\":\"460001234567890\"}\r\n"
                "模块动态信息:{\"CardStat\":\"1\", \"NetworkType\":\"4\",\"SignalStrength\":\"-61\", \"IP\":\"10.64.12.34\", "
                "\"Longitude\":\"121.473701\", \"Latitude\":\"31.230400\",\"PositionMode\":\"2\"}\r\n"),
            std::string::npos)
      << console.output();
  // Discovery set the data device and registered the modem's id; every tool was the sandbox's.
  const std::string calls = box.calls();
  EXPECT_NE(calls.find("uci set network.ppp0.device=/dev/ttyUSB2\nuci commit\n"), std::string::npos) << calls;
  EXPECT_EQ(box.read("/sys/bus/usb-serial/drivers/option1/new_id"), "0x2c7c 0x0125\n");
  EXPECT_NE(calls.find("killall lte.sh\nnohup lte.sh\nlte.sh\n"), std::string::npos) << calls;
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);
}

TEST(ModemRecovery, PulledAndPluggedBackIsFoundAgainAndRedials) {
  TestSandbox box;
  DialApp app(box, kQuickModem);
  ASSERT_TRUE(app.ask("dial", "dial 0", 1, 5));
  ASSERT_TRUE(app.ask("online 60", "online reached", 1, 65)) << app.output();
  control(box, {"modem unplug"});
  const long lsusb_before = static_cast<long>(box.calls().size());
  ASSERT_TRUE(poll_until(10, [&] { return box.calls().find("lsusb", lsusb_before) != std::string::npos; }));
  control(box, {"modem plug"});
  const double back = platform::monotonic_seconds();
  ASSERT_TRUE(app.ask("offline 20", "offline reached", 1, 25)) << app.output();
  ASSERT_TRUE(app.ask("dial", "dial 0", 2, 5));
  ASSERT_TRUE(app.ask("online 60", "online reached", 2, 65)) << app.output();
  report("modem plugged back", back);
}

TEST(ModemRecovery, APortSilentForAMinuteLeavesNoThreadStuck) {
  TestSandbox box;
  DialApp app(box, kQuickModem);
  ASSERT_TRUE(poll_until(20, [&] { return box.exists("/tmp/Globalp.ini") && !box.read("/tmp/Globalp.ini").empty(); }));
  control(box, {"modem silent on"});
  const long heard = modem_count(box, "commands");
  ASSERT_FALSE(poll_until(60, [&] { return false; }));  // a minute of silence
  EXPECT_EQ(modem_count(box, "commands"), heard) << "a silent modem answers nothing";
  EXPECT_NE(box.read("/tmp/sdklog.log").find("no data At time out"), std::string::npos);
  control(box, {"modem silent off"});
  const double back = platform::monotonic_seconds();
  // Queries resume, and a dial request is served.
  ASSERT_TRUE(poll_until(20, [&] { return modem_count(box, "commands") > heard + 2; }));
  ASSERT_TRUE(app.ask("dial", "dial 0", 1, 5));
  ASSERT_TRUE(app.ask("online 60", "online reached", 1, 65)) << app.output();
  report("AT port silent for a minute", back);
}

TEST(ModemRecovery, ADroppedLinkDarkensTheNetLedUntilADialBringsItBack) {
  TestSandbox box;
  DialApp app(box, kQuickModem);
  ASSERT_TRUE(app.ask("dial", "dial 0", 1, 5));
  ASSERT_TRUE(app.ask("online 60", "online reached", 1, 65)) << app.output();
  EXPECT_TRUE(poll_until(5, [&] { return state_line(box, "led net ").find("state=lit") != std::string::npos; }));
  control(box, {"modem link-drop"});
  const double dropped = platform::monotonic_seconds();
  ASSERT_TRUE(app.ask("offline 10", "offline reached", 1, 15)) << app.output();
  EXPECT_TRUE(poll_until(5, [&] { return state_line(box, "led net ").find("state=dark") != std::string::npos; }));
  ASSERT_TRUE(app.ask("dial", "dial 0", 2, 5));
  ASSERT_TRUE(app.ask("online 60", "online reached", 2, 65)) << app.output();
  EXPECT_TRUE(poll_until(5, [&] { return state_line(box, "led net ").find("state=lit") != std::string::npos; }));
  report("link dropped", dropped);
  ASSERT_TRUE(app.ask("info", "dynamic {", 1, 5)) << app.output();
  EXPECT_NE(app.output().find("static {"), std::string::npos) << app.output();
  EXPECT_EQ(app.finish(), 0);  // the example ends with its input
}

TEST(ModemRecovery, SoftRestartPowerCyclesRowElevenAndRestartsRowTenByCommand) {
  for (const auto& [row_text, counter_text] : {std::pair{"11", "power_cycles"}, {"10", "restarts"}}) {
    const std::string row = row_text, counter = counter_text;
    TestSandbox box;
    std::vector<std::string> options = kQuickModem;
    options.insert(options.end(), {"--ctl", "modem row " + row});
    DialApp app(box, options);
    ASSERT_TRUE(poll_until(20, [&] { return box.exists("/tmp/Globalp.ini") && !box.read("/tmp/Globalp.ini").empty(); }));
    ASSERT_TRUE(app.ask("soft", "soft 0", 1, 5));
    ASSERT_TRUE(poll_until(20, [&] { return modem_count(box, counter) == 1; })) << row << state_line(box, "modem ");
    const double restarted = platform::monotonic_seconds();
    const long heard = modem_count(box, "commands");
    ASSERT_TRUE(poll_until(30, [&] { return modem_count(box, "commands") > heard + 2; })) << row;
    report(row == "11" ? "soft restart of row 11 (power cycle)" : "soft restart of row 10 (AT+CFUN=1,1)",
           restarted);
    EXPECT_EQ(modem_count(box, counter == "restarts" ? "power_cycles" : "restarts"), 0) << row;
  }
}

}  // namespace
}  // namespace fsu::test
