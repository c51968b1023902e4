// The frames exchanged with the boards, without a wire: golden vectors of the ASCII and link
// formats, the link-frame cutter on the streams a UART really delivers, and the environment
// board's answers (fixed positions, snapping, gathering in record 14) and relay commands.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fsusdk.h"
#include "platform/clock.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes link(std::uint8_t command, const Bytes& data) {
  Bytes out(data.size() + kLinkOverhead);
  out.resize(build_link_frame(command, data.data(), data.size(), out.data(), out.size()));
  return out;
}

TEST(AsciiFrame, EncodesTheBoardCommandsAndRefusesWhatItCannotHold) {
  Bytes on(10, 0xFF), off(10, 0xFF);
  on[1] = 0x01;
  off[1] = 0x00;
  const struct {
    std::uint8_t ver, adr, cid1, cid2;
    Bytes info;
    const char* text;
  } golden[] = {{0xFF, 0xFF, 0x03, 0x54, {}, "~FFFF03540000FD5C\r"},
                {0x21, 0x01, 0xD0, 0x90, {}, "~2101D0900000FD9F\r"},
                {0x10, 0x01, 0x2D, 0x92, {0xFF}, "~10012D92E002FFFCFA\r"},
                {0xFF, 0xFF, 0x05, 0x55, on, "~FFFF0555B014FF01FFFFFFFFFFFFFFFFF7F5\r"},
                {0xFF, 0xFF, 0x05, 0x55, off, "~FFFF0555B014FF00FFFFFFFFFFFFFFFFF7F6\r"}};
  std::uint8_t out[1024];
  for (const auto& g : golden) {
    POWER_7E_CMD cmd{0, g.ver, g.adr, g.cid1, g.cid2, static_cast<std::uint32_t>(g.info.size()), {}};
    std::copy(g.info.begin(), g.info.end(), cmd.INFO);
    const int n = POWER_7E_CMDSend(cmd, out, std::strlen(g.text));  // exactly the room it needs
    EXPECT_EQ(std::string(out, out + n), g.text);
    EXPECT_EQ(POWER_7E_CMDSend(cmd, out, std::strlen(g.text) - 1), 0);
  }
  POWER_7E_CMD cmd{};
  EXPECT_EQ(POWER_7E_CMDSend(cmd, nullptr, 100), 0);
  cmd.LENGTH = 256;  // a full INFO fits, one byte more does not
  EXPECT_EQ(POWER_7E_CMDSend(cmd, out, sizeof out), 530);
  cmd.LENGTH = 257;
  EXPECT_EQ(POWER_7E_CMDSend(cmd, out, sizeof out), 0);
}

TEST(AsciiFrame, LengthWordChecksumAndHexText) {
  EXPECT_EQ(EnCheckLTH(2047), 0x4FFE);  // 1 and 10 INFO bytes are in the golden frames
  const std::uint8_t good[] = {0xE0, 0x02}, bad_sum[] = {0xF0, 0x02};
  const std::uint8_t long_info[] = {static_cast<std::uint8_t>(EnCheckLTH(128) >> 8), static_cast<std::uint8_t>(EnCheckLTH(128))};
  EXPECT_EQ(std::vector<int>({CheckLTH(good, 9), CheckLTH(bad_sum, 9), CheckLTH(good, 10), CheckLTH(long_info, 136)}),
            std::vector<int>({0, 1, 3, 0}));  // the last: 128 INFO bytes, every digit of the length counts
  const auto check = [](const char* text) {
    return CheckSum(reinterpret_cast<const std::uint8_t*>(text), static_cast<int>(std::strlen(text)));
  };
  EXPECT_EQ(check("FFFF03540000FD5C") + check("FFFF03540000fd5c"), 0);  // one letter case or the other
  EXPECT_EQ(check("FFFF03540000Fd5C") + check("FD5"), 2);

  std::uint8_t buf[4] = {0x7E, 0xA5};
  EXPECT_EQ(Data_Open(buf, 2), 4);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7, 0xE, 0xA, 0x5}));
  EXPECT_EQ(Data_Close(buf, 4), 2);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7E, 0xA5, 0, 0}));
  EXPECT_EQ(AscToHex("7e") + AscToHex("G1"), 0x7F);  // a non-digit counts as 0
  EXPECT_EQ(AscToUnShort("68c2"), 0x68C2);
  std::uint8_t out[4] = {0, 0, 0, 0xEE};  // whole bytes only, never past the count
  EXPECT_EQ(AsciiStringToHexString("7E31305", out, sizeof out), 3);
  EXPECT_EQ(AsciiStringToHexString("0102030405", out, 2) + AsciiStringToHexString(nullptr, out, 2), 2);
  EXPECT_EQ(Bytes(out, out + 4), (Bytes{0x01, 0x02, 0x30, 0xEE}));
}

