// benchkit's positioning items on the simulated board's receiver: position, counts and signal
// report shown, modes commanded on the wire, the clock repaired at start-up, a receiver that
// loses its fix, falls silent or babbles.
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "tests/common/console_driver.h"
#include "tests/common/test_sandbox.h"
#include "tests/sim/board_fixture.h"

namespace fsu::test {
namespace {

using sim::poll_until;

ConsoleDriver benchkit(const TestSandbox& box) {
  return ConsoleDriver({fsusim_path(), "run", "--root", box.root(), "--", benchkit_path()}, ConsoleDriver::Mode::kPipes);
}

bool control(const TestSandbox& box, const std::vector<std::string>& lines) {
  std::vector<std::string> errors;
  return sim::send_control(box.root(), lines, 5, &errors);
}

int count(const std::string& text, const std::string& what) {
  int n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Runs a menu item (and its follow-up line) and waits for the menu to come back.
void item(ConsoleDriver& console, const std::string& lines) {
  const int menus = count(console.output(), "输入测试项: ");
  console.send(lines);
  ASSERT_TRUE(console.wait_for_count("输入测试项: ", menus + 1, 30)) << console.output();
}

// Waits until the reader has parsed `passes` more batches (each logs the position it holds).
bool parsed(const TestSandbox& box, int passes) {
  const int before = count(box.read("/tmp/sdklog.log"), "]:GPS:J:");
  return poll_until(20, [&] { return count(box.read("/tmp/sdklog.log"), "]:GPS:J:") >= before + passes; });
}

TEST(PositioningOnSimulator, ClockRepairItemTwelveModeItemsAndAReceiverInTrouble) {
  TestSandbox box;
  box.write("/sim/rtc_fault", "");
  ConsoleDriver console = benchkit(box);
  ASSERT_TRUE(console.wait_for("输入测试项: ", 60)) << console.output();
  // The receiver follows the PC's clock: the time set is its UTC and eight hours.
  const std::string calls = box.calls();
  const std::size_t at = calls.find("date -s ");
  ASSERT_NE(at, std::string::npos) << calls;
  std::tm set{};
  ASSERT_NE(strptime(calls.c_str() + at + 8, "%Y-%m-%d %H:%M:%S", &set), nullptr);
  EXPECT_NEAR(static_cast<double>(timegm(&set)), static_cast<double>(std::time(nullptr) + 28800), 60);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("]:gps set time=date -s '"), std::string::npos);
  // Start-up then brought the receiver to the factory default: both systems, saved.
  EXPECT_TRUE(sim::state_line(box, "receiver ").ends_with(" heard=$PCAS04,3*1A|$PCAS00*01")) << box.read("/sim/state");

  ASSERT_TRUE(control(box, {"gps position 22.5 113.25 40 -3"}) && parsed(box, 2));
  item(console, "12\n");
  const std::string fix = "经度=113.25000000,纬度=22.50000000,高度=37.000000;";
  EXPECT_NE(console.output().find("\r\n\r\nGPSINFO:\r\n" + fix + "GPS有效卫星数=9,GPS可视卫星数=10;北斗有效卫星数=7,北斗可视卫星数=8\r\nGPS DB:\r\nGPS,卫星标识=1,2,12,"
                                        "14,15,17,19,24,25,32,,CN0=46,41,39,45,38,25,30,42,33,0,\r\n;BD,卫星标识=6,9,11,14,21,23,"
                                        "30,34,,CN0=41,38,35,44,40,0,37,36,\r\n\r\n"),
            std::string::npos)
      << console.output();
  // A receiver that loses its fix, babbles or falls silent leaves the last position.
  for (const char* trouble : {"gps nofix", "gps noise", "gps silent"}) {
    ASSERT_TRUE(control(box, {trouble}) && (std::string(trouble) == "gps silent" || parsed(box, 2))) << trouble;
    const int shown = count(console.output(), fix);
    item(console, "12\n");
    EXPECT_EQ(count(console.output(), fix), shown + 1) << trouble;
  }

  const struct {
    std::string lines, said, heard, systems, pcas;
  } modes[] = {{"22\n", "设置为 GPS模式\r\n", "$PCAS04,1*18|$PCAS00*01", "gps", "1"},
               {"23\n", "设置为 北斗模式\r\n", "$PCAS04,2*1B|$PCAS00*01", "bd", "2"},
               {"21\n", "设置为 GPS+北斗模式\r\n", "$PCAS04,3*1A|$PCAS00*01", "gps+bd", "0"},
               {"99\n1\n", "\r\n请输入GPS类型:1-GPS,2-北斗 3-GPS+北斗设置类型：1\r\n", "$PCAS04,1*18|$PCAS00*01", "gps", "1"},
               {"99\n0\n", "设置类型：0\r\n", "$PCAS04,1*18|$PCAS00*01", "gps", "99999"}};
  for (const auto& mode : modes) {
    item(console, mode.lines);
    EXPECT_NE(console.output().find(mode.said), std::string::npos) << mode.lines;
    const std::string receiver = sim::state_line(box, "receiver ");
    EXPECT_TRUE(receiver.ends_with("|" + mode.heard)) << receiver;
    EXPECT_NE(receiver.find("constellations=" + mode.systems + " "), std::string::npos) << receiver;
    EXPECT_NE(box.read("/etc/config/dtm").find("option pcas '" + mode.pcas + "'"), std::string::npos) << mode.lines;
  }
  // Positioning switched off sends nothing to the receiver.
  EXPECT_NE(sim::state_line(box, "receiver ").find(" pcas04=5 pcas00=5 "), std::string::npos);
  console.end_input();
  EXPECT_EQ(console.wait_exit(10), 0);
}

}  // namespace
}  // namespace fsu::test
