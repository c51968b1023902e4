// The point API over the board records: which field each name reads, relay requests in the
// order the sender relies on, LEDs on their GPIO lines, and the hand-over of the LEDs.
#include <gtest/gtest.h>

#include <cstring>

#include "fsusdk.h"
#include "sdk/board_points.h"
#include "sdk/resource_catalogue.h"
#include "sdk/sdk_leds.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::sdk {
namespace {

using serial::STR_BSP_ENV_INFO;

TEST(PointApi, InputsReadTheirChannels) {
  test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  STR_BSP_ENV_INFO.fAiVolt[2].store(2.5f);
  STR_BSP_ENV_INFO.fAiCurr[2].store(12.0f);
  STR_BSP_ENV_INFO.fAiVolt[10].store(1.25f);
  STR_BSP_ENV_INFO.ucDi[15].store(1);
  float v = -1;
  EXPECT_EQ(GetAIValue("Local/AI/3", 0, &v), 0);
  EXPECT_FLOAT_EQ(v, 2.5f);
  EXPECT_EQ(GetAIValue("Local/AI/3", 5, &v), 0);
  EXPECT_FLOAT_EQ(v, 12.0f);
  char text[32];
  EXPECT_EQ(GetAIValue_String("Local/AI/3", 0, text), 0);
  EXPECT_STREQ(text, "2.500000");

  EXPECT_EQ(GetAIValue("Local/AI/11", 0, &v), 0);  // without extension boards: the environment record
  EXPECT_FLOAT_EQ(v, 1.25f);
  PAR_SET_EXT_COM_EXIST_STATUS(1);
  EXPECT_EQ(GetAIValue("Local/AI/11", 0, &v), 0);  // with them: the extension record, all zero
  EXPECT_FLOAT_EQ(v, 0.0f);
  EXPECT_EQ(GetAIValue("Local/AI/3", 0, &v), 0);
  EXPECT_FLOAT_EQ(v, 2.5f);

  v = 7;
  EXPECT_EQ(GetAIValue("Local/AI/17", 0, &v), -1);
  EXPECT_EQ(GetAIValue("Local/AI/03", 0, &v), -1);
  EXPECT_EQ(v, 7);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("]:Local/AI/ Resources error"), std::string::npos);

  int di = -1;
  EXPECT_EQ(GetDIValue("Local/DI/16", &di), 0);
  EXPECT_EQ(di, 1);
  EXPECT_EQ(GetDIValue("Local/DI/17", &di), 0);
  EXPECT_EQ(di, 0);
  di = 9;
  EXPECT_EQ(GetDIValue("Local/DI/25", &di), -1);
  EXPECT_EQ(di, 9);
  EXPECT_EQ(GetDIValue("Local/DI/1", nullptr), -1);

  float bat = 3.5f;
  EXPECT_EQ(GetBatValue("Local/Bat/1", &bat), -1);
  EXPECT_EQ(bat, 3.5f);
}

TEST(PointApi, RelayRequestsGoToTheirBoards) {
  test::TestSandbox box;
  test::PtyPair board2(box.path("/dev/ttymxc6"));
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetDOValue("Local/DO/1", 1), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "LOCAL_DO_1 set 1");
  EXPECT_EQ(SetDOValue("Local/DO/4", 0), 0);
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDoSetFlag[0].load(), 1);
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDoSetValue[0].load(), 1);
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDoSetFlag[3].load(), 1);
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDoSetValue[3].load(), 0);

  ASSERT_EQ(serial::BSP_ComCreate(5), 0u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(SetDOValue("Local/DO/8", 1), 0);  // output 4 of extension board 2
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "EXT_TOP_DO_SET CH4 =1\r\n");
  EXPECT_EQ(board2.receive(7, 2.0), (std::vector<std::uint8_t>{0x7E, 0x00, 0x01, 0xAD, 0x01, 0xAF, 0x0D}));

  EXPECT_EQ(SetDOValue("Local/DO/9", 1), -1);
  EXPECT_EQ(SetDOValue(nullptr, 1), -1);
}

TEST(PointApi, LedsAreActiveLowAndHandedOverOnTheFirstApplicationCall) {
  test::TestSandbox box;
  testing::internal::CaptureStdout();
  SdkLedState state;
  sdk_led_pass(state);  // the first pass lights the run LED and prepares every LED line
  const std::string printed = testing::internal::GetCapturedStdout();
  EXPECT_NE(printed.find("LED_GPIO_INIT=1\r\nLED_GPIO_INIT=18\r\nLED_GPIO_INIT=0\r\nLED_GPIO_INIT=4\r\n"),
            std::string::npos);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio1/value"), "0");   // lit
  EXPECT_EQ(box.read("/sys/class/gpio/gpio18/value"), "1");  // alarm dark
  EXPECT_EQ(box.read("/sys/class/gpio/gpio1/direction"), "out");
  sdk_led_pass(state);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio1/value"), "1");

  serial::SET_ENV_BOARD_RIGHT_FG();
  sdk_led_pass(state);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio4/value"), "0");  // the board answered: lit
  EXPECT_EQ(box.read("/sys/class/gpio/gpio1/value"), "0");

  EXPECT_EQ(SetLEDValue("Local/Led/power", 1), -1);  // no line, still hands the LEDs over
  sdk_led_pass(state);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio1/value"), "0");  // the run LED stopped blinking
  EXPECT_EQ(box.read("/sys/class/gpio/gpio4/value"), "0");
  EXPECT_EQ(SET_LED_STATUS(502, 1), kNoGpio);
  EXPECT_EQ(SetLEDValue("Local/Led/alarm", 1), -1);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio18/value"), "0");
}

}  // namespace
}  // namespace fsu::sdk
