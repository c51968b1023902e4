#include "support/sdk_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "tests/common/test_sandbox.h"

namespace fsu::support {
namespace {

constexpr long kRotate = 2097152;

class SdkLogTest : public ::testing::Test {
 protected:
  void SetUp() override { reset_log_for_tests(); }
  test::TestSandbox sandbox_;
};

// Record numbers in the order the records stand in `text`.
std::vector<int> record_numbers(const std::string& text) {
  std::vector<int> numbers;
  for (auto at = text.find("Line="); at != std::string::npos; at = text.find("Line=", at + 1)) {
    numbers.push_back(std::stoi(text.substr(at + 5, 10)));
  }
  return numbers;
}

void run_threads(int threads, int records, const std::string& padding) {
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t) {
    workers.emplace_back([=] {
      for (int i = 0; i < records; ++i) SDK_LOG_WRITE(SDK_LOG_SYS, "t=%d,%s", t, padding.c_str());
    });
  }
  for (auto& w : workers) w.join();
}

TEST(SdkLogHeader, IsByteExactForEveryLevel) {
  std::tm t{};
  t.tm_year = 126, t.tm_mon = 2, t.tm_mday = 4, t.tm_hour = 9, t.tm_min = 5, t.tm_sec = 7;
  char buf[kLogHeaderSize];
  format_log_header(buf, sizeof buf, SDK_LOG_DEBUG, t, 42999, 17);
  EXPECT_STREQ(buf, "\r\n[2026-03-04 09:05:07.42 sdk_DEBUG Line=0000000017]:");
  format_log_header(buf, sizeof buf, SDK_LOG_SO, t, 5000, 3);
  EXPECT_STREQ(buf, "\r\n[2026-03-04 09:05:07.5 sdk_SO    Line=0000000003]:");
  const char* words[] = {"sdk_OTHER", "sdk_SQL  ", "sdk_ERROR", "sdk_NET  ", "sdk_SO   ",
                         "sdk_SYS  ", "sdk_PIC  ", "sdk_OTHER", "sdk_DEBUG", "sdk_OTHER"};
  for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 42, -1}) {
    format_log_header(buf, sizeof buf, level, t, 999000, 1);
    const char* word = words[level >= 0 && level <= 9 ? level : 0];
    EXPECT_EQ(std::string(buf).substr(27), std::string(word) + " Line=0000000001]:") << level;
  }
}

TEST_F(SdkLogTest, EachLevelReadsItsOwnSettingAndUsesANumber) {
  auto& p = STR_LOG_PAR;
  const auto fields = {&p.sql, &p.error, &p.net, &p.so, &p.sys, &p.pic, &p.other, &p.debug};  // levels 1 to 8
  int setting = 11;
  for (auto* f : fields) f->store(setting++);
  char buf[kLogHeaderSize];
  for (int level = 1; level <= 8; ++level) EXPECT_EQ(SDK_UPDATE_LOG_HEADER(level, buf), 10 + level);
  for (int level : {0, 9, 42, -5}) EXPECT_EQ(SDK_UPDATE_LOG_HEADER(level, buf), 17);  // as "other"
  EXPECT_EQ(SDK_UPDATE_LOG_HEADER(SDK_LOG_SYS, nullptr), 0);
  EXPECT_EQ(log_record_count(), 12);
  SDK_LOG_PAR_INIT();
  for (auto* f : fields) EXPECT_EQ(f->load(), 2);
  SDK_LOG_PAR_INIT_NOPRINTF();
  for (auto* f : fields) EXPECT_EQ(f->load(), 0);
}

