// benchkit on the simulated board, driven like a person at the console.
#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tuple>
#include <unistd.h>

#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::count;

const std::string kRule = "-----------------------------------------\n";
const std::string kMenu =
    kRule +
    "\t1.RTC硬件时钟获取\n\t2.资源获取\n\t3.串口回环(9600,n,8,1)\n\t4.设备PPP0拨号\n\t5.DO控制测试\n"
    "\t6.AIDI采集信息\n\t7.第一路12V断电\n\t8.第一路12V上电\n\t9.第二路12V断电\n\t10.第二路12V上电\n"
    "\t11.获取一次AIDI数据\n\t12.获取GPS信息\n\t13.固定发送串口1测试指令\n"
    "\t14.监听串口信息到/tmp/comlog.log\n"
    "\t15.串口出厂回环检测(9600,8,1,0)奇/偶数串口循环发送10字节数据,收到回环数据异常会打印，同步网页串口统计\n"
    "\t16.获取无线模组信息(PPP0 IP, CIMI IMEI 信号强度等)\n\t17.打开SDK日志\n\t18.关闭SDK日志\n"
    "\t21.GPS+北斗定位\n\t22.GPS 定位\n\t23.北斗 定位\n\t98.获取模块静态动态信息\n\t99.设置GPS类型\n" +
    kRule + "输入测试项: ";