TEST(LinkFrame, BuildsTheBoardFrames) {
  EXPECT_EQ(link(0x92, {}), (Bytes{0x7E, 0x00, 0x00, 0x92, 0x92, 0x0D}));
  EXPECT_EQ(link(0xAA, {0x01}), (Bytes{0x7E, 0x00, 0x01, 0xAA, 0x01, 0xAC, 0x0D}));
  const std::uint8_t two[2] = {1, 2};
  std::uint8_t small[7];
  EXPECT_EQ(build_link_frame(0x80, two, 2, small, sizeof small), 0u);
}

// A reader's buffer fed by hand; next() cuts the first complete frame.
struct Cutter {
  Bytes buf = Bytes(5120);
  std::int32_t fill = 0;
  Cutter& operator<<(const Bytes& b) {
    std::copy(b.begin(), b.end(), buf.begin() + fill);
    fill += static_cast<std::int32_t>(b.size());
    return *this;
  }
  Bytes next(std::size_t out_size = 64) {
    Bytes out(out_size);
    out.resize(static_cast<std::size_t>(read_a_msg(buf.data(), out.data(), out.size(), fill, &fill)));
    return out;
  }
  std::vector<Bytes> next(int count) {  // the next `count` cuts, an empty frame where none was complete
    std::vector<Bytes> out;
    while (count-- > 0) out.push_back(next());
    return out;
  }
};

TEST(LinkFrameCutter, SkipsStrayBytesAndFalseStartsWaitsForSplitFramesDropsOversizedOnes) {
  const Bytes a = link(0x41, {}), b = link(0x51, {0x31, 0x32, 0x33}), big = link(0x50, Bytes(100, 0x55));
  Cutter c;
  // A stray byte, then a start byte whose length runs far past the fill.
  c << Bytes{0x00, 0x7E, 0x13, 0x88, 0x50} << a << b << big << a << Bytes(b.begin(), b.end() - 1);
  EXPECT_EQ(c.next(4), (std::vector<Bytes>{a, b, a, {}}));  // the frame too long for the caller is dropped
  EXPECT_EQ(c.fill, static_cast<std::int32_t>(b.size() - 1));  // the piece stays for the next read
  c << Bytes{0x0D};
  EXPECT_EQ(c.next(), b);
  EXPECT_EQ(c.fill, 0);

  // A start byte whose frame would fit holds the scan until its bytes are in: then a frame
  // carried in a half-received frame's data stays data, and a false start only delays.
  const Bytes outer = link(0x50, b);
  c << Bytes(outer.begin(), outer.end() - 1);
  EXPECT_EQ(c.next(), Bytes{});
  c << Bytes{0x0D} << Bytes{0x7E, 0x00, 0x05} << a;
  EXPECT_EQ(c.next(2), (std::vector<Bytes>{outer, {}}));
  c << b;  // the false start's end falls inside b: not 0x0D
  EXPECT_EQ(c.next(2), (std::vector<Bytes>{a, b}));
}

// "~", VER ADR CID1 CID2, the LENGTH word (that of `info` unless given), `info`, the CHKSUM of
// all that and a carriage return.
std::string seal(const std::string& head, const std::string& info, int length_word = -1) {
  char length[9];
  std::snprintf(length, sizeof length, "%04X", length_word >= 0 ? length_word : EnCheckLTH(info.size() / 2));
  std::string t = head + length + info + "....";
  EnCheckSum(reinterpret_cast<std::uint8_t*>(t.data()), static_cast<std::uint16_t>(t.size() - 4));
  return "~" + t + "\r";
}

// A 200-character answer as the board sends it: voltage and current words, then DI bytes 1 and
// 2, a spare byte, the relay byte, the fifth status byte, 12 characters and the status byte.
std::string answer(const std::uint16_t (&volts)[16], const std::uint16_t (&currents)[16], const std::string& tail) {
  std::string info;
  char word[9];
  for (int c = 0; c < 16; ++c) {
    std::snprintf(word, sizeof word, "%04X%04X", volts[c], currents[c]);
    info += word;
  }
  info += tail;
  return seal("21014100", info + std::string(182 - info.size(), '0'));
}

// A field as digits, "1000..." for {1, 0, 0, 0, ...}.
template <std::size_t N>
std::string digits(const std::atomic<std::uint8_t> (&field)[N]) {
  std::string out;
  for (auto& f : field) out += static_cast<char>('0' + f.load());
  return out;
}

// Decodes into one record that the test's calls share.
STR_BSP_ENV_INFO_T& decoded(const std::string& text, int cycle) {
  static STR_BSP_ENV_INFO_T info;
  EXPECT_TRUE(decode_env_answer(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), cycle, info));
  return info;
}

