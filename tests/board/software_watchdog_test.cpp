// The watchdog's decision with the time as an input, and the reboot through the sandbox's shell.
#include <gtest/gtest.h>

#include "board/software_watchdog.h"
#include "fsusdk.h"
#include "support/sdk_log.h"
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

TEST(SoftwareWatchdog, ThreadStartsOnce) {
  test::TestSandbox box;
  EXPECT_EQ(soft_dog_run(0), 0);
  EXPECT_EQ(soft_dog_run(42), 42);
}

}  // namespace
}  // namespace fsu::board
