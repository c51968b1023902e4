#include "support/file_helpers.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>

#include "tests/common/test_sandbox.h"

namespace fsu::support {
namespace {

TEST(FileHelpersTest, ReadParWritesReadsHexLogsAndTimes) {
  test::TestSandbox box;
  const auto par = [&](const std::string& text, const char* key) -> std::string {
    box.write("/tmp/req", text);
    const char* value = BSP_ReadPar("/tmp/req", key);
    return value != nullptr ? value : "(null)";
  };
  for (const auto& [text, key, value] :
       {std::tuple{std::string("set_com=3;set_value=1"), "set_com", "3"},
        {"com_num=2\r\ncom1_attr=9600", "com", "num=2"},  // plain substring match
        {"a=1\ninfo=rest of file", "info", "rest of file"}, {"a=1\ninfo", "info", ""},  // nothing behind the key
        {"a=1", "info", "(null)"}, {"", "a", "(null)"},
        {std::string("\0\xff\r\n;=\x01", 7) + "LineMAX=12\n", "LineMAX", "12"}})  // binary
    EXPECT_EQ(par(text, key), value) << key;
  EXPECT_EQ(BSP_ReadPar("/tmp/missing", "a"), nullptr);
  EXPECT_EQ(par("info=" + std::string(20000, 'v'), "info").size(), 10000u);
  // 1 MiB files, with the key at and around the edge of the reader's 64 KiB window.
  for (std::size_t at = 65528; at < 65552; at += 3) {
    std::string big(1 << 20, 'x');
    big.replace(at, 11, "WaitSec=77;");
    EXPECT_EQ(par(big, "WaitSec"), "77") << at;
  }

  const int wrote[] = {WriteDATA_To_File("/tmp/out", "12345"), WriteLOGDATA_To_File("/tmp/out", "678"),
                       Update_InfoToFile("/tmp/out", "AB")};  // in this order
  EXPECT_EQ(wrote[0] + wrote[1] + wrote[2], 3);
  EXPECT_EQ(box.read("/tmp/out"), "AB345678");
  EXPECT_EQ(std::filesystem::status(box.path("/tmp/out")).permissions(), std::filesystem::perms::owner_all);  // 0700
  EXPECT_EQ(WriteDATA_To_File("/tmp/no/dir", "x"), -1);
  char buf[64];
  EXPECT_EQ(Read_Data_File("/tmp/out", buf, 5), 5);  // bounded by the buffer, then by the file
  EXPECT_EQ(Read_Data_File("/tmp/out", buf, sizeof buf), 8);
  EXPECT_EQ(Read_Data_File("/tmp/none", buf, sizeof buf), 0);
  const int fd = FSU_get_fd("/tmp/out");
  EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);  // never leaked into shell commands
  close(fd);
  EXPECT_STREQ(syscmd_read("echo hello world", buf, sizeof buf), "hello world\n");
  EXPECT_STREQ(ReadsyscmdReturn("echo hello world", buf, sizeof buf), "hello");
  EXPECT_STREQ(syscmd_read("echo abcdef", buf, 4), "abc");
  EXPECT_STREQ(syscmd_read("echo No such Entry", buf, sizeof buf), "");
  EXPECT_STREQ(syscmd_read("echo can\\'t open", buf, sizeof buf), "");
  setenv("TZ", "UTC", 1), tzset();
  EXPECT_STREQ(Return_systime_string(0), "1970-01-01 00:00:00");
  EXPECT_TRUE(strtotime("2026-03-04 09:05:07") == 1772615107 && strtotime("not a date") == -1);

  const unsigned char tx[] = {0x01, 0x03};  // the plain port records: the serial port tests
  BSP_SAVE_HEX_LOG_Virtual("Local/Uart/13", tx, 1, 0, 1000, 1000);
  const std::string log = box.read("/tmp/comlog.log");
  EXPECT_TRUE(std::regex_match(log, std::regex("\r\n\\[[-0-9]{10} [0-9:]{8}\\]:\\[Local/Uart/13\\]\\[01000\\(this is a Virtual com\\)\\]"
                                               "\r\nTX:01 \r\nRX\\(this is a Virtual com\\):"))) << log;
  EXPECT_EQ(BSP_SAVE_HEX_LOG("Local/Uart/3", tx, 2, 0, 1000, 1001), -2);
  EXPECT_EQ(BSP_SAVE_HEX_LOG("Local/Uart/3", tx, 0, 0, 1000, 1), -1);
  EXPECT_EQ(BSP_SAVE_DTU_HEX_LOG(tx, -3), -1);
  const std::string block(10000, '\x5A');  // far more than one record holds (short ones: the web request tests)
  EXPECT_EQ(BSP_SAVE_DTU_HEX_LOG(reinterpret_cast<const unsigned char*>(block.data()), 10000), 1);
  EXPECT_EQ(FSU_get_file_size("/tmp/web_dtu_com_log.log"), 20479);  // cut at the buffer
}

}  // namespace
}  // namespace fsu::support
