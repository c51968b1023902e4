#include "support/sdk_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "fsusdk.h"
#include "platform/clock.h"
#include "platform/safe_file.h"
#include "support/file_helpers.h"
#include "tests/common/test_sandbox.h"

namespace fsu::support {
namespace {

struct SdkLogTest : ::testing::Test {
  void SetUp() override { reset_log_for_tests(); }
  test::TestSandbox sandbox_;
};

TEST_F(SdkLogTest, HeaderIsByteExactAndEachLevelReadsItsOwnSettingAndUsesANumber) {
  std::tm t{};
  t.tm_sec = 7, t.tm_min = 5, t.tm_hour = 9, t.tm_mday = 4, t.tm_mon = 2, t.tm_year = 126;
  char buf[kLogHeaderSize];
  const char* words[] = {"OTHER", "SQL  ", "ERROR", "NET  ", "SO   ", "SYS  ", "PIC  ", "OTHER", "DEBUG", "OTHER"};
  for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 42, -1}) {
    format_log_header(buf, sizeof buf, level, t, 42999, 17);  // milliseconds, unpadded
    EXPECT_EQ(std::string(buf), "\r\n[2026-03-04 09:05:07.42 sdk_" + std::string(words[level >= 0 && level <= 9 ? level : 0]) +
                                    " Line=0000000017]:");
  }
  auto& p = STR_LOG_PAR;
  const auto fields = {&p.sql, &p.error, &p.net, &p.so, &p.sys, &p.pic, &p.other, &p.debug};  // levels 1 to 8
  for (int setting = 11; auto* f : fields) f->store(setting++);
  for (int level = 1; level <= 8; ++level) EXPECT_EQ(SDK_UPDATE_LOG_HEADER(level, buf), 10 + level);
  for (int level : {0, 9, 42, -5}) EXPECT_EQ(SDK_UPDATE_LOG_HEADER(level, buf), 17);  // as "other"
  EXPECT_EQ(SDK_UPDATE_LOG_HEADER(SDK_LOG_SYS, nullptr), 0);
  EXPECT_EQ(log_record_count(), 12);
  SDK_LOG_PAR_INIT();
  for (auto* f : fields) EXPECT_EQ(f->load(), 2);
  SDK_LOG_PAR_INIT_NOPRINTF();
  for (auto* f : fields) EXPECT_EQ(f->load(), 0);
}

TEST_F(SdkLogTest, SuppressedAndDroppedRecordsTouchNothingButUseNumbersAndCallerTextCannotStartARecord) {
  sandbox_.write(kLogFile, std::string(kLogRotateSize + 1, 'x'));
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "silenced"), 0);
  EXPECT_EQ(getfilesize(kLogFile), kLogRotateSize + 1);  // neither written nor rotated
  std::filesystem::remove(sandbox_.path(kLogFile));
  STR_LOG_PAR.sys = 4;
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "dropped"), 0);
  EXPECT_FALSE(sandbox_.exists(kLogFile));

  STR_LOG_PAR.net = LOG_OUT_CONSOLE;
  testing::internal::CaptureStdout();
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_NET, "csq=%d", 31), 1);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with(" Line=0000000003]:csq=31"));
  EXPECT_FALSE(sandbox_.exists(kLogFile));

  SDK_LOG_PAR_INIT();
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,line =%d", "SoftDogFeed", 455), 1);
  const std::regex record("\r\n\\[[-0-9]{10} [0-9:]{8}\\.\\d{1,3} sdk_DEBUG Line=0000000004\\]:"
                          "fun=SoftDogFeed,line =455");
  EXPECT_TRUE(std::regex_match(sandbox_.read(kLogFile), record)) << sandbox_.read(kLogFile);

  // Caller text cannot start a record.
  EXPECT_STREQ(LogText("a\r\nb\\\x01\tc\x7f中").c_str(), "a\\r\\nb\\\\\\x01\\tc\\x7F中");
  EXPECT_STREQ(LogText(nullptr).c_str(), "(null)");
  const char* forged = "/x.gz\r\n[2026-01-01 00:00:00.0 sdk_SYS   Line=0000000099]:forged";
  char alias[256];
  UpdateSDK(forged), SetDOValue(forged, 1), WriteUart(forged, "x", 1), ReadResourceAlias(forged, alias, sizeof alias);
  DialDial(forged, forged), SetFtp(forged, "p", forged), DelFtp(forged);
  const std::string log = sandbox_.read(kLogFile);
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), log_record_count() - 3) << log;  // 3 records not in the file
  EXPECT_EQ(std::count(log.begin(), log.end(), '\r'), log_record_count() - 3);
}

