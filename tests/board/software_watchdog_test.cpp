// The watchdog's decision with the time as an input, and the reboot through the sandbox's shell.
#include <gtest/gtest.h>

#include <tuple>

#include "board/software_watchdog.h"
#include "fsusdk.h"
#include "serial/extension_link.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::board {
namespace {

TEST(SoftwareWatchdog, RebootsOnlyWhenTheFeedIsOlderThanTheIntervalAndAMinute) {
  test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  bsp_SoftDog_Init();
  EXPECT_EQ(app___SOFTDOG.interval.load(), 600u);
  EXPECT_FALSE(soft_dog_expired(ReadSysTime_Value() + 100000));  // disarmed after start-up
  // Enabling and a new interval count as feeds; the interval is whole seconds; only a low
  // byte of 1 arms; below a second leaves only the minute of grace. Due: after fed + interval + 60.
  for (const auto& [change, interval, in_time, late] :
       {std::tuple{+[] { SoftDogEnable(1, 10000); }, 10u, 70u, 71u}, {+[] { SoftDogFeedInterval(30500); }, 30u, 90u, 91u},
        {+[] { SoftDogEnable(1, 999); }, 0u, 60u, 61u}, {+[] { SoftDogEnable(0x101, 10000); }, 10u, 70u, 71u},
        {+[] { SoftDogEnable(2, 10000); }, 10u, 100000u, 100000u}}) {
    change();
    const std::uint32_t fed = app___SOFTDOG.last_feed.load();
    EXPECT_EQ(app___SOFTDOG.interval.load(), interval);
    EXPECT_FALSE(soft_dog_expired(fed + in_time)) << interval;
    EXPECT_EQ(soft_dog_expired(fed + late), late != in_time) << interval;
  }
  soft_dog_pass(app___SOFTDOG.last_feed.load() + 100000);  // disarmed: nothing
  SoftDogEnable(1, 10000);
  soft_dog_pass(app___SOFTDOG.last_feed.load() + 71);
  EXPECT_EQ(box.calls(), "reboot\n");
  EXPECT_NE(box.read("/tmp/sdklog.log").find("sdk_DEBUG Line=0000000001]:fun=SoftDogEnable,line ="), std::string::npos);
}

TEST(SoftwareWatchdog, FiresOnTimeWhileABoardLinkTakesNothing) {
  test::TestSandbox box;
  sim::PtyPair link;
  ASSERT_TRUE(link.open(nullptr) && symlink(link.slave_path().c_str(), box.path("/dev/ttymxc5").c_str()) == 0);
  const serial::BSP_COM_PARAMS params{24, 0, 115200, 8, 1, 0};
  ASSERT_EQ(serial::BSP_ComCreate(4) + serial::BSP_ComSetParams(4, &params), 0u);
  // Board 1 never reads: the line fills up until it takes nothing more, even after a pause.
  const int fill = open(box.path("/dev/ttymxc5").c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY);
  const std::string block(4096, 'U');
  for (bool took = true; took; platform::sleep_ms(50)) {
    took = false;
    for (std::size_t size : {4096, 64, 1}) while (write(fill, block.data(), size) > 0) took = true;
  }
  std::uint32_t n = 0;
  const double start = platform::monotonic_seconds();
  EXPECT_EQ(serial::BSP_ComWrite(4, "x", 1, &n), serial::BSP_COM_ERR_IO);
  EXPECT_NEAR(platform::monotonic_seconds() - start, 3.0, 2.0);  // its bound is 1.4 s

  termios slow{};  // at 300 baud a keep-alive write may wait minutes (set without a flush)
  tcgetattr(fill, &slow), cfsetospeed(&slow, B300), tcsetattr(fill, TCSANOW, &slow);
  serial::str_com_dog[0].store(20);  // board 1's keep-alive is due at the first tick
  SoftDogEnable(1, 1000);
  app___SOFTDOG.last_feed.store(ReadSysTime_Value() - 62);
  EXPECT_EQ(soft_dog_run(0), 0);
  EXPECT_EQ(soft_dog_run(42), 42);  // started once only
  EXPECT_TRUE(sim::poll_until(10, [&] { return box.calls().find("reboot\n") != std::string::npos; }));
}

}  // namespace
}  // namespace fsu::board
