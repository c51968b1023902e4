// The sysfs GPIO lines: the texts written (without line ends), the values read back, and the
// messages of lines that cannot be opened.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "board/gpio.h"
#include "tests/common/test_sandbox.h"

namespace fsu::board {
namespace {

TEST(Gpio, WritesTheSysfsTextsWithoutLineEndsAndReportsLinesThatCannotBeOpened) {
  test::TestSandbox box;
  const auto file = [&](const char* name) { return box.read(std::string("/sys/class/gpio/gpio4/") + name); };
  EXPECT_EQ(bsp_gpio_direction(4, 5) + bsp_gpio_write(4, -1), 0);
  EXPECT_EQ(file("direction") + file("value"), "out1");
  EXPECT_EQ(bsp_gpio_direction(4, 0) + bsp_gpio_read(4), 1);
  EXPECT_EQ(file("direction"), "in");  // cut behind the text: not "int"
  box.write("/sys/class/gpio/gpio4/value", "0\n");
  EXPECT_EQ(bsp_gpio_read(4), 0);
  std::string edges;
  for (int code = -1; code <= 4; ++code) edges += (bsp_gpio_edge(4, code) == 0 ? file("edge") : "?") + " ";
  EXPECT_EQ(edges, "none none rising falling both none ");
  EXPECT_EQ(bsp_gpio_export(12), 0);
  EXPECT_EQ(box.read("/sys/class/gpio/export"), "12");

  std::remove(box.path("/sys/class/gpio/unexport").c_str());
  testing::internal::CaptureStdout();
  const std::vector<int> results = {bsp_gpio_direction(77, 1), bsp_gpio_read(77), bsp_gpio_write(77, 1),
                                    bsp_gpio_edge(77, 1), bsp_gpio_unexport(77)};  // called in this order
  EXPECT_EQ(results, std::vector<int>(5, -1));
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Failed to open gpio direction for writing!\nFailed to open gpio value for reading!\n"
            "Failed to open gpio value for writing!\nFailed to open gpio edge for writing!\n"
            "Failed to open unexport for writing!\n");
}

}  // namespace
}  // namespace fsu::board
