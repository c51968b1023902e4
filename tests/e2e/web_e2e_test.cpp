#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "sim/web_pages.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::poll_until;

const std::string kNoBoard =
    "环境板通信异常,请打开设备查看主板与环境板之间排线是否连接正常;\r\n如有连接线,可重新插拔下或按压下;\r\n"
    ";0:开路/断开 信号---- 1:短路/闭合 信号;";

std::vector<std::string> fsusim(const TestSandbox& box, const std::string& command, std::vector<std::string> args) {
  args.insert(args.begin(), {fsusim_path(), command, "--root", box.root()});
  return args;
}

ConsoleDriver benchkit(const TestSandbox& box, std::vector<std::string> options, const char* mode = nullptr,
                       const std::vector<std::string>& settings = {}) {
  options.push_back("--");
  if (!settings.empty()) options.push_back("env");
  options.insert(options.end(), settings.begin(), settings.end());
  options.push_back(benchkit_path());
  if (mode != nullptr) options.push_back(mode);
  return ConsoleDriver(fsusim(box, "run", options), ConsoleDriver::Mode::kPipes);
}

// What `fsusim web ARGS` prints, or "failed" when it does not answer.
std::string page(const TestSandbox& box, const std::vector<std::string>& args) {
  ConsoleDriver web(fsusim(box, "web", args), ConsoleDriver::Mode::kPipes);
  return web.wait_exit(30) == 0 ? web.output() : "failed: " + web.output();
}

TEST(WebPagesOnSimulator, RequestsAnsweredAndItemsOnAUnitWithoutBoards) {
  TestSandbox box;
  ConsoleDriver console = benchkit(box, {"--without-boards", "--terminal", "2", "--ctl", "modem unplug"}, nullptr,
                                   {"FSU_CLOCK_RATE=4"});  // its one-second steps take a quarter
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  const std::vector<std::pair<std::vector<std::string>, std::string>> asked = {
      {{"read-aidi"}, kNoBoard},
      {{"uart", "1", "9600", "8", "1", "0", "7E3130"}, "7E 31 30 "},  // waits 1 s for the reply
      {{"com-attr", "4", "1"}, "com_num=4\r\ncom1_attr=0\r\ncom2_attr=0\r\ncom3_attr=0\r\ncom4_attr=1\r\n"}};
  for (const auto& [args, answer] : asked) {
    const double start = platform::monotonic_seconds();
    EXPECT_EQ(page(box, args), answer);
    EXPECT_LT(platform::monotonic_seconds() - start, args[0] == "uart" ? 4.0 : 3.0) << args[0];  // with fsusim's start
  }
  std::string db;  // the receiver's signal report once a group of its sentences is complete, then the SIM report
  EXPECT_TRUE(poll_until(10, [&] {
    return (db = page(box, {"read-gps-db"})).starts_with("GPS,卫星标识=") && db.ends_with(";;SIM网络检测中...");
  })) << db;
  console.send("11\n14\n1\n13\n1\n13\n4\n");
  ASSERT_TRUE(console.wait_for("串口4 返回数据(20):0123456789ABCDEFGHIJ\r\n", 15)) << console.output();
  for (const std::string& printed : {"AIDI 数据信息:" + kNoBoard, std::string("串口1 返回数据(20):~10012D92E002FFFCFA\r\r\n")})
    EXPECT_NE(console.output().find(printed), std::string::npos) << printed;
  EXPECT_NE(box.read("/tmp/comlog.log").find("]\r\nTX:7E 31 30 30 31 32 44 39 32 45 30 30 32 46 46 46 43 46 41 0D \r\nRX:7E"), std::string::npos);
  console.send("3\n");  // the echo test on a person's terminal at port 2
  ASSERT_TRUE(console.wait_for("COM——MAX=4", 10));
  const int person = sim::open_port(sim::terminal_of(box, "uart 2 "), B9600);
  sim::put(person, "hello");
  EXPECT_EQ(sim::take(person, 5, 5), "hello");
  EXPECT_TRUE(console.wait_for("收到串口2的数据,数据长度：", 5));  // in one piece or more, as the reader took it
}

TEST(WebPagesOnSimulator, OutputsOneByOneThenTheFactoryLoopbackOnTheBoards) {
  TestSandbox box;
  ConsoleDriver console = benchkit(box, {}, nullptr, {"FSU_CLOCK_RATE=2"});
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  console.send("5\n");
  EXPECT_TRUE(poll_until(10, [&] { return sim::state_line(box, "relay 4 ").ends_with("state=on"); }));
  EXPECT_TRUE(sim::state_line(box, "relay 1 ").ends_with("state=on"));
  EXPECT_TRUE(poll_until(10, [&] { return sim::state_line(box, "relay 4 ").ends_with("state=off"); }));
  EXPECT_TRUE(console.wait_for("set DO 1(Local/DO/1) 1\r\n", 1) && console.wait_for("set DO 4 0\r\n", 5));
  console.send("15\n");  // every port of the unit ends in a loopback plug
  ASSERT_TRUE(console.wait_for("串口12 发送/接收计数 :  20/20\r\n", 20)) << console.output();
  EXPECT_EQ(console.output().find("收到数据异常"), std::string::npos) << console.output();
}

