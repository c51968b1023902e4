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
  cmd.LENGTH = 257;
  EXPECT_EQ(POWER_7E_CMDSend(cmd, out, sizeof out), 0);
}

TEST(AsciiFrame, LengthWordChecksumAndHexText) {
  EXPECT_EQ(std::vector<int>({EnCheckLTH(0), EnCheckLTH(1), EnCheckLTH(10), EnCheckLTH(2047)}),
            std::vector<int>({0x0000, 0xE002, 0xB014, 0x4FFE}));
  const std::uint8_t good[] = {0xE0, 0x02}, bad_sum[] = {0xF0, 0x02};
  EXPECT_EQ(CheckLTH(good, 9), 0);
  EXPECT_EQ(CheckLTH(bad_sum, 9), 1);
  EXPECT_EQ(CheckLTH(good, 10), 3);

  const auto check = [](const char* text) {
    return CheckSum(reinterpret_cast<const std::uint8_t*>(text), static_cast<int>(std::strlen(text)));
  };
  EXPECT_EQ(check("FFFF03540000FD5C") + check("FFFF03540000fd5c"), 0);  // one letter case or the other
  EXPECT_EQ(check("FFFF03540000Fd5C"), 1);
  EXPECT_EQ(check("FD5"), 1);

  std::uint8_t buf[4] = {0x7E, 0xA5};
  EXPECT_EQ(Data_Open(buf, 2), 4);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7, 0xE, 0xA, 0x5}));
  EXPECT_EQ(Data_Close(buf, 4), 2);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x7E, 0xA5, 0, 0}));
  EXPECT_EQ(AscToHex("7e"), 0x7E);
  EXPECT_EQ(AscToHex("G1"), 0x01);  // a non-digit counts as 0
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
  Bytes next(std::size_t out_size = 5120) {
    Bytes out(out_size);
    out.resize(static_cast<std::size_t>(read_a_msg(buf.data(), out.data(), out.size(), fill, &fill)));
    return out;
  }
};

TEST(LinkFrameCutter, DropsStrayBytesAndWaitsForTheEndOfASplitFrame) {
  const Bytes frame = link(0x51, {0x31, 0x32, 0x33});
  Cutter c;
  c << Bytes{0x00, 0x7E} << frame << Bytes(frame.begin(), frame.end() - 1);
  EXPECT_EQ(c.next(), frame);
  EXPECT_EQ(c.next(), Bytes{});
  EXPECT_EQ(c.fill, static_cast<std::int32_t>(frame.size() - 1));  // the piece stays for the next read
  c << Bytes{0x0D};
  EXPECT_EQ(c.next(), frame);
  EXPECT_EQ(c.fill, 0);
}

TEST(LinkFrameCutter, FalseStartAndOversizedFramesHideNothingBehindThem) {
  const Bytes a = link(0x41, {}), b = link(0x54, {'~', '1'}), big = link(0x50, Bytes(100, 0x55));
  Cutter c;
  c << Bytes{0x7E, 0x13, 0x88, 0x50} << a << b << big << a;  // a start byte whose length runs far past the fill
  EXPECT_EQ(c.next(64), a);
  EXPECT_EQ(c.next(64), b);
  EXPECT_EQ(c.next(64), a);  // the frame too long for the caller is dropped
  EXPECT_EQ(c.next(64), Bytes{});
  EXPECT_EQ(c.fill, 0);
}

}  // namespace
}  // namespace fsu::serial
