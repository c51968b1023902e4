// The console's line reader: bounded lines, both line ends, the decimal prefix, end of input.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>

#include "console/menu.h"

namespace fsu::console {
namespace {

struct Input {
  explicit Input(const std::string& text) : data(text) {
    file = fmemopen(data.data(), data.size(), "r");
  }
  ~Input() { std::fclose(file); }
  std::string data;
  std::FILE* file;
};

TEST(ConsoleLine, ReadsLinesEndedByLineFeedOrCarriageReturn) {
  Input in("12abc\n5\r\r\n7");
  char line[kLineSize];
  ASSERT_EQ(read_console_line(in.file, line, sizeof line), 5);
  EXPECT_STREQ(line, "12abc");
  EXPECT_EQ(console_number(line), 12);
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), 1);
  EXPECT_STREQ(line, "5");
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), 0);  // "\r\n" gives an empty line
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), 0);
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), 1);  // last line without its end
  EXPECT_STREQ(line, "7");
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), -1);
  EXPECT_EQ(read_console_line(in.file, line, sizeof line), -1);
}

TEST(ConsoleLine, LongLinesAreCutAndTheNextLineIsIntact) {
  Input in(std::string(100000, '9') + "\n2\n");
  char line[kLineSize + 8];
  line[kLineSize] = 'x';
  ASSERT_EQ(read_console_line(in.file, line, kLineSize), 1023);
  EXPECT_EQ(line[kLineSize], 'x');
  EXPECT_EQ(console_number(line), INT_MAX);
  ASSERT_EQ(read_console_line(in.file, line, kLineSize), 1);
  EXPECT_EQ(console_number(line), 2);
}

TEST(ConsoleLine, NumbersConvertLikeADecimalPrefix) {
  EXPECT_EQ(console_number(""), 0);
  EXPECT_EQ(console_number("abc"), 0);
  EXPECT_EQ(console_number("  19"), 19);
  EXPECT_EQ(console_number("0012"), 12);
  EXPECT_EQ(console_number("-3x"), -3);
  EXPECT_EQ(console_number("+8893"), 8893);
  EXPECT_EQ(console_number("-99999999999999"), INT_MIN);
  EXPECT_EQ(console_number(nullptr), 0);
}

}  // namespace
}  // namespace fsu::console