TEST(WebPagesOnSimulator, InputReadingsOfTheBoardsEachSecond) {
  TestSandbox box;
  ConsoleDriver console = benchkit(box, {}, nullptr, {"FSU_CLOCK_RATE=2"});
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  ConsoleDriver(fsusim(box, "ctl", {"ai 3 2.5", "di 1 closed", "di 9 closed"}), ConsoleDriver::Mode::kPipes).wait_exit(10);
  std::string aidi;
  EXPECT_TRUE(poll_until(10, [&] { return (aidi = page(box, {"read-aidi"})).find("AI 03 电压型(0-5V)In:2.5") != std::string::npos; }));
  EXPECT_TRUE(aidi.starts_with("AI 01 电压型(0-5V)In:0.0") && aidi.find("AI 16 ") != std::string::npos &&
              aidi.find(";0:开路/断开 信号---- 1:短路/闭合 信号;\r\nDI1-08: 1 , 0 , 0 , 0 , 0 , 0 , 0 , 0 ,;DI9-16: 1 ,") != std::string::npos &&
              aidi.ends_with(";DI9-16: 1 , 0 , 0 , 0 , 0 , 0 , 0 , 0 ,")) << aidi;
  console.send("6\n");
  EXPECT_TRUE(console.wait_for("AI 03 电压型 采样值：2.50000", 10)) << console.output();
  EXPECT_TRUE(console.wait_for("DI(0-8) :1;0;0;0;0;0;0;0;\r\nDI(9-16):1;0;0;0;0;0;0;0;\r\n", 5)) << console.output();
}

TEST(WebPagesOnSimulator, WebModeCountsSwitchesOutputsPublishesTheModemAndDialsAgainWhenItIsBack) {
  TestSandbox box;
  // The modem is plugged in later; benchkit's clock runs five times as fast, so its minute to a
  // second dial takes 12 s.
  ConsoleDriver web = benchkit(box, {"--ctl", "modem unplug", "--ctl", "modem boot-delay 0.5", "--ctl", "modem dial-delay 0"},
                               "web", {"FSU_CLOCK_RATE=5"});
  ASSERT_TRUE(web.wait_for("按CTRL+C退出软件", 40)) << web.output();
  EXPECT_NE(web.output().find("流水灯闪烁模式\r\n/*****"), std::string::npos);
  EXPECT_EQ(web.output().find("输入测试项"), std::string::npos);  // the single argument "web": no menu
  const double started = platform::monotonic_seconds();
  const auto above = [](const sim::PortCounters& a, const sim::PortCounters& b) {
    return std::ranges::all_of(std::vector{0, 1, 2, 3}, [&](int i) { return a.sent[i] > b.sent[i] && a.received[i] > b.received[i]; });
  };
  sim::PortCounters earlier{}, now{};
  std::string error;
  for (int round = 0; round < 2; ++round, earlier = now)
    EXPECT_TRUE(poll_until(10, [&] { return sim::read_counters(box.root(), &now, &error) && above(now, earlier); })) << error;
  EXPECT_TRUE(page(box, {"counters"}).ends_with("port 16 sent=0 received=0\n"));
  for (const std::string state : {"on", "off"}) {
    EXPECT_EQ(page(box, {"all-outputs", state}), "");
    for (const std::string line : {"relay 1 ", "relay 4 ", "12v 1 ", "12v 2 "})
      EXPECT_TRUE(poll_until(5, [&] { return sim::state_line(box, line).ends_with("state=" + state); })) << line;
  }
  EXPECT_TRUE(poll_until(5, [&] { return box.read("/sys/class/gpio/gpio18/value")[0] == '0'; }));  // chase: alarm lit
  std::remove(box.path("/tmp/NetModuleInfo").c_str());  // rewritten each second
  EXPECT_TRUE(poll_until(3, [&] { return box.read("/tmp/NetModuleInfo").starts_with("SIM 卡状态: 识别中;"); }));
  // Plugged in, the watchdog's dial after a minute offline brings the link up. Pulled while
  // online, the report loses the address within 3 s; plugged back, the link is up again within
  // 90 s on benchkit's clock (the minute and the dial), with no call from anyone but the
  // watchdog. The tools the passes run (lsusb, ifconfig, the dial script) take real time that
  // the faster clock does not shorten, on a loaded machine up to 1 s of its time a pass: 3 s of
  // real time are allowed for them.
  // The loopback test's output is checked up to here: at five times the pace its 1 s wait for
  // the echo is 0.2 s of real time, which a loaded machine does not always keep.
  const std::size_t looped = web.output().size();
  const auto ip = [&](const std::string& address) {
    web.wait_for("\x01", 0.01);  // benchkit's output read on, so that its printing never blocks
    return box.read("/tmp/NetModuleInfo").ends_with("模块网络IP:" + address + ";");
  };
  for (const char* change : {"modem plug", "modem unplug", "modem plug"}) {
    std::vector<std::string> errors;
    ASSERT_TRUE(sim::send_control(box.root(), std::vector<std::string>{change}, 10, &errors)) << change;
    const double since = platform::monotonic_seconds();
    const bool plugged = change == std::string("modem plug");
    EXPECT_TRUE(poll_until(plugged ? 90.0 / 5 + 3 : 3, [&] { return ip(plugged ? "10.64.12.34" : ""); }))
        << change << " " << box.read("/tmp/NetModuleInfo");
    std::printf("[ web mode ] %s: %s %.1f s later\n", change, plugged ? "online" : "no address", platform::monotonic_seconds() - since);
  }
  EXPECT_NE(sim::state_line(box, "link ppp0 ").find("state=up"), std::string::npos);
  EXPECT_GT(platform::monotonic_seconds() - started, 57.0 / 5);
  EXPECT_EQ(web.output().substr(0, looped).find("收到数据异常"), std::string::npos) << web.output();
}

}  // namespace
}  // namespace fsu::test
