// Golden vectors of both frame formats, and the link-frame cutter on the streams a UART
// really delivers: stray bytes, split frames, false start bytes, frames back to back.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "serial/frame_codec.h"

namespace fsu::serial {
namespace {

using Bytes = std::vector<std::uint8_t>;

std::string encode(std::uint8_t ver, std::uint8_t adr, std::uint8_t cid1, std::uint8_t cid2, const Bytes& info) {
  POWER_7E_CMD cmd{};
  cmd.VER = ver;
  cmd.ADR = adr;
  cmd.CID1 = cid1;
  cmd.CID2 = cid2;
  cmd.LENGTH = static_cast<std::uint32_t>(info.size());
  std::copy(info.begin(), info.end(), cmd.INFO);
  std::uint8_t out[600];
  const int n = POWER_7E_CMDSend(cmd, out, sizeof out);
  return std::string(reinterpret_cast<char*>(out), static_cast<std::size_t>(n));
}

Bytes link(std::uint8_t command, const Bytes& data) {
  Bytes out(data.size() + kLinkOverhead);
  out.resize(build_link_frame(command, data.data(), data.size(), out.data(), out.size()));
  return out;
}

TEST(AsciiFrame, EncodesTheBoardCommands) {
  EXPECT_EQ(encode(0xFF, 0xFF, 0x03, 0x54, {}), "~FFFF03540000FD5C\r");
  EXPECT_EQ(encode(0x21, 0x01, 0xD0, 0x90, {}), "~2101D0900000FD9F\r");
  EXPECT_EQ(encode(0x10, 0x01, 0x2D, 0x92, {0xFF}), "~10012D92E002FFFCFA\r");
  Bytes relays(10, 0xFF);
  relays[1] = 0x01;
  EXPECT_EQ(encode(0xFF, 0xFF, 0x05, 0x55, relays), "~FFFF0555B014FF01FFFFFFFFFFFFFFFFF7F5\r");
  relays[1] = 0x00;
  EXPECT_EQ(encode(0xFF, 0xFF, 0x05, 0x55, relays), "~FFFF0555B014FF00FFFFFFFFFFFFFFFFF7F6\r");
}

TEST(AsciiFrame, EncoderRefusesWhatItCannotHold) {
  POWER_7E_CMD cmd{};
  std::uint8_t out[18];
  EXPECT_EQ(POWER_7E_CMDSend(cmd, nullptr, 100), 0);
  EXPECT_EQ(POWER_7E_CMDSend(cmd, out, 17), 0);
  EXPECT_EQ(POWER_7E_CMDSend(cmd, out, 18), 18);
  cmd.LENGTH = 257;
  std::uint8_t big[1024];
  EXPECT_EQ(POWER_7E_CMDSend(cmd, big, sizeof big), 0);
}

TEST(AsciiFrame, LengthWordAndItsCheck) {
  EXPECT_EQ(EnCheckLTH(0), 0x0000);
  EXPECT_EQ(EnCheckLTH(1), 0xE002);
  EXPECT_EQ(EnCheckLTH(10), 0xB014);
  EXPECT_EQ(EnCheckLTH(2047), 0x4FFE);
  const std::uint8_t good[] = {0xE0, 0x02}, bad_sum[] = {0xF0, 0x02};
  EXPECT_EQ(CheckLTH(good, 9), 0);
  EXPECT_EQ(CheckLTH(bad_sum, 9), 1);
  EXPECT_EQ(CheckLTH(good, 10), 3);
}

TEST(AsciiFrame, ChecksumAcceptsOneLetterCase) {
  auto check = [](const char* text) {
    return CheckSum(reinterpret_cast<const std::uint8_t*>(text), static_cast<int>(std::strlen(text)));
  };
  EXPECT_EQ(check("FFFF03540000FD5C"), 0);
  EXPECT_EQ(check("FFFF03540000fd5c"), 0);
  EXPECT_EQ(check("FFFF03540000Fd5C"), 1);
  EXPECT_EQ(check("FD5"), 1);
}

TEST(AsciiFrame, NibblesAndHexText) {
  std::uint8_t buf[8] = {0x7E, 0xA5};
  EXPECT_EQ(Data_Open(buf, 2), 4);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7, 0xE, 0xA, 0x5}));
  EXPECT_EQ(Data_Close(buf, 4), 2);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7E, 0xA5, 0, 0}));
  std::uint8_t digits[3] = {1, 12, 9};
  HexToAsc(digits, 3);
  EXPECT_EQ(Bytes(digits, digits + 3), (Bytes{'1', 'C', 9}));  // an odd last byte stays

  EXPECT_EQ(AscToHex("7e"), 0x7E);
  EXPECT_EQ(AscToHex("7E"), 0x7E);
  EXPECT_EQ(AscToHex("G1"), 0x01);
  EXPECT_EQ(AscToUnShort("68c2"), 0x68C2);

  std::uint8_t out[4] = {};
  EXPECT_EQ(AsciiStringToHexString("7E31305", out, sizeof out), 3);
  EXPECT_EQ(Bytes(out, out + 3), (Bytes{0x7E, 0x31, 0x30}));
  EXPECT_EQ(AsciiStringToHexString("0102030405", out, 2), 2);
  EXPECT_EQ(AsciiStringToHexString(nullptr, out, 2), 0);
}

