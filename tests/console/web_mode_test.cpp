#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console/web_mode.h"
#include "lte/ntu.h"
#include "platform/shared_memory.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "sim/web_pages.h"
#include "tests/common/test_sandbox.h"

namespace fsu::console {
namespace {

char gpio(const test::TestSandbox& box, int line) { return (box.read("/sys/class/gpio/gpio" + std::to_string(line) + "/value") + "?")[0]; }

// Web mode's threads one pass at a time: the counter segment is the sandbox's own and another start clears it,
// output requests switch both 12 V lines and every relay, the PPP watchdog dials again and publishes the modem.
TEST(WebMode, CountersOutputRequestsAndThePppWatchdog) {
  const auto key = [](const char* root) { return platform::shared_memory_key_in(root, 1236); };
  EXPECT_TRUE(key("/") == 1236 && key("/tmp/a//b/") == key("/tmp/a/b") && key("/tmp/a/b") != key("/tmp/a/c"));
  test::TestSandbox box;
  sim::PortCounters seen{};
  std::string error;
  for (const std::vector<int>& expected : {std::vector{10, 9, 7}, std::vector{0, 0, 0}}) {
    DTUSHARE_init();  // the second time as another console's start
    if (expected[0] != 0) dtu_add(1, 10, 9), dtu_add(16, 0, 7), dtu_add(17, 5, 5);
    ASSERT_TRUE(sim::read_counters(box.root(), &seen, &error)) << error;
    EXPECT_EQ(std::vector({seen.sent[0], seen.received[0], seen.received[15]}), expected);
  }
  const struct { std::vector<std::string> files; int outputs; const char* lines; int relays; } cases[] = {  // lines: GPIO 8, 5
      {{"open", "close"}, 4, "xx", -1}, {{"close"}, 4, "00", 0}, {{"open"}, 0, "11", -1}, {{"open"}, 4, "11", 1}};  // -1: none
  for (const auto& c : cases) {
    serial::clear_env_info();
    box.write("/sys/class/gpio/gpio8/value", "x"), box.write("/sys/class/gpio/gpio5/value", "x");
    for (const std::string& f : c.files) box.write("/tmp/set_all_doao_" + f, "");
    sdk::STR_SYSTEM_RESOURCES_NUM.do_.store(c.outputs);
    aodo_listen_pass();
    EXPECT_EQ(std::string({gpio(box, 8), gpio(box, 5)}), c.lines) << c.files.size();
    for (int i = 0; i < 4; ++i)  // flag and value
      EXPECT_EQ(serial::STR_BSP_ENV_INFO.ucDoSetFlag[i] * 2 + serial::STR_BSP_ENV_INFO.ucDoSetValue[i], c.relays < 0 ? 0 : 2 + c.relays);
    for (const std::string& f : c.files) EXPECT_EQ(std::remove(box.path("/tmp/set_all_doao_" + f).c_str()) == 0, c.files.size() == 2);
  }
  lte::ntu_set_text(lte::NtuText::cimi, "460011234567890"), lte::ntu_set_text(lte::NtuText::csq, "-71");
  PppWatch watch;
  for (int second = 1; second <= 61; ++second) {  // 61 s without an address
    lte::NTU.pppdstart.store(0), ppp0_listen_pass(watch);
    ASSERT_EQ(lte::NTU.pppdstart.load(), second == 61) << second;
  }
  lte::ntu_set_text(lte::NtuText::lteip, "10.64.12.34"), lte::NTU.pppdstart.store(0);
  for (int second = 0; second < 70; ++second) ppp0_listen_pass(watch);
  EXPECT_EQ(std::vector({lte::NTU.pppdstart.load(), lte::NTU.CardStat.load()}), std::vector({0, 1}));
  EXPECT_EQ(box.read("/tmp/NetModuleInfo"),
            "SIM 卡状态: 正常;SIM 卡ISMI号: 460011234567890;模块IMEI: ;模块信号强度:-71;模块网络IP:10.64.12.34;");
  // The modem pulled (its address cleared), back online for one second at 31 s: a minute offline in a row redials.
  for (int second = 1; second <= 92; ++second) {
    lte::ntu_set_text(lte::NtuText::lteip, second == 31 ? "10.64.12.34" : "");
    lte::NTU.pppdstart.store(0), ppp0_listen_pass(watch);
    ASSERT_EQ(lte::NTU.pppdstart.load(), second == 92) << second;
  }
}

}  // namespace
}  // namespace fsu::console