TEST(EnvironmentAnswer, ConvertsWordsInputsRelaysAndStatus) {
  const auto& info = decoded(answer({0x5000, 0xFFFE, 0xFFFF}, {0x3200, 0x31FF, 0xFA00, 0xFFFB},
                                    "FE0f0005810000000000005A"),
                             0);
  EXPECT_NEAR(info.fAiVolt[0].load(), 1.6, 1e-6);
  EXPECT_EQ(info.fAiVolt[1].load() + info.fAiVolt[2].load(), 0.0f);  // 0xFFFE and 0xFFFF: no reading
  EXPECT_EQ(info.usAiVoltRaw[1].load(), 0xFFFE);
  EXPECT_EQ(std::vector<float>({info.fAiCurr[0], info.fAiCurr[1], info.fAiCurr[2], info.fAiCurr[3]}),
            std::vector<float>({4.0f, 0.0f, 20.0f, 0.0f}));  // 0x3200 to 0xFFFA only
  // Inputs (FE: input 1 closed; 0f: 13 to 16 closed), relays, the fifth status byte's bits, the status byte.
  EXPECT_EQ(digits(info.ucDi) + "|" + digits(info.ucDoState) + "|" + digits(info.ucStatusBits) + "|" +
                std::to_string(info.ucStatusByte.load()),
            "1000000000001111|10100000|10000001|90");

  STR_BSP_ENV_INFO_T untouched{};
  EXPECT_FALSE(decode_env_answer(reinterpret_cast<const std::uint8_t*>("~2101"), 185, 0, untouched) ||
               decode_env_answer(nullptr, 200, 0, untouched));
}

TEST(EnvironmentAnswer, SnapsReadingsNearATenthOfAVoltWithAFewMicrovolts) {
  const struct {
    std::uint16_t raw;
    double volts;
    bool snapped;
  } cases[] = {{0x6434, 2.0, true},          {0x6446, 2.00546875, false},  // 9 and 10 mV past 2 V, 5 mV added
               {0x6893, 2.1, true},          {0x6886, 2.09046875, false},  // 91 and 90 mV past 2 V
               {0x68C2, 2.1, true},          {0x6680, 2.05, false},        {0x0200, 0.04, false}};
  for (const auto& k : cases) {
    std::uint16_t volts[16];
    std::fill(std::begin(volts), std::end(volts), k.raw);
    double highest = 0;  // on every channel and cycle, so that the shift takes all its values
    for (int cycle = 0; cycle <= 9; ++cycle) {
      for (auto& v : decoded(answer(volts, {}, ""), cycle).fAiVolt) {
        EXPECT_GE(v.load() - k.volts, -2.5e-7) << k.raw;
        highest = std::max(highest, v.load() - k.volts);
      }
    }
    EXPECT_NEAR(highest, k.snapped ? 9e-6 : 0, 5e-7) << k.raw;
  }
}

