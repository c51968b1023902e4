#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <cstdio>
#include <string>
#include <vector>

#include "console/console_texts.h"
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

// The printf conversions of a text and its line ends, which both renderings must share.
std::string shape_of(const std::string& text) {
  static const std::regex conversion("%[-+ #0]*[0-9]*(\\.[0-9]+)?(hh|h|ll|l|z)?[diouxXfFeEgGcsp%]");
  std::string shape;
  for (std::sregex_iterator it(text.begin(), text.end(), conversion), end; it != end; ++it) shape += it->str();
  for (const char c : text) shape += c == '\r' ? "r" : c == '\n' ? "n" : c == '\t' ? "t" : "";
  return shape;
}

TEST(ConsoleTexts, EveryChineseTextOfTheConsoleHasAnEnglishOneWithTheSameConversionsAndTheOriginalIsTheDefault) {
  std::set<std::string> keys;
  for (std::size_t i = 0; i < kConsoleTextCount; ++i) {
    const std::string chinese = kConsoleTexts[i].chinese, english = kConsoleTexts[i].english;
    EXPECT_TRUE(keys.insert(chinese).second) << chinese;
    EXPECT_FALSE(english.empty() || std::any_of(english.begin(), english.end(), [](char c) { return c & 0x80; })) << english;
    EXPECT_EQ(shape_of(english), shape_of(chinese)) << english;  // a printf with the other's arguments is safe
  }
  // Every text of the console's sources that is not plain ASCII is in the table (the web page's
  // report of web_mode.cpp is the page's data, not the console's words).
  const std::regex literal("\"((?:[^\"\\\\\\n]|\\\\.)*)\"");
  for (const char* file : {"/main.cpp", "/menu.cpp", "/test_routines.cpp"}) {
    std::ifstream in(std::string(FSU_CONSOLE_DIR) + file);
    std::stringstream source;
    source << in.rdbuf();
    std::string text = std::regex_replace(source.str(), std::regex("\"\\s*\\n\\s*\""), "");  // joined as the compiler joins them
    for (std::sregex_iterator it(text.begin(), text.end(), literal), end; it != end; ++it) {
      std::string shown = (*it)[1].str();
      if (std::none_of(shown.begin(), shown.end(), [](char c) { return c & 0x80; })) continue;
      for (const auto& [escape, byte] : {std::pair{"\\r", "\r"}, {"\\n", "\n"}, {"\\t", "\t"}})
        for (std::size_t at; (at = shown.find(escape)) != std::string::npos;) shown.replace(at, 2, byte);
      EXPECT_TRUE(keys.count(shown)) << file << ": " << shown;
    }
  }
  EXPECT_STREQ(tr("输入测试项: "), "输入测试项: ");
  use_english(true);
  EXPECT_STREQ(tr("输入测试项: "), "Test item: ");
  EXPECT_STREQ(tr("not in the table"), "not in the table");
  use_english(false);
}

}  // namespace
}  // namespace fsu::console