TEST(LinkFrame, BuildsTheBoardFrames) {
  EXPECT_EQ(link(0x92, {}), (Bytes{0x7E, 0x00, 0x00, 0x92, 0x92, 0x0D}));
  EXPECT_EQ(link(0x60, {0x00, 0x00, 0x25, 0x80, 8, 1, 0}),
            (Bytes{0x7E, 0x00, 0x07, 0x60, 0x00, 0x00, 0x25, 0x80, 0x08, 0x01, 0x00, 0x15, 0x0D}));
  EXPECT_EQ(link(0x80, {0x41, 0x42}), (Bytes{0x7E, 0x00, 0x02, 0x80, 0x41, 0x42, 0x05, 0x0D}));
  EXPECT_EQ(link(0xAA, {0x01}), (Bytes{0x7E, 0x00, 0x01, 0xAA, 0x01, 0xAC, 0x0D}));
  std::uint8_t small[7];
  const std::uint8_t two[2] = {1, 2};
  EXPECT_EQ(build_link_frame(0x80, two, 2, small, sizeof small), 0u);
}

struct Cutter {
  Bytes buf = Bytes(5120);
  std::int32_t fill = 0;
  void feed(const Bytes& b) {
    std::memcpy(buf.data() + fill, b.data(), b.size());
    fill += static_cast<std::int32_t>(b.size());
  }
  Bytes next(std::size_t out_size = 5120) {
    Bytes out(out_size);
    const std::int32_t n = read_a_msg(buf.data(), out.data(), out.size(), fill, &fill);
    out.resize(static_cast<std::size_t>(n));
    return out;
  }
  Bytes rest() const { return Bytes(buf.begin(), buf.begin() + fill); }
};

TEST(LinkFrameCutter, DropsStrayBytesAndKeepsWhatFollows) {
  const Bytes frame = link(0x51, {0x31, 0x32, 0x33});
  Cutter c;
  c.feed({0x00, 0x7E});
  c.feed(frame);
  c.feed({0x7E, 0x00});
  EXPECT_EQ(c.next(), frame);
  EXPECT_EQ(c.rest(), (Bytes{0x7E, 0x00}));
  EXPECT_EQ(c.next(), Bytes{});
  EXPECT_EQ(c.rest(), (Bytes{0x7E, 0x00}));
}

TEST(LinkFrameCutter, WaitsForTheEndOfASplitFrame) {
  const Bytes frame = link(0x50, {1, 2, 3, 4});
  Cutter c;
  c.feed(Bytes(frame.begin(), frame.end() - 1));
  EXPECT_EQ(c.next(), Bytes{});
  EXPECT_EQ(c.fill, static_cast<std::int32_t>(frame.size() - 1));
  c.feed({0x0D});
  EXPECT_EQ(c.next(), frame);
  EXPECT_EQ(c.fill, 0);
}

TEST(LinkFrameCutter, FalseStartWithLongLengthDoesNotHideALaterFrame) {
  const Bytes a = link(0x41, {}), b = link(0x54, {'~', '1'});
  Cutter c;
  c.feed({0x7E, 0x13, 0x88, 0x50});  // a start byte whose length runs far past the fill
  c.feed(a);
  c.feed(b);
  EXPECT_EQ(c.next(), a);
  EXPECT_EQ(c.next(), b);
  EXPECT_EQ(c.next(), Bytes{});
  EXPECT_EQ(c.fill, 0);
}

TEST(LinkFrameCutter, DropsAFrameTooLongForTheCaller) {
  const Bytes big = link(0x50, Bytes(100, 0x55)), small = link(0x41, {});
  Cutter c;
  c.feed(big);
  c.feed(small);
  EXPECT_EQ(c.next(64), small);
  EXPECT_EQ(c.fill, 0);
}

}  // namespace
}  // namespace fsu::serial
