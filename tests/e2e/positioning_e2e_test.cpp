// benchkit's positioning items on the simulated board's receiver: position, counts and signal
// report shown, modes commanded on the wire, the clock repaired at start-up, a receiver that
// loses its fix, falls silent or babbles, and one that speaks GN from the south-west.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::count;
using sim::poll_until;

// Runs a menu item (and its follow-up line) and waits for the menu to come back.
void item(ConsoleDriver& console, const std::string& lines) {
  const int menus = count(console.output(), "输入测试项: ");
  console.send(lines);
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", menus + 1, 30)) << console.output();
}

// Sends a control line, then waits until the reader has parsed `passes` more batches (each logs
// the position it holds).
bool control_then_parsed(const TestSandbox& box, const std::string& line, int passes) {
  std::vector<std::string> errors;
  const int before = count(box.read("/tmp/sdklog.log"), "]:GPS:J:");
  return sim::send_control(box.root(), std::vector<std::string>{line}, 5, &errors) &&
         poll_until(20, [&] { return count(box.read("/tmp/sdklog.log"), "]:GPS:J:") >= before + passes; });
}

TEST(PositioningOnSimulator, ClockRepairItemTwelveModeItemsAndAReceiverInTrouble) {
  TestSandbox box;
  box.write("/sim/rtc_fault", "");  // benchkit's clock runs twice as fast: its 20 s for a fix take 10 s
  ConsoleDriver console({fsusim_path(), "run", "--root", box.root(), "--", "env", "FSU_CLOCK_RATE=2", benchkit_path()},
                        ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 60)) << console.output();
  // Start-up repaired the faulty clock from the receiver's time (its conversion: the lifecycle test).
  EXPECT_NE(box.calls().find("date -s "), std::string::npos) << box.calls();
  EXPECT_NE(box.read("/tmp/sdklog.log").find("]:gps set time=date -s '"), std::string::npos);
  // Start-up then brought the receiver to the factory default: both systems, saved.
  EXPECT_TRUE(sim::state_line(box, "receiver ").ends_with(" heard=$PCAS04,3*1A|$PCAS00*01")) << box.read("/sim/state");

  ASSERT_TRUE(control_then_parsed(box, "gps position 22.5 113.25 40 -3", 2));
  item(console, "12\n");
  const std::string fix = "经度=113.25000000,纬度=22.50000000,高度=37.000000;";
  EXPECT_NE(console.output().find("\r\n\r\nGPSINFO:\r\n" + fix + "GPS有效卫星数=9,GPS可视卫星数=10;北斗有效卫星数=7,北斗可视卫星数=8\r\nGPS DB:\r\n"
                                  "GPS,卫星标识=1,2,12,14,15,17,19,24,25,32,,CN0=46,41,39,45,38,25,30,42,33,0,\r\n;"
                                  "BD,卫星标识=6,9,11,14,21,23,30,34,,CN0=41,38,35,44,40,0,37,36,\r\n\r\n"), std::string::npos) << console.output();
  // A receiver that loses its fix, babbles or falls silent leaves the last position.
  for (const char* trouble : {"gps nofix", "gps noise", "gps silent"}) {
    ASSERT_TRUE(control_then_parsed(box, trouble, std::string(trouble) == "gps silent" ? 0 : 2)) << trouble;
    const int shown = count(console.output(), fix);
    item(console, "12\n");
    EXPECT_EQ(count(console.output(), fix), shown + 1) << trouble;
  }

  for (const auto& [lines, said, pcas04, pcas] :
       {std::tuple{"22\n", "设置为 GPS模式\r\n", "1*18", "1"}, {"23\n", "设置为 北斗模式\r\n", "2*1B", "2"},
        {"21\n", "设置为 GPS+北斗模式\r\n", "3*1A", "0"},
        {"99\n1\n", "\r\n请输入GPS类型:1-GPS,2-北斗 3-GPS+北斗设置类型：1\r\n", "1*18", "1"},
        {"99\n0\n", "设置类型：0\r\n", "1*18", "99999"}}) {  // off: the receiver keeps the last command
    item(console, lines);
    EXPECT_NE(console.output().find(said), std::string::npos) << lines;
    EXPECT_TRUE(sim::state_line(box, "receiver ").ends_with(std::string("|$PCAS04,") + pcas04 + "|$PCAS00*01")) << lines;
    EXPECT_NE(box.read("/etc/config/dtm").find(std::string("option pcas '") + pcas + "'"), std::string::npos) << lines;
  }
  // Positioning switched off sends nothing to the receiver.
  EXPECT_NE(sim::state_line(box, "receiver ").find(" pcas04=5 pcas00=5 "), std::string::npos);
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);
}

TEST(PositioningOnSimulator, ThePositionExampleSetsTheModeAndReadsTheFixAndTheSky) {
  TestSandbox box;
  ConsoleDriver app({fsusim_path(), "run", "--root", box.root(), "--", "env", "FSU_CLOCK_RATE=2", FSU_TEST_POSITION, "1", "30"},
                    ConsoleDriver::Mode::kPipes);
  EXPECT_EQ(app.wait_exit(60), 0);  // a fix came
  // GPS only: no BeiDou satellite counted.
  for (const char* shown : {",纬度=31.2304000", "GPS有效卫星数=9,GPS可视卫星数=10;北斗有效卫星数=0,北斗可视卫星数=0", "signal: GPS,卫星标识=1,2,12,"}) {
    EXPECT_NE(app.output().find(shown), std::string::npos) << shown << app.output();
  }
}

// Many receivers tag all but their GSV sentences GN: position and time are taken, the satellites
// used are counted for neither system. South and west read as magnitudes in the position file.
TEST(PositioningOnSimulator, AGnReceiverInTheSouthWestGivesPositionAndTimeAndNoUsedCounts) {
  TestSandbox box;
  box.write("/sim/rtc_fault", "");
  ConsoleDriver console({fsusim_path(), "run", "--root", box.root(), "--ctl", "gps talker gn", "--ctl", "gps position -33.75 -70.5 500 20",
                         "--ctl", "gps time 2026-11-16T08:27:10", "--", "env", "FSU_CLOCK_RATE=5", benchkit_path()},
                        ConsoleDriver::Mode::kPipes);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 60)) << console.output();
  EXPECT_NE(box.calls().find("date -s 2026-11-16 16:27:"), std::string::npos) << box.calls();
  std::string report;
  EXPECT_TRUE(poll_until(20, [&] {
    ConsoleDriver page({fsusim_path(), "web", "--root", box.root(), "read-gps"}, ConsoleDriver::Mode::kPipes);
    return page.wait_exit(10) == 0 && !(report = page.output()).starts_with("经度=0.0");
  }));
  EXPECT_EQ(report, "经度=70.50000000,纬度=33.75000000,高度=520.000000;GPS有效卫星数=0,GPS可视卫星数=10;北斗有效卫星数=0,北斗可视卫星数=8\r\n");
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);
}

}  // namespace
}  // namespace fsu::test
