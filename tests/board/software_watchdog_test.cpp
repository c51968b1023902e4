// The watchdog's decision with the time as an input, and the reboot through the sandbox's shell.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "board/software_watchdog.h"
#include "fsusdk.h"
#include "platform/clock.h"
#include "serial/extension_link.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::board {
namespace {

TEST(SoftwareWatchdog, RebootsOnlyWhenTheFeedIsOlderThanTheIntervalAndAMinute) {
  test::TestSandbox box;
  bsp_SoftDog_Init();
  EXPECT_EQ(app___SOFTDOG.interval.load(), 600u);
  EXPECT_FALSE(soft_dog_expired(ReadSysTime_Value() + 100000));  // disarmed after start-up

  ASSERT_EQ(SoftDogEnable(1, 10000), 0);
  const std::uint32_t fed = app___SOFTDOG.last_feed.load();
  EXPECT_EQ(app___SOFTDOG.interval.load(), 10u);
  EXPECT_FALSE(soft_dog_expired(fed + 70));  // exactly 70 s is still in time
  EXPECT_TRUE(soft_dog_expired(fed + 71));

  SoftDogFeedInterval(30500);  // counts as a feed, whole seconds
  EXPECT_EQ(app___SOFTDOG.interval.load(), 30u);
  EXPECT_FALSE(soft_dog_expired(app___SOFTDOG.last_feed.load() + 90));
  SoftDogEnable(1, 999);  // below a second leaves only the minute of grace
  EXPECT_TRUE(soft_dog_expired(app___SOFTDOG.last_feed.load() + 61));

  SoftDogEnable(2, 10000);  // only 1 arms
  EXPECT_FALSE(soft_dog_expired(app___SOFTDOG.last_feed.load() + 1000));
  SoftDogEnable(0x101, 10000);  // the low byte is the flag
  EXPECT_TRUE(soft_dog_expired(app___SOFTDOG.last_feed.load() + 71));
}

TEST(SoftwareWatchdog, ExpiryLogsAndRunsTheSandboxReboot) {
  test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  SoftDogEnable(1, 10000);
  soft_dog_pass(app___SOFTDOG.last_feed.load() + 70);
  EXPECT_EQ(box.calls().find("reboot"), std::string::npos);
  soft_dog_pass(app___SOFTDOG.last_feed.load() + 71);
  EXPECT_NE(box.calls().find("reboot\n"), std::string::npos);
  const std::string log = box.read("/tmp/sdklog.log");
  EXPECT_NE(log.find("sdk_SYS   Line="), std::string::npos);
  EXPECT_NE(log.find("]:soft dog start,ready reboot=10"), std::string::npos) << log;
  EXPECT_NE(log.find("sdk_DEBUG Line=0000000001]:fun=SoftDogEnable,line ="), std::string::npos) << log;
}

TEST(SoftwareWatchdog, FiresOnTimeWhileABoardLinkTakesNothing) {
  test::TestSandbox box;
  test::PtyPair link(box.path("/dev/ttymxc5"));
  const serial::BSP_COM_PARAMS params{24, 0, 115200, 8, 1, 0};
  ASSERT_EQ(serial::BSP_ComCreate(4) + serial::BSP_ComSetParams(4, &params), 0u);
  // Board 1 never reads: the line fills up until it takes nothing more, even after a pause.
  const int fill = open(box.path("/dev/ttymxc5").c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY);
  const std::string block(4096, 'U');
  for (bool took = true; took; platform::sleep_ms(50)) {
    took = false;
    for (std::size_t size : {4096, 64, 1}) {
      while (write(fill, block.data(), size) > 0) took = true;
    }
  }
  std::uint32_t n = 0;
  const double start = platform::monotonic_seconds();
  EXPECT_EQ(serial::BSP_ComWrite(4, "x", 1, &n), serial::BSP_COM_ERR_IO);
  EXPECT_NEAR(platform::monotonic_seconds() - start, 3.0, 2.0);  // its bound is 1.4 s

  termios slow{};  // at 300 baud a keep-alive write may wait minutes (set without a flush)
  tcgetattr(fill, &slow);
  cfsetospeed(&slow, B300);
  tcsetattr(fill, TCSANOW, &slow);
  serial::str_com_dog[0].store(20);  // board 1's keep-alive is due at the first tick
  SoftDogEnable(1, 1000);
  app___SOFTDOG.last_feed.store(ReadSysTime_Value() - 62);
  soft_dog_run(0);
  for (const double deadline = platform::monotonic_seconds() + 10;
       box.calls().find("reboot\n") == std::string::npos && platform::monotonic_seconds() < deadline;) {
    platform::sleep_ms(50);
  }
  EXPECT_NE(box.calls().find("reboot\n"), std::string::npos);
}

TEST(SoftwareWatchdog, ThreadStartsOnce) {
  test::TestSandbox box;
  EXPECT_EQ(soft_dog_run(0), 0);
  EXPECT_EQ(soft_dog_run(42), 42);
}

}  // namespace
}  // namespace fsu::board
