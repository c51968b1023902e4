// What fsuctl reads out of a running SDK program's web answers, which lie in the unit's /tmp where
// anyone may write (hostile text gives no value, never a wrong one), and the results in words.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "fsusdk.h"
#include "tools/fsuctl/answers.h"

namespace fsuctl {
namespace {

// The input report as the SDK writes it, two analogue inputs and 18 digital ones.
const std::string kReport =
    "AI 01 电压型(0-5V)In:0.000000 V ----- 电流型(4-20ma)In:0.000000 ma ;"
    "AI 02 电压型(0-5V)In:2.500000 V ----- 电流型(4-20ma)In:12.500000 ma ;"
    ";0:开路/断开 信号---- 1:短路/闭合 信号;\r\nDI1-08: 0 , 1 , 0 , 0 , 0 , 0 , 0 , 0 ,"
    ";DI9-16: 0 , 0 , 0 , 0 , 0 , 0 , 0 , 1 ,;DI17-18: 1 ,:NULL ;";

TEST(FsuctlAnswers, ReadsTheInputAndPositionReportsAndNothingFromTextThatIsNotOne) {
  const auto ai = report_analogue(kReport, 2);
  ASSERT_TRUE(ai);
  EXPECT_EQ(std::pair(ai->volts, ai->milliamps), std::pair(2.5, 12.5));
  EXPECT_EQ(report_analogue(kReport, 1)->volts, 0.0);
  for (const auto& [n, value] : std::vector<std::pair<int, int>>{{1, 0}, {2, 1}, {16, 1}, {17, 1}, {15, 0}}) {
    EXPECT_EQ(report_digital(kReport, n), value) << n;
  }
  EXPECT_FALSE(report_without_inputs(kReport));
  EXPECT_TRUE(report_without_inputs("环境板通信异常,请打开设备查看主板与环境板之间排线是否连接正常;\r\n;0:开路"));
  const auto position = report_position(
      "经度=121.47370100,纬度=31.23040000,高度=20.700001;GPS有效卫星数=9,GPS可视卫星数=10;北斗有效卫星数=7,北斗可视卫星数=8\r\n");
  ASSERT_TRUE(position);
  EXPECT_EQ(*position, (std::vector<double>{121.473701, 31.2304, 20.700001, 9, 10, 7, 8}));

  // Hostile or broken answers: an input that is not there, one that could not be read, numbers
  // that are not numbers, a report cut short, bytes of no report at all.
  EXPECT_FALSE(report_analogue(kReport, 3));
  EXPECT_FALSE(report_analogue(kReport, 0));
  EXPECT_FALSE(report_digital(kReport, 18));  // NULL
  EXPECT_FALSE(report_digital(kReport, 19));
  EXPECT_FALSE(report_digital(kReport, 0));
  for (const std::string& bad : {std::string("AI 02 In:nan V ----- In:1 ma ;"), std::string("AI 02 In:1e999 V ----- In:1 ma"),
                                 std::string("AI 02 In:2.5 V"), std::string("AI 02 In: NULL ----- In:1 ma ;"),
                                 std::string(3000, '\xff'), std::string("AI 02 In:-- V ----- In:. ma")}) {
    EXPECT_FALSE(report_analogue(bad, 2)) << bad;
  }
  for (const std::string& bad : {std::string("DI1-08: 7 , 1 ,"), std::string("DI1-08: 10 ,"), std::string("DI1-08: x1 ,"),
                                 std::string("DI1-08"), std::string(64, 'D')}) {
    EXPECT_FALSE(report_digital(bad, 1)) << bad;
  }
  EXPECT_FALSE(report_position("经度=1,纬度=2,高度=3;GPS有效卫星数=4"));
  EXPECT_FALSE(report_position("经度=x,纬度=2,高度=3;a=4,b=5;c=6,d=7"));
}

TEST(ResultTexts, EveryResultOfTheSdkAndEveryDriverErrorNumberHasItsOwnText) {
  std::set<std::string> texts;
  for (const int code : {FSU_OK, FSU_ERR_FAILED, FSU_ERR_UNSUPPORTED, FSU_ERR_NO_ANSWER, FSU_ERR_COM_PARAM, FSU_ERR_COM_IO,
                         FSU_ERR_COM_DEVICE}) {
    const std::string text = FsuErrorText(code);
    EXPECT_TRUE(texts.insert(text).second) << code;
    EXPECT_NE(text, "unknown result") << code;
  }
  EXPECT_EQ(GetSupportedExtendType(nullptr), FSU_ERR_UNSUPPORTED);  // the one call with its own result
  EXPECT_STREQ(FsuErrorText(0x01020003), "unknown result");
  EXPECT_STREQ(FsuErrorText(-4), "unknown result");
}

}  // namespace
}  // namespace fsuctl
