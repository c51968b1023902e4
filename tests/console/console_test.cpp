#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <string>
#include <vector>

#include "console/menu.h"

namespace fsu::console {
namespace {

// Every line of `text` as the reader keeps it (buffers of `size`), "^" at the end of input. The fuzz target
// checks that lines stay terminated inside their buffer.
std::string lines_of(std::string text, std::size_t size = kLineSize) {
  std::FILE* in = fmemopen(text.data(), text.size(), "r");
  std::vector<char> line(size);
  std::string out;
  for (int kept = 0; (kept = read_console_line(in, line.data(), size)) >= 0;) out += std::string(line.data(), kept) + "|";
  std::fclose(in);
  return out + "^";
}

TEST(ConsoleLine, ReadsLinesEndedByLineFeedOrCarriageReturnCutsLongOnesAndNumbersConvertLikeADecimalPrefix) {
  EXPECT_EQ(lines_of("12abc\n5\r\r\n7"), "12abc|5|||7|^");  // "\r\n" gives an empty line; the last without its end
  EXPECT_EQ(lines_of(std::string(100000, '9') + "\n2\n"), std::string(1023, '9') + "|2|^");
  EXPECT_EQ(lines_of("", 4), "^");
  for (const auto& [line, number] : {std::pair{"", 0}, {"abc", 0}, {"  19", 19}, {"0012", 12}, {"12abc", 12}, {"-3x", -3},
                                     {"+8893", 8893}, {"-99999999999999", INT_MIN}, {"99999999999999", INT_MAX}})
    EXPECT_EQ(console_number(line), number) << line;
  EXPECT_EQ(console_number(nullptr), 0);
}

}  // namespace
}  // namespace fsu::console