// benchkit on the simulated board; on a unit without boards its clock runs four times as fast
// (the items' one-second steps, its start-up), as nothing there answers on the board's time.
std::vector<std::string> benchkit_on(const TestSandbox& box, const std::vector<std::string>& args, bool boards = true) {
  std::vector<std::string> argv = {fsusim_path(), "run", "--root", box.root(), "--", benchkit_path()};
  if (!boards)
    argv = {fsusim_path(), "run", "--root", box.root(), "--without-boards", "--", "env", "FSU_CLOCK_RATE=4", benchkit_path()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

TEST(BenchkitOnSimulator, StartsTheSdkPrintsTheMenuAndEndsWithItsInput) {
  TestSandbox box;
  ConsoleDriver console(benchkit_on(box, {"WEB"}), ConsoleDriver::Mode::kPipes);  // only "web" is web mode (web_e2e_test)
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  const std::string& out = console.output();
  EXPECT_EQ(out.substr(out.find(kRule)), kMenu);
  // Both extension boards and the environment board answered within the start-up's 2 s.
  EXPECT_LT(out.find("COM=12;AI=16;DI=16,AO=0,DO=4"), out.find(kRule)) << out;

  console.send("2\n");
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", 2, 10)) << console.output();
  EXPECT_NE(console.output().find(kMenu + "COM=12;AI=16;DI=16,AO=0,DO=4串口数量:12\r\nAI数量:16\r\nDI数量:16\r\n"
                                          "DO数量:4\r\n" + kMenu), std::string::npos) << console.output();

  console.send("0\n19\n12abc\n\n");  // no items but 12 (a decimal prefix): the menu comes back each time
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", 6, 10));
  EXPECT_NE(console.output().find("\r\n\r\nGPSINFO:\r\n"), std::string::npos);
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);

  const std::string stops =
      "killall /product/app/bin/fieldsvc\nkillall fieldsvc\nkillall fieldsvc_tf_listen\n"
      "killall kvwatch\nkillall kvserve\n";
  EXPECT_EQ(box.calls().substr(0, stops.size()), stops);
  EXPECT_EQ(box.read("/tmp/sdkversion").rfind("Version:Sdk-SE1.0.9-", 0), 0u);
  const std::string log = box.read("/tmp/sdklog.log");
  EXPECT_NE(log.find("sdk_SYS   Line=0000000001]:InitializeSDK"), std::string::npos) << log;
  EXPECT_NE(log.find("]:COM=12;AI=16;DI=16,AO=0,DO=4"), std::string::npos) << log;
}

TEST(BenchkitOnSimulator, APersonAtTheTerminalSwitchesTheLogAndTheTwelveVoltLines) {
  TestSandbox box;
  // A unit without extension boards: the least resources. Two arguments give the menu.
  ConsoleDriver console(benchkit_on(box, {"web", "x"}, false), ConsoleDriver::Mode::kTerminal);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
  const auto items = [&](const char* keys, int prompts, double seconds = 10) {
    console.send(keys);
    return console.wait_for_count("输入测试项: ", prompts, seconds);
  };
  ASSERT_TRUE(items("8\r", 2) && console.output().find("主板第一路12V上电") != std::string::npos);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio8/value"), "1\n");
  ASSERT_TRUE(items("9\r", 3));
  EXPECT_EQ(box.read("/sys/class/gpio/gpio5/value"), "0\n");
  ASSERT_TRUE(items("18\r", 4));  // log off: item 2 leaves no record
  const std::size_t before = box.read("/tmp/sdklog.log").size();
  ASSERT_TRUE(items("2\r", 5));
  EXPECT_EQ(box.read("/tmp/sdklog.log").size(), before);
  ASSERT_TRUE(items("17\r2\r", 7));
  EXPECT_GT(box.read("/tmp/sdklog.log").size(), before);
  EXPECT_NE(console.output().find("COM=4;AI=0;DI=0,AO=0,DO=0串口数量:4"), std::string::npos) << console.output();
  ASSERT_TRUE(items("7\r10\r", 9));
  EXPECT_EQ(box.read("/sys/class/gpio/gpio8/value") + box.read("/sys/class/gpio/gpio5/value"), "0\n1\n");

  // Item 1: the clock written to the RTC, then read back five times a second apart.
  const int reads = count(box.calls(), "hwclock -r\n");
  ASSERT_TRUE(items("1\r", 10, 20));
  EXPECT_EQ(count(box.calls(), "hwclock -r\n"), reads + 5);
  EXPECT_EQ(count(console.output(), "指令执行结果:"), 6) << console.output();
  // Item 4 reports the link once a second for a quarter of an hour, and the modem's texts while it
  // is up: CTRL+C leaves it and the console.
  console.send("4\r");
  ASSERT_TRUE(console.wait_for("PPP0拨号成功", 40)) << console.output();
  ASSERT_TRUE(console.wait_for("模块动态信息:{\"CardStat\":\"1\"", 5) &&
              console.output().find("模块静态信息:{\"TelcomCarrier\":\"CARRIER_MOBILE\"") != std::string::npos) << console.output();
  console.send("\x03");
  EXPECT_EQ(console.wait_exit(10), 128 + SIGINT);
}

// The console speaks only for itself: the device tools' complaints go to the SDK log, FSU_QUIET=1
// sends the library's own prints there too, and a unit that is not running is one line.
// Polls `done` for at most 40 s (a busy machine); a few seconds on an idle one.
bool eventually(const auto& done) {
  for (int i = 0; i < 400 && !done(); ++i) usleep(100000);
  return done();
}

TEST(BenchkitOnSimulator, KeepsTheToolsOutOfTheConsoleIsQuietOnRequestAndSaysInOneLineThatTheUnitIsDown) {
  TestSandbox box;
  const auto benchkit_with = [&](const std::string& environment) {
    return std::vector<std::string>{fsusim_path(), "run", "--root", box.root(), "--ctl", "modem registered no", "--",
                                    "sh", "-c", environment + " exec " + benchkit_path() + " 2>>" + box.path("/stderr")};
  };
  {
    // A minute of the unit's time (ten times faster) with the modem offline: ifconfig ppp0
    // fails every 2 s and the receiver's files are removed, all of it into the log.
    ConsoleDriver console(benchkit_with("FSU_CLOCK_RATE=10"), ConsoleDriver::Mode::kPipes);
    ASSERT_TRUE(console.wait_for("输入测试项: ", 30)) << console.output();
    const auto start = std::chrono::steady_clock::now();  // 6 s here are 60 s of the unit's clock
    ASSERT_TRUE(eventually([&] {
      return std::chrono::steady_clock::now() - start > std::chrono::seconds(6) && count(box.calls(), "ifconfig ppp0\n") >= 10;
    })) << box.calls();
    EXPECT_EQ(box.read("/stderr"), "");
    const std::string log = box.read("/tmp/sdklog.log");
    EXPECT_NE(log.find("]:tool said: ifconfig: ppp0: error fetching interface information: Device not found"),
              std::string::npos) << log;
    // Repeats held back, counted, once a minute.
    EXPECT_LE(5 * count(log, "tool said: ifconfig: ppp0"), count(box.calls(), "ifconfig ppp0\n")) << log;
  }
  {
    ConsoleDriver quiet(benchkit_with("FSU_QUIET=1"), ConsoleDriver::Mode::kPipes);
    ASSERT_TRUE(quiet.wait_for("输入测试项: ", 30)) << quiet.output();
    quiet.send("2\n");
    ASSERT_TRUE(quiet.wait_for_count("输入测试项: ", 2, 10)) << quiet.output();
    EXPECT_EQ(quiet.output(), kMenu + "串口数量:12\r\nAI数量:16\r\nDI数量:16\r\nDO数量:4\r\n" + kMenu);
    const std::string log = box.read("/tmp/sdklog.log");
    EXPECT_NE(log.find("sdk_OTHER Line=0000000"), std::string::npos);
    EXPECT_NE(log.find("]:SDK:open all led"), std::string::npos);
    quiet.end_input();
    EXPECT_EQ(quiet.wait_exit(10), 0);
    EXPECT_EQ(box.read("/stderr"), "");
  }
  // The board is down now: one line says so, and not a driver error for every read of every port.
  ConsoleDriver down({"env", "FSU_ROOT=" + box.root(), "PATH=" + box.root() + "/bin:/usr/bin:/bin", "FSU_CLOCK_RATE=10",
                      benchkit_path()},
                     ConsoleDriver::Mode::kTerminal);  // standard error too
  ASSERT_TRUE(down.wait_for("输入测试项: ", 30)) << down.output();
  // The port threads have tried their ports many times over.
  ASSERT_TRUE(eventually([&] { return count(box.read("/tmp/sdklog.log"), "FUNCTION:BSP_ComRead") > 100; }));
  const std::string said = "SDK: the simulated unit in " + box.root() + " is not running (" + box.root() +
                           "/dev/ttymxc1 is missing; fsusim up --root " + box.root() + " starts it)";
  EXPECT_EQ(count(down.output(), said), 1) << down.output();
  EXPECT_EQ(count(down.output(), "ERROR:"), 0) << down.output();
  down.end_input();
  EXPECT_EQ(down.wait_exit(10), 0);
}

// Off a board benchkit refuses with one line; --help and --version answer anywhere. Neither
// runs a tool nor writes a file.
TEST(BenchkitOffTheBoard, RefusesWithOneLineAndTouchesNothingButAnswersHelpAndVersion) {
  TestSandbox box;  // a folder for the spies only: benchkit is not pointed at it
  // Every tool benchkit could run stands first on the PATH and notes that it ran.
  const std::string spies = box.path("/spies");
  std::filesystem::create_directory(spies);
  for (const char* tool : {"killall", "hwclock", "date", "reboot", "rm", "mv", "zip", "uci"}) {
    box.write(std::string("/spies/") + tool, "#!/bin/sh\necho \"$0 $*\" >>" + spies + "/ran\n");
    std::filesystem::permissions(spies + "/" + tool, std::filesystem::perms::owner_all);
  }
  std::error_code missing;
  const auto version_file = [&] { return std::filesystem::last_write_time("/tmp/sdkversion", missing); };
  const auto version_before = version_file();
  const std::string path = "PATH=" + spies + ":" + std::getenv("PATH");
  const std::tuple<std::string, const char*, const char*, int> cases[] = {
      {"FSU_ROOT", "", "fsu: no board here (/dev/ttymxc1 is missing) and FSU_ROOT is not set", 1},
      {"FSU_ROOT=" + box.root() + "/missing", "", "fsu: FSU_ROOT names no folder", 1},
      {"FSU_ROOT=" + box.root() + "/a b", "", "fsu: FSU_ROOT is unusable", 1},
      {"FSU_ROOT", "--help", "usage:\r\n  benchkit ", 0}, {"FSU_ROOT", "--version", "benchkit SE-1.0.9\r\n", 0}};
  for (const auto& [setting, arg, says, status] : cases) {
    std::vector<std::string> argv = {"env", setting, path, benchkit_path(), arg};
    if (setting == "FSU_ROOT") argv.insert(argv.begin() + 1, "-u");  // unset
    if (*arg == '\0') argv.pop_back();
    ConsoleDriver console(argv, ConsoleDriver::Mode::kTerminal);  // standard error too
    EXPECT_EQ(console.wait_exit(10), status) << says;
    EXPECT_TRUE(console.output().starts_with(says) &&
                (status == 0 || console.output().find('\n') == console.output().size() - 1))
        << console.output();
  }
  EXPECT_FALSE(box.exists("/spies/ran")) << box.read("/spies/ran");
  EXPECT_EQ(version_file(), version_before);
}

}  // namespace
}  // namespace fsu::test
