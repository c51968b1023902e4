// The environment board's answers and relay commands without a wire: decoding at fixed
// positions, the gathering rule of record 14, and the relay command's mask.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

// A 190-character answer: voltage and current words, then DI bytes 1 and 2, a spare byte,
// the relay byte, the fifth status byte, 12 characters and the status byte.
std::string answer(const std::uint16_t (&volts)[16], const std::uint16_t (&currents)[16], const std::string& tail) {
  std::string t = "~21014100E0BE";
  char word[9];
  for (int c = 0; c < 16; ++c) {
    std::snprintf(word, sizeof word, "%04X%04X", volts[c], currents[c]);
    t += word;
  }
  t += tail;
  return t + std::string(190 - t.size(), '0');
}

// The first n bytes of a field as digits, "1000..." for {1, 0, 0, 0, ...}.
template <std::size_t N>
std::string digits(const std::atomic<std::uint8_t> (&field)[N], std::size_t n = N) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) out += static_cast<char>('0' + field[i].load());
  return out;
}

std::unique_ptr<STR_BSP_ENV_INFO_T> decoded(const std::string& text, int cycle) {
  auto info = std::make_unique<STR_BSP_ENV_INFO_T>();
  EXPECT_TRUE(decode_env_answer(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), cycle, *info));
  return info;
}

TEST(EnvironmentAnswer, ConvertsWordsInputsRelaysAndStatus) {
  const auto info = decoded(answer({0x5000, 0xFFFE, 0xFFFF}, {0x3200, 0x31FF, 0xFA00, 0xFFFB},
                                   "FE0f0005810000000000005A"),
                            0);
  EXPECT_NEAR(info->fAiVolt[0].load(), 1.6, 1e-6);
  EXPECT_EQ(info->fAiVolt[1].load() + info->fAiVolt[2].load(), 0.0f);  // 0xFFFE and 0xFFFF: no reading
  EXPECT_EQ(info->usAiVoltRaw[1].load(), 0xFFFE);
  EXPECT_EQ(std::vector<float>({info->fAiCurr[0], info->fAiCurr[1], info->fAiCurr[2], info->fAiCurr[3]}),
            std::vector<float>({4.0f, 0.0f, 20.0f, 0.0f}));  // 0x3200 to 0xFFFA only
  EXPECT_EQ(digits(info->ucDi), "1000000000001111");  // FE: input 1 closed; 0f: 13 to 16 closed
  EXPECT_EQ(digits(info->ucDoState), "10100000");
  EXPECT_EQ(digits(info->ucStatusBits), "10000001");
  EXPECT_EQ(info->ucStatusByte.load(), 0x5A);

  STR_BSP_ENV_INFO_T untouched{};
  EXPECT_FALSE(decode_env_answer(reinterpret_cast<const std::uint8_t*>("~2101"), 185, 0, untouched));
  EXPECT_FALSE(decode_env_answer(nullptr, 200, 0, untouched));
}

TEST(EnvironmentAnswer, SnapsReadingsNearATenthOfAVoltWithAFewMicrovolts) {
  const struct {
    std::uint16_t raw;
    double volts;
    bool snapped;
  } cases[] = {{0x6434, 2.0, true},      {0x68C2, 2.1, true},   {0x68AD, 2.1, true},
               {0x6446, 2.00546875, false}, {0x6680, 2.05, false}, {0x0200, 0.04, false}};
  for (const auto& k : cases) {
    std::uint16_t volts[16];
    std::fill(std::begin(volts), std::end(volts), k.raw);
    double highest = 0;  // on every channel and cycle, so that the shift takes all its values
    for (int cycle = 0; cycle <= 9; ++cycle) {
      const auto info = decoded(answer(volts, {}, ""), cycle);
      for (auto& v : info->fAiVolt) {
        EXPECT_GE(v.load() - k.volts, -2.5e-7) << k.raw;
        highest = std::max(highest, v.load() - k.volts);
      }
    }
    EXPECT_NEAR(highest, k.snapped ? 9e-6 : 0, 5e-7) << k.raw;
  }
}

TEST(EnvironmentGathering, WaitsUpTo17BytesDiscardsShortAnswersDecodesFrom186) {
  test::TestSandbox box;  // the handler logs
  const std::string text = answer({0x5000}, {}, "") + std::string(5000, '0');
  const auto piece = [&](std::size_t from, std::size_t n) {
    env_answer_handler(reinterpret_cast<const std::uint8_t*>(text.data()) + from, static_cast<std::int32_t>(n), 0);
    return LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.load();
  };
  const auto decodes = [] { return sdk::BSP_BOARD_HARDWARE_RESOURCES[2] + sdk::BSP_BOARD_HARDWARE_RESOURCES[3]; };
  EXPECT_EQ(piece(0, 20), 0);  // past 17 bytes at once: discarded, as is the rest
  EXPECT_EQ(piece(20, 180), 0);
  EXPECT_EQ(piece(0, 17), 17);  // waits
  EXPECT_EQ(piece(17, 168), 0);  // 185 bytes: one short
  EXPECT_EQ(decodes(), 0);
  EXPECT_EQ(REAG_ENV_BOARD_RIGHT_FG(), 1);
  EXPECT_EQ(REAG_ENV_BOARD_RIGHT_FG(), 0);
  EXPECT_EQ(piece(0, 10), 10);
  EXPECT_EQ(piece(10, 190), 0);
  EXPECT_EQ(decodes(), 2);
  EXPECT_NEAR(STR_BSP_ENV_INFO.fAiVolt[0].load(), 1.6, 1e-5);
  EXPECT_GT(STR_BSP_ENV_INFO.nUpdateTime.load(), 0);
  EXPECT_EQ(piece(0, text.size()), 0);  // never past the record's 4096 bytes
  EXPECT_EQ(LIST_MCOM_RECV_INFO[kEnvAnswerRecord].aucData[0], 0);
}

TEST(RelayCommand, CarriesRequestsThenFollowsTheBoard) {
  std::uint8_t frame[kEnvRelayFrame];
  const auto mask = [&] {  // the relay byte of a freshly built command
    SET_DO_CMD(frame, sizeof frame);
    return AscToHex(reinterpret_cast<const char*>(frame) + 15);
  };
  EXPECT_EQ(DO_API_SET_CHECK(), -1);
  STR_BSP_ENV_INFO.ucDoSetValue[0].store(1);
  STR_BSP_ENV_INFO.ucDoSetFlag[0].store(1);
  EXPECT_EQ(SET_DO_CMD(nullptr, 64) + SET_DO_CMD(frame, sizeof frame - 1), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(DO_API_SET_CHECK(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ready set do 0");
  ASSERT_EQ(SET_DO_CMD(frame, sizeof frame), 38);
  EXPECT_EQ(std::string(frame, frame + 38), "~FFFF0555B014FF01FFFFFFFFFFFFFFFFF7F5\r");
  EXPECT_EQ(DO_API_SET_CHECK(), -1);

  const auto request = [](int output, int value) {
    STR_BSP_ENV_INFO.ucDoSetValue[output].store(value);
    STR_BSP_ENV_INFO.ucDoSetFlag[output].store(1);
  };
  request(1, 1);  // DO 2 on: DO 1 stays on
  EXPECT_EQ(mask(), 0x03);
  STR_BSP_ENV_INFO.ucDoState[0].store(1);  // DO 1 asked off while the board reports it on
  request(0, 0);
  EXPECT_EQ(mask(), 0x02);
  EXPECT_EQ(mask(), 0x03);  // nothing pending: the reported state again
}

}  // namespace
}  // namespace fsu::serial
