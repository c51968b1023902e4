#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <string>

#include "board/gpio.h"
#include "tests/common/test_sandbox.h"

namespace fsu::board {
namespace {

std::string printed_by(const std::function<void()>& call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

TEST(Gpio, WritesTheSysfsTextsWithoutLineEnds) {
  test::TestSandbox box;
  EXPECT_EQ(bsp_gpio_direction(4, 5), 0);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio4/direction"), "out");
  EXPECT_EQ(bsp_gpio_direction(4, 0), 0);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio4/direction"), "in");
  EXPECT_EQ(bsp_gpio_write(4, -1), 0);
  EXPECT_EQ(box.read("/sys/class/gpio/gpio4/value"), "1");
  EXPECT_EQ(bsp_gpio_read(4), 1);
  box.write("/sys/class/gpio/gpio4/value", "0\n");
  EXPECT_EQ(bsp_gpio_read(4), 0);
  const char* edges[] = {"none", "rising", "falling", "both", "none"};
  for (int code = -1; code <= 4; ++code) {
    EXPECT_EQ(bsp_gpio_edge(4, code), 0);
    EXPECT_EQ(box.read("/sys/class/gpio/gpio4/edge"), edges[code < 0 ? 0 : code]) << code;
  }
  EXPECT_EQ(bsp_gpio_export(12), 0);
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "12");
}

TEST(Gpio, LinesThatCannotBeOpenedReportAndFail) {
  test::TestSandbox box;
  int result = 0;
  EXPECT_EQ(printed_by([&] { result = bsp_gpio_direction(77, 1); }), "Failed to open gpio direction for writing!\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(printed_by([&] { result = bsp_gpio_read(77); }), "Failed to open gpio value for reading!\n");
  EXPECT_EQ(result, -1);
  EXPECT_EQ(printed_by([&] { result = bsp_gpio_write(77, 1); }), "Failed to open gpio value for writing!\n");
  EXPECT_EQ(printed_by([&] { result = bsp_gpio_edge(77, 1); }), "Failed to open gpio edge for writing!\n");
  std::remove(box.path("/sys/class/gpio/unexport").c_str());
  EXPECT_EQ(printed_by([&] { result = bsp_gpio_unexport(77); }), "Failed to open unexport for writing!\n");
  EXPECT_EQ(result, -1);
}

}  // namespace
}  // namespace fsu::board