// Noise on the board's 9600-baud line: a text long enough to decode that is not one whole answer,
// however near, changes no reading, sets no exist flag and is counted.
TEST(EnvironmentGathering, WaitsUpTo17BytesDiscardsShortAnswersDecodesWholeAnswersFrom186AndCountsTheRest) {
  test::TestSandbox box;  // the handler logs
  const auto feed = [](const std::string& text, std::size_t from = 0, std::size_t n = std::string::npos) {
    n = std::min(n, text.size() - from);
    env_answer_handler(reinterpret_cast<const std::uint8_t*>(text.data()) + from, static_cast<std::int32_t>(n), 0);
    return LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.load();
  };
  const auto decodes = [] { return sdk::BSP_BOARD_HARDWARE_RESOURCES[2] + sdk::BSP_BOARD_HARDWARE_RESOURCES[3]; };
  const auto reading = [] { return std::pair(STR_BSP_ENV_INFO.usAiVoltRaw[0].load(), STR_BSP_ENV_INFO.ucDi[0].load()); };
  const std::string text = answer({0x5000}, {}, "FE"), other = answer({0x1111}, {}, "FF");  // AI 1 1.6 V or 0.341 V
  const std::string info = other.substr(13, 182);
  std::string sum = other, noise(200, '\0');
  sum[196] = sum[196] == '0' ? '1' : '0';
  for (std::size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>((i * 167 + 13) % 256);
  const std::string broken[] = {sum,
                                seal("21014100", info, EnCheckLTH(90)),           // LENID of 180 characters
                                seal("21014100", info, EnCheckLTH(91) ^ 0x1000),  // LCHKSUM off by one
                                seal("21014100", "G" + info.substr(1)),           // sealed, but not hex
                                seal("21014100", info + "0", EnCheckLTH(91)),     // a hex digit more than LENGTH says
                                "#" + other.substr(1), other.substr(0, 199) + "\n", other + "0", noise};
  EXPECT_EQ(feed(text, 0, 20), 0);  // past 17 bytes at once: discarded, as is the rest
  EXPECT_EQ(feed(text, 20, 180), 0);
  EXPECT_EQ(feed(text, 0, 17), 17);  // waits
  EXPECT_EQ(feed(text, 17, 168), 0);  // 185 bytes: one short
  EXPECT_EQ(feed(noise), 0);
  EXPECT_EQ(std::pair(decodes(), env_answers_dropped()), std::pair(0, 1u));
  double age = 0;
  EXPECT_EQ(FsuBoardAnswerAge(FSU_BOARD_ENVIRONMENT, &age), FSU_ERR_NO_ANSWER);  // noise is no answer
  EXPECT_EQ(age, -1);
  EXPECT_EQ(REAG_ENV_BOARD_RIGHT_FG(), 1);
  EXPECT_EQ(REAG_ENV_BOARD_RIGHT_FG(), 0);
  EXPECT_EQ(feed(text, 0, 10), 10);
  EXPECT_EQ(feed(text, 10), 0);
  EXPECT_EQ(decodes(), 2);
  EXPECT_NEAR(STR_BSP_ENV_INFO.fAiVolt[0].load(), 1.6, 1e-5);
  EXPECT_GT(STR_BSP_ENV_INFO.nUpdateTime.load(), 0);
  EXPECT_EQ(FsuBoardAnswerAge(FSU_BOARD_ENVIRONMENT, &age), FSU_OK);
  EXPECT_LT(age, 1);
  platform::advance_monotonic_for_tests(30);  // the readings below stay those of this answer, 30 s old
  for (std::uint32_t k = 0; k < std::size(broken); ++k) {
    feed(broken[k]);
    EXPECT_EQ(std::pair(reading(), env_answers_dropped()), std::pair(std::pair(std::uint16_t{0x5000}, std::uint8_t{1}), k + 2)) << k;
  }
  EXPECT_EQ(feed(text + std::string(5000, '0')), 0);  // never past the record's 4096 bytes
  EXPECT_EQ(LIST_MCOM_RECV_INFO[kEnvAnswerRecord].aucData[0], 0);
  EXPECT_EQ(FsuBoardAnswerAge(FSU_BOARD_ENVIRONMENT, &age), FSU_OK);
  EXPECT_GE(age, 30);
  EXPECT_EQ(FsuBoardAnswerAge(FSU_BOARD_EXTENSION_1, &age), FSU_ERR_NO_ANSWER);
  EXPECT_EQ(FsuBoardAnswerAge(4, &age) + FsuBoardAnswerAge(0, &age) + FsuBoardAnswerAge(3, nullptr), 3 * FSU_ERR_FAILED);
  feed(seal("21014100", info + "00"));  // an answer of another length, whole by its own LENGTH
  EXPECT_EQ(std::pair(reading(), env_answers_dropped()), std::pair(std::pair(std::uint16_t{0x1111}, std::uint8_t{0}), 11u));
  EXPECT_EQ(FsuBoardAnswerAge(FSU_BOARD_ENVIRONMENT, &age), FSU_OK);
  EXPECT_LT(age, 1);
}

TEST(RelayCommand, CarriesRequestsThenFollowsTheBoard) {
  std::uint8_t frame[kEnvRelayFrame];
  const auto request = [](int output, int value) {
    STR_BSP_ENV_INFO.ucDoSetValue[output].store(value);
    STR_BSP_ENV_INFO.ucDoSetFlag[output].store(1);
  };
  const auto mask = [&] {  // the relay byte of a freshly built command
    SET_DO_CMD(frame, sizeof frame);
    return AscToHex(reinterpret_cast<const char*>(frame) + 15);
  };
  EXPECT_EQ(DO_API_SET_CHECK(), -1);
  request(0, 1);
  EXPECT_EQ(SET_DO_CMD(nullptr, 64) + SET_DO_CMD(frame, sizeof frame - 1), 0);
  testing::internal::CaptureStdout();
  EXPECT_EQ(DO_API_SET_CHECK(), 1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "ready set do 0");
  EXPECT_EQ(mask(), 0x01);  // DO 1 on
  EXPECT_EQ(DO_API_SET_CHECK(), -1);

  request(1, 1);  // DO 2 on: DO 1 stays on
  EXPECT_EQ(mask(), 0x03);
  STR_BSP_ENV_INFO.ucDoState[0].store(1);  // DO 1 asked off while the board reports it on
  request(0, 0);
  EXPECT_EQ(mask(), 0x02);
  EXPECT_EQ(mask(), 0x03);  // nothing pending: the reported state again
}

}  // namespace
}  // namespace fsu::serial
