// The point API over the board records: which field each name reads, relay requests in the
// order the sender relies on, LEDs on their GPIO lines, and the hand-over of the LEDs.
#include <gtest/gtest.h>

#include <tuple>

#include "fsusdk.h"
#include "sdk/board_points.h"
#include "sdk/resource_catalogue.h"
#include "sdk/sdk_leds.h"
#include "serial/environment_link.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sdk {
namespace {

using serial::STR_BSP_ENV_INFO;

// Relay requests come before the log is set up: only the SDK's own console lines are captured.
TEST(PointApi, RelayRequestsGoToTheirBoardsInputsReadTheirChannelsAndLedsAreActiveLowAndHandedOver) {
  test::TestSandbox box;
  sim::PtyPair board2;
  ASSERT_TRUE(board2.open(nullptr) && symlink(board2.slave_path().c_str(), box.path("/dev/ttymxc6").c_str()) == 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetDOValue("Local/DO/1", 1) + SetDOValue("Local/DO/4", 0), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "LOCAL_DO_1 set 1");
  const auto& env = STR_BSP_ENV_INFO;
  EXPECT_EQ(std::tuple(env.ucDoSetFlag[0].load(), env.ucDoSetValue[0].load(), env.ucDoSetFlag[3].load(),
                       env.ucDoSetValue[3].load(), env.ucDoSetFlag[1].load()),
            std::tuple(1, 1, 1, 0, 0));

  ASSERT_EQ(serial::BSP_ComCreate(5), 0u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetDOValue("Local/DO/8", 1), 0);  // output 4 of extension board 2
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "EXT_TOP_DO_SET CH4 =1\r\n");
  EXPECT_EQ(sim::take(board2.master(), 7, 2), std::string("\x7E\x00\x01\xAD\x01\xAF\x0D", 7));
  EXPECT_EQ(SetDOValue("Local/DO/9", 1) + SetDOValue(nullptr, 1), -2);

  support::SDK_LOG_PAR_INIT();
  STR_BSP_ENV_INFO.fAiVolt[2].store(2.5f);
  STR_BSP_ENV_INFO.fAiCurr[2].store(12.0f);
  STR_BSP_ENV_INFO.fAiVolt[10].store(1.25f);
  STR_BSP_ENV_INFO.fAiCurr[15].store(4.5f);
  STR_BSP_ENV_INFO.ucDi[0].store(1);
  STR_BSP_ENV_INFO.ucDi[15].store(1);
  const auto ai = [](const char* name, int type) {
    float v = -1;
    return GetAIValue(name, type, &v) == 0 ? v : -1.0f;
  };
  EXPECT_EQ(std::tuple(ai("Local/AI/3", 0), ai("Local/AI/3", 5), ai("Local/AI/11", 0), ai("Local/AI/16", 1)),
            std::tuple(2.5f, 12.0f, 1.25f, 4.5f));  // without extension boards: all from the environment record
  char text[32];
  EXPECT_EQ(std::to_string(GetAIValue_String("Local/AI/3", 0, text)) + text, "02.500000");
  PAR_SET_EXT_COM_EXIST_STATUS(1);  // with them, channels 9 to 16 read the extension record: zeros
  EXPECT_EQ(std::tuple(ai("Local/AI/3", 0), ai("Local/AI/11", 0), ai("Local/AI/16", 1)), std::tuple(2.5f, 0.0f, 0.0f));
  float v = 7;
  EXPECT_EQ(GetAIValue("Local/AI/17", 0, &v) + GetAIValue("Local/AI/03", 0, &v) + GetAIValue("Local/AI/3", 0, nullptr), -3);
  EXPECT_EQ(v, 7);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("]:Local/AI/ Resources error"), std::string::npos);

  int di1 = -1, di16 = -1, di24 = -1, di25 = 9;
  EXPECT_EQ(GetDIValue("Local/DI/1", &di1) + GetDIValue("Local/DI/16", &di16) + GetDIValue("Local/DI/24", &di24), 0);
  EXPECT_EQ(GetDIValue("Local/DI/25", &di25) + GetDIValue("Local/DI/1", nullptr), -2);
  EXPECT_EQ(std::tuple(di1, di16, di24, di25), std::tuple(1, 1, 0, 9));
  float bat = 3.5f;
  EXPECT_EQ(GetBatValue("Local/Bat/1", &bat), -1);
  EXPECT_EQ(bat, 3.5f);

  // LEDs are active low and handed over on the first application call.
  testing::internal::CaptureStdout();
  SdkLedState state;
  sdk_led_pass(state);  // the first pass lights the run LED and prepares every LED line
  EXPECT_NE(testing::internal::GetCapturedStdout().find(
                "LED_GPIO_INIT=1\r\nLED_GPIO_INIT=18\r\nLED_GPIO_INIT=0\r\nLED_GPIO_INIT=4\r\n"),
            std::string::npos);
  const auto gpio = [&](int line, const char* file = "value") {
    return box.read("/sys/class/gpio/gpio" + std::to_string(line) + "/" + file);
  };
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "4");  // the last line exported
  EXPECT_EQ(gpio(1) + gpio(18) + gpio(1, "direction"), "01out");  // run lit, alarm dark
  sdk_led_pass(state);
  EXPECT_EQ(gpio(1), "1");

  serial::SET_ENV_BOARD_RIGHT_FG();
  sdk_led_pass(state);
  EXPECT_EQ(gpio(4) + gpio(1), "00");  // the board answered: lit

  EXPECT_EQ(SetLEDValue("Local/Led/power", 1), -1);  // no line, still hands the LEDs over
  sdk_led_pass(state);
  EXPECT_EQ(gpio(1) + gpio(4), "00");  // the run LED stopped blinking
  EXPECT_EQ(SET_LED_STATUS(502, 1), kNoGpio);
  EXPECT_EQ(SetLEDValue("Local/Led/alarm", 1), -1);
  EXPECT_EQ(gpio(18), "0");
}


}  // namespace
}  // namespace fsu::sdk