TEST_F(SdkLogTest, SuppressedAndDroppedRecordsTouchNothingButUseNumbers) {
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "before init"), 0);
  EXPECT_FALSE(sandbox_.exists(kLogFile));
  sandbox_.write(kLogFile, std::string(kRotate + 1, 'x'));
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "silenced"), 0);
  EXPECT_EQ(getfilesize(kLogFile), kRotate + 1);  // not even checked for size
  std::filesystem::remove(sandbox_.path(kLogFile));
  STR_LOG_PAR.sys = 4;
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "dropped"), 0);
  EXPECT_FALSE(sandbox_.exists(kLogFile));

  STR_LOG_PAR.net = LOG_OUT_CONSOLE;
  testing::internal::CaptureStdout();
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_NET, "csq=%d", 31), 1);
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with(" Line=0000000004]:csq=31"));
  EXPECT_FALSE(sandbox_.exists(kLogFile));

  SDK_LOG_PAR_INIT();
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_DEBUG, "fun=%s,line =%d", "SoftDogFeed", 455), 1);
  const std::regex record(
      "\r\n\\[\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{1,3} "
      "sdk_DEBUG Line=0000000005\\]:fun=SoftDogFeed,line =455");
  EXPECT_TRUE(std::regex_match(sandbox_.read(kLogFile), record)) << sandbox_.read(kLogFile);
}

TEST_F(SdkLogTest, RotatesOnlyAboveTwoMebibytesAndCutsLongRecords) {
  SDK_LOG_PAR_INIT();
  sandbox_.write(kLogFile, std::string(kRotate, 'x'));
  SDK_LOG_WRITE(SDK_LOG_SYS, "kept");
  EXPECT_FALSE(sandbox_.exists(kLogZip));
  sandbox_.write(kLogZip, "older generation");
  SDK_LOG_WRITE(SDK_LOG_SYS, "fresh");
  const std::string log = sandbox_.read(kLogFile);
  EXPECT_EQ(record_numbers(log), std::vector<int>{2});
  EXPECT_TRUE(log.ends_with("]:fresh"));
  EXPECT_EQ(sandbox_.read(kLogZip).substr(0, 2), "PK");  // replaced by the packed log

  std::filesystem::remove(sandbox_.path(kLogFile));
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "%s", std::string(200000, 'm').c_str()), 1);
  EXPECT_EQ(getfilesize(kLogFile), 102398);

  std::filesystem::remove_all(sandbox_.path("/tmp"));  // an unwritable log still counts as output
  testing::internal::CaptureStderr();
  EXPECT_EQ(SDK_LOG_WRITE(SDK_LOG_SYS, "lost"), 1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("open"), std::string::npos);
}

TEST_F(SdkLogTest, ConcurrentFileRecordsAreWholeAndInOrder) {
  SDK_LOG_PAR_INIT();
  const std::string padding(300, 'p');
  run_threads(4, 500, padding);
  const std::string text = sandbox_.read(kLogFile);
  const std::regex record("\\[[-0-9: .]+ sdk_SYS   Line=\\d{10}\\]:t=\\d," + padding);
  std::size_t records = 0;
  for (std::size_t at = 2; at < text.size(); ++records) {
    const std::size_t next = std::min(text.find("\r\n", at), text.size());
    ASSERT_TRUE(std::regex_match(text.substr(at, next - at), record)) << text.substr(at, 80);
    at = next + 2;
  }
  EXPECT_EQ(records, 2000u);
  const std::vector<int> numbers = record_numbers(text);
  for (std::size_t i = 0; i < numbers.size(); ++i) ASSERT_EQ(numbers[i], static_cast<int>(i + 1));
}

TEST_F(SdkLogTest, EightyThousandConcurrentRecordsAreNumberedWithoutGapOrRepeat) {
  STR_LOG_PAR.sys = LOG_OUT_CONSOLE;  // 80,000 records would rotate the file
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  FILE* out = std::fopen(sandbox_.path("/tmp/stdout.txt").c_str(), "w");
  ASSERT_NE(out, nullptr);
  dup2(fileno(out), STDOUT_FILENO);
  run_threads(8, 10000, "");
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
  std::fclose(out);

  std::vector<int> numbers = record_numbers(sandbox_.read("/tmp/stdout.txt"));
  ASSERT_EQ(numbers.size(), 80000u);
  std::sort(numbers.begin(), numbers.end());
  for (int i = 0; i < 80000; ++i) ASSERT_EQ(numbers[i], i + 1);
}

}  // namespace
}  // namespace fsu::support
