// Start-up once, the version file and text, the clock check, the upgrade hand-off and the
// hardware information.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "fsusdk.h"
#include "gps/nmea_reader.h"
#include "lte/ntu.h"
#include "sdk/clock_repair.h"
#include "sdk/lifecycle.h"
#include "support/sdk_log.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sdk {
namespace {

TEST(Lifecycle, StartsOnceWritesVersionAndLogAndRepairsAFaultyClockFromTheReceiver) {
  fsu::test::TestSandbox box;
  box.write("/sim/rtc_fault", "");
  setenv("TZ", "UTC", 1);
  std::string zda = "$GPZDA,082710.00,16,11,2026,00,00*6B\r\n";
  zda.insert(0, 1025 - zda.size(), ' ');
  gps::BSP_GPS_READ(zda.data(), static_cast<int>(zda.size()));
  ASSERT_EQ(InitializeSDK(), 0);
  // The receiver's UTC with its eight hours, set as the system time.
  EXPECT_NE(box.calls().find("date -s 2026-11-16 16:27:10\n"), std::string::npos) << box.calls();
  EXPECT_EQ(box.read("/tmp/sdkversion"), std::string("Version:Sdk-SE1.0.9-") + build_date() + "-" + build_time() + "\r\n\n");
  EXPECT_NE(box.read("/tmp/sdklog.log").find("sdk_SYS   Line=0000000001]:InitializeSDK"), std::string::npos);
  EXPECT_EQ(HW_RTC_IS_Err(), 1);

  const double start = platform::monotonic_seconds();
  EXPECT_EQ(InitializeSDK(), -1);
  EXPECT_LT(platform::monotonic_seconds() - start, 0.5);
  EXPECT_EQ(UninitializeSDK(), 0);
  EXPECT_NE(box.read("/tmp/sdklog.log").find("]:UninitializeSDK"), std::string::npos);
}

TEST(Lifecycle, ClockCheckRepairsNothingWhenTheClockAnswersInformationIsBoundedAndUpdatesTakePlainPaths) {
  fsu::test::TestSandbox box;
  HW_RESOURCES_CHECK();
  EXPECT_EQ(HW_RTC_IS_Err(), 0);
  EXPECT_NE(box.calls().find("hwclock -r"), std::string::npos);
  const double start = platform::monotonic_seconds();
  HW_RESOURCES_CHECK_FUN();
  api_box_hw_check_pass();
  EXPECT_LT(platform::monotonic_seconds() - start, 0.5);
  EXPECT_EQ(box.calls().find("date"), std::string::npos);

  char buf[64];
  EXPECT_EQ(std::to_string(ReadSDKVersion(buf, sizeof buf)) + buf, "0SE-1.0.9");
  EXPECT_EQ(std::to_string(ReadSDKVersion(buf, 4) + ReadSDKVersion(nullptr, 9)) + buf, "-2SE-");
  EXPECT_EQ(std::to_string(ReadHardwareInformation(buf, 63)) + buf, "0{\"产品型号\":\"KTRV-QX\",\"生产日期\":\"2023-01-16 00:00:0\"}");
  EXPECT_EQ(ReadHardwareInformation(buf, 62) + ReadHardwareInformation(buf, 0), -2);

  // An update takes only archives with plain paths.
  box.write("/tmp/a.gz.bak", "archive");
  EXPECT_EQ(UpdateSDK("/tmp/a.gz.bak"), 0);
  EXPECT_EQ(box.read("/tmp/dt_upgrade.gz"), "archive");
  // The upgrade tool is started in the background.
  EXPECT_TRUE(sim::poll_until(10, [&] { return box.calls().find("kvupgrade -f") != std::string::npos; }));
  box.write("/tmp/a.zip", "zip");
  box.write("/tmp/b.gz", "b");
  for (const char* refused : {"/tmp/a.zip", "/tmp/b.gz;reboot", "/tmp/b.gz' '/x", "/../../../x.gz", "/tmp/../b.gz",
                              "tmp/b.gz", "-t.gz", "/tmp/*.gz", "/tmp/?.gz", "/tmp/[b].gz"}) {
    EXPECT_EQ(UpdateSDK(refused), -1) << refused;
  }
  EXPECT_EQ(UpdateSDK(nullptr), -1);
  EXPECT_TRUE(box.exists("/tmp/a.zip") && box.exists("/tmp/b.gz"));
  EXPECT_EQ(box.read("/tmp/dt_upgrade.gz"), "archive");
  EXPECT_EQ(box.calls().find("reboot"), std::string::npos);
  std::filesystem::create_directory(box.path("/tmp/new dir"));
  box.write("/tmp/new dir/c.gz", "c");  // quoted in the command
  // A move that fails upgrades nothing: the archive left from before is not installed.
  const auto upgrades = [&] {
    const std::string calls = box.calls();
    int n = 0;
    for (auto at = calls.find("kvupgrade"); at != std::string::npos; at = calls.find("kvupgrade", at + 1)) ++n;
    return n;
  };
  const auto before = upgrades();
  EXPECT_EQ(UpdateSDK("/tmp/missing.gz"), -1);
  EXPECT_EQ(UpdateSDK("/tmp/new dir/c.gz"), 0);
  EXPECT_EQ(box.read("/tmp/dt_upgrade.gz"), "c");
  EXPECT_TRUE(sim::poll_until(10, [&] { return upgrades() > before; }));
  EXPECT_FALSE(sim::poll_until(0.3, [&] { return upgrades() > before + 1; })) << box.calls();
  // Entries planted at the target: a link to a folder outside is replaced, a folder stops the upgrade.
  const std::filesystem::path outside = box.path("/outside");
  std::filesystem::create_directory(outside);
  std::filesystem::remove(box.path("/tmp/dt_upgrade.gz"));
  std::filesystem::create_directory_symlink(outside, box.path("/tmp/dt_upgrade.gz"));
  box.write("/tmp/d.gz", "d");
  EXPECT_EQ(UpdateSDK("/tmp/d.gz"), 0);
  EXPECT_TRUE(std::filesystem::is_empty(outside));
  EXPECT_EQ(box.read("/tmp/dt_upgrade.gz"), "d");
  std::filesystem::remove(box.path("/tmp/dt_upgrade.gz"));
  std::filesystem::create_directories(box.path("/tmp/dt_upgrade.gz/x"));
  box.write("/tmp/e.gz", "e");
  EXPECT_EQ(UpdateSDK("/tmp/e.gz"), -1);
  EXPECT_TRUE(box.exists("/tmp/e.gz"));
}

// The system calls that answer at once or wait: the process's clock runs ten times as fast, so the
// 3 s power cut of a modem restart and the 20 s a clock repair waits for a time take a tenth.
TEST(Lifecycle, SystemCallsSetTheClockCutTheModemsPowerAndAClockRepairGivesUpAfterTwentySeconds) {
  setenv("FSU_CLOCK_RATE", "10", 1);  // before the clock's first reading
  fsu::test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  EXPECT_EQ(std::vector({DialInit(nullptr), DialTerminate(nullptr), GetSupportedExtendType(nullptr), AddExtend(nullptr)}),
            std::vector({0, 0, -2, -1}));
  const std::string hostile = "2023-12-27 23:09:56'; reboot '";
  EXPECT_EQ(std::vector({SetRtc(nullptr), SetRtc(hostile.c_str()), SetRtc("2023-12-27 23:09:56"),
                         SetRtc("2023-12-27 23:09:56 +000000000000000000")}), std::vector({-1, -1, 0, 0}));
  // The command keeps its closing quote: the text is cut to 29 characters.
  EXPECT_EQ(box.calls(), "date -s 2023-12-27 23:09:56\nhwclock -w\ndate -s 2023-12-27 23:09:56 +00000000\nhwclock -w\n");
  double start = platform::monotonic_seconds();
  EXPECT_EQ(DialHardReboot(), 0);
  EXPECT_GE(platform::monotonic_seconds() - start, 3);
  EXPECT_EQ(lte::NTU.hardreboot.load(), 1);
  const std::string log = box.read("/tmp/sdklog.log");
  for (const char* line : {"]:无线拨号初始化DialInit", "]:结束无线模块拨号DialTerminate", "]:SetRtc 2023-12-27 23:09:56;set_cmd=date -s '2023-12-27 23:09:56'",
                           "]:SET AO 12V RESTART CH=0", "]:无线模块断电硬重启DialHardReboot"})
    EXPECT_NE(log.find(line), std::string::npos) << line;

  box.write("/sim/rtc_fault", "");
  HW_RESOURCES_CHECK();
  start = platform::monotonic_seconds();
  HW_RESOURCES_CHECK_FUN();  // the receiver never gives a time
  const double waited = platform::monotonic_seconds() - start;
  EXPECT_TRUE(waited >= 20 && waited < 25) << waited;  // each sleep's own overhead counts ten times
  EXPECT_EQ(box.calls().find("date", box.calls().find("hwclock -r")), std::string::npos);
}

// Hostile callers: no text runs a command or changes a mode; any password arrives whole, unlogged.
TEST(Lifecycle, FtpAccountsTakePlainNamesAndFoldersUnderTheRootAndWholePasswordsThatAreNeverLogged) {
  fsu::test::TestSandbox box;
  support::SDK_LOG_PAR_INIT();
  const auto modes = [&] {
    std::string out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(box.path("/etc")))
      out += e.path().string() + " " + std::to_string(static_cast<int>(e.status().permissions())) + "\n";
    return out;
  };
  const std::string etc = modes();
  const char* const hostile[][3] = {
      {"u", "p", "/etc/config/*"}, {"u", "p", "/etc/*"},   {"u", "p", "-rf"},     {"u", "p", "ftp"},
      {"u", "p", "/tmp/../ftp"},   {"*", "p", "/tmp/ftp"}, {"-u", "p", "/tmp/ftp"}, {"a b", "p", "/tmp/ftp"},
      {"u;reboot", "p", "/tmp/ftp"}, {"", "p", "/tmp/ftp"}, {"u23456789012345678901234567890123", "p", "/tmp/ftp"},
      {"u", "p\nq", "/tmp/ftp"},  {nullptr, "p", "/tmp/ftp"}, {"u", nullptr, "/tmp/ftp"}, {"u", "p", nullptr}};
  for (const auto& h : hostile) EXPECT_EQ(SetFtp(h[0], h[1], h[2]), -1) << (h[2] ? h[2] : "(null)");
  for (const char* user : {"*", "-a", "a b", "x;reboot", ""}) EXPECT_EQ(DelFtp(user), -1);
  EXPECT_EQ(box.calls(), "");
  EXPECT_EQ(modes(), etc);
  EXPECT_FALSE(std::filesystem::exists("ftp") || std::filesystem::exists("-rf") || box.exists("/tmp/ftp"));

  const std::string password = "pa$s 'w\"d` $(x)";
  EXPECT_EQ(SetFtp("ftp.user-1", password.c_str(), "/tmp/ftp"), 0);
  EXPECT_EQ(std::filesystem::status(box.path("/tmp/ftp")).permissions(), std::filesystem::perms::all);
  EXPECT_EQ(box.read("/sim/ftp_accounts"), "ftp.user-1\t" + password + "\t" + box.path("/tmp/ftp") + "\n");
  EXPECT_EQ(DelFtp("ftp.user-1"), -1);
  EXPECT_EQ(box.read("/sim/ftp_accounts"), "");
  const std::string log = box.read("/tmp/sdklog.log");
  EXPECT_EQ(log.find("pa$s"), std::string::npos);
  EXPECT_NE(log.find("fun=SetFtp,usr =ftp.user-1,password=***,path=/tmp/ftp"), std::string::npos) << log;
}

}  // namespace
}  // namespace fsu::sdk