TEST_F(SdkLogTest, RotatesOnlyAboveTwoMebibytesAndNotAgainForAMinuteAfterAFailureAndCutsLongRecords) {
  SDK_LOG_PAR_INIT();
  sandbox_.write(kLogFile, std::string(kLogRotateSize, 'x'));
  SDK_LOG_WRITE(SDK_LOG_SYS, "kept");
  EXPECT_FALSE(sandbox_.exists(kLogZip));
  sandbox_.write(kLogFile, std::string(kLogRotateSize + 1, 'x'));
  sandbox_.write(kLogZip, "older generation");  // removed, then packed anew, then the log removed
  SDK_LOG_WRITE(SDK_LOG_SYS, "fresh");
  const std::string log = sandbox_.read(kLogFile);
  EXPECT_TRUE(log.size() < 100 && log.ends_with(" Line=0000000002]:fresh")) << log.size();
  EXPECT_EQ(sandbox_.read(kLogZip).substr(0, 2), "PK");
  sandbox_.write(kLogFile, std::string(kLogRotateSize + 1, 'x'));
  SDK_LOG_WRITE(SDK_LOG_SYS, "again");  // and the next time the log is too large
  EXPECT_LT(getfilesize(kLogFile), 100);
  std::filesystem::remove(sandbox_.path(kLogFile));
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "%s", std::string(200000, 'm').c_str()), 1);
  EXPECT_EQ(getfilesize(kLogFile), 102398);
  // A log that cannot be moved aside is tried again only after a minute.
  sandbox_.write(kLogFile, std::string(kLogRotateSize + 1, 'x'));
  std::filesystem::remove(sandbox_.path(kLogZip));
  std::filesystem::create_directories(sandbox_.path("/tmp/sdklog.log.1/full"));  // the move fails
  SDK_LOG_WRITE(SDK_LOG_SYS, "first");
  std::filesystem::remove_all(sandbox_.path("/tmp/sdklog.log.1"));
  SDK_LOG_WRITE(SDK_LOG_SYS, "second");  // the move would work now
  EXPECT_TRUE(getfilesize(kLogFile) > kLogRotateSize && !sandbox_.exists(kLogZip));
  // A /tmp that cannot be written: every record still counts as output, and standard error gets
  // one line per failure period, not one per record (the clock is moved on, not waited for).
  std::filesystem::remove_all(sandbox_.path("/tmp"));
  platform::advance_monotonic_for_tests(platform::kFileFailurePeriod);
  testing::internal::CaptureStderr();
  int output = 0;
  const unsigned char bytes[] = {0x41};
  for (int period = 0; period < 2; ++period, platform::advance_monotonic_for_tests(platform::kFileFailurePeriod - 1)) {
    for (int i = 0; i < 300; ++i) output += SDK_LOG_WRITE(SDK_LOG_SYS, "lost"), BSP_SAVE_HEX_LOG("Local/Uart/1", bytes, 1, 0, 9, 1);
  }
  const std::string errors = testing::internal::GetCapturedStderr();
  EXPECT_EQ(output, 600);
  EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;  // a period is not over yet
  testing::internal::CaptureStderr();
  platform::advance_monotonic_for_tests(1);
  SDK_LOG_WRITE(SDK_LOG_SYS, "lost");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "open /tmp/sdklog.log: No such file or directory (further file failures for 60 s not shown)\n");
}

TEST_F(SdkLogTest, ConcurrentRecordsAreWholeAndNumberedInFileOrder) {
  SDK_LOG_PAR_INIT();
  constexpr int kThreads = 8, kRecords = 2000;  // about 1.7 MB: below the rotation size
  const std::string padding(50, 'p');
  std::vector<std::jthread> workers;
  for (int t = 0; t < kThreads; ++t)
    workers.emplace_back([&, t] { for (int i = 0; i < kRecords; ++i) SDK_LOG_WRITE(SDK_LOG_SYS, "t=%d,%s", t, padding.c_str()); });
  workers.clear();  // joins
  const std::string text = sandbox_.read(kLogFile);
  const std::regex record("\r\n\\[[-0-9: .]+ sdk_SYS   Line=(\\d{10})\\]:t=\\d," + padding);
  int number = 0;  // whole records back to back, numbered in file order
  for (std::sregex_iterator it(text.begin(), text.end(), record), end; it != end; ++it)
    ASSERT_TRUE(it->prefix().length() == 0 && std::stoi((*it)[1]) == ++number) << it->str();
  EXPECT_EQ(number, kThreads * kRecords);
}

}  // namespace
}  // namespace fsu::support
