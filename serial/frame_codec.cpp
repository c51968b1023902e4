#include "serial/frame_codec.h"

#include <cstring>

namespace fsu::serial {
namespace {

constexpr char kUpperHex[] = "0123456789ABCDEF";

int nibble(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return 0;
}

std::uint16_t negated_sum(const std::uint8_t* buf, std::size_t count) {
  std::uint16_t s = 0;
  for (std::size_t i = 0; i < count; ++i) s = static_cast<std::uint16_t>(s + buf[i]);
  return static_cast<std::uint16_t>(~s + 1);
}

void put_hex16(std::uint16_t x, std::uint8_t* out) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::uint8_t>(kUpperHex[(x >> (12 - 4 * i)) & 0xF]);
}

}  // namespace

std::uint16_t EnCheckLTH(std::uint32_t n) {
  const std::uint16_t lenid = static_cast<std::uint16_t>((2 * n) & 0x0FFF);
  const unsigned digits = ((lenid >> 8) & 0xF) + ((lenid >> 4) & 0xF) + (lenid & 0xF);
  const unsigned lchksum = (16 - digits % 16) % 16;
  return static_cast<std::uint16_t>(lchksum << 12 | lenid);
}

std::uint16_t Data_Open(std::uint8_t* buf, std::uint16_t n) {
  for (int k = n - 1; k >= 0; --k) {
    const std::uint8_t v = buf[k];
    buf[2 * k + 1] = v & 0x0F;
    buf[2 * k] = v >> 4;
  }
  return static_cast<std::uint16_t>(2 * n);
}

void HexToAsc(std::uint8_t* buf, std::uint16_t count) {
  for (std::uint16_t i = 0; i < count / 2 * 2; ++i) {
    const std::uint8_t v = buf[i];
    buf[i] = static_cast<std::uint8_t>(v < 10 ? '0' + v : 'A' + (v - 10));
  }
}

std::uint16_t EnCheckSum(std::uint8_t* buf, std::uint16_t count) {
  put_hex16(negated_sum(buf, count), buf + count);
  return static_cast<std::uint16_t>(count + 4);
}

std::uint8_t Data_Close(std::uint8_t* buf, std::uint8_t count) {
  const int half = count / 2;
  for (int k = 0; k < half; ++k) buf[k] = static_cast<std::uint8_t>(buf[2 * k] * 16 + buf[2 * k + 1]);
  for (int k = half; k < count; ++k) buf[k] = 0;
  return static_cast<std::uint8_t>(half);
}

std::int32_t POWER_7E_CMDSend(const POWER_7E_CMD& cmd, std::uint8_t* out, std::size_t out_size) {
  if (out == nullptr || cmd.LENGTH > sizeof cmd.INFO) return 0;
  const std::size_t frame = 2 * cmd.LENGTH + 18;
  if (out_size < frame) return 0;
  out[0] = cmd.VER;
  out[1] = cmd.ADR;
  out[2] = cmd.CID1;
  out[3] = cmd.CID2;
  const std::uint16_t length = EnCheckLTH(cmd.LENGTH);
  out[4] = static_cast<std::uint8_t>(length >> 8);
  out[5] = static_cast<std::uint8_t>(length & 0xFF);
  std::memcpy(out + 6, cmd.INFO, cmd.LENGTH);
  const std::uint16_t n = Data_Open(out, static_cast<std::uint16_t>(cmd.LENGTH + 6));
  HexToAsc(out, n);
  const std::uint16_t with_sum = EnCheckSum(out, n);
  std::memmove(out + 1, out, with_sum);
  out[0] = '~';
  out[with_sum + 1] = '\r';
  return static_cast<std::int32_t>(with_sum + 2);
}

int CheckLTH(const std::uint8_t* p, int total) {
  const int lchksum = p[0] >> 4;
  const int d1 = p[0] & 0xF, d2 = p[1] >> 4, d3 = p[1] & 0xF;
  if ((total - 8) * 2 != d1 * 256 + d2 * 16 + d3) return 3;
  return lchksum == (16 - (d1 + d2 + d3) % 16) % 16 ? 0 : 1;
}

int CheckSum(const std::uint8_t* buf, int count) {
  if (buf == nullptr || count < 4) return 1;
  std::uint8_t digits[4];
  put_hex16(negated_sum(buf, static_cast<std::size_t>(count - 4)), digits);
  const std::uint8_t* given = buf + count - 4;
  if (std::memcmp(digits, given, 4) == 0) return 0;
  for (std::uint8_t& d : digits) {
    if (d >= 'A' && d <= 'F') d = static_cast<std::uint8_t>(d - 'A' + 'a');
  }
  return std::memcmp(digits, given, 4) == 0 ? 0 : 1;
}

std::uint8_t AscToHex(const char* p) { return static_cast<std::uint8_t>(nibble(p[0]) * 16 + nibble(p[1])); }

std::uint16_t AscToUnShort(const char* p) {
  return static_cast<std::uint16_t>(AscToHex(p) << 8 | AscToHex(p + 2));
}

std::int32_t AsciiStringToHexString(const char* str, std::uint8_t* out, std::size_t out_size) {
  if (str == nullptr || out == nullptr) return 0;
  std::size_t n = std::strlen(str) / 2;
  if (n > out_size) n = out_size;
  for (std::size_t k = 0; k < n; ++k) out[k] = AscToHex(str + 2 * k);
  return static_cast<std::int32_t>(n);
}

std::uint8_t INFo_SUM(const std::uint8_t* buf, std::size_t count) {
  std::uint8_t s = 0;
  for (std::size_t i = 0; i < count; ++i) s = static_cast<std::uint8_t>(s + buf[i]);
  return s;
}

std::size_t build_link_frame(std::uint8_t command, const std::uint8_t* data, std::size_t len,
                             std::uint8_t* out, std::size_t out_size) {
  if (out == nullptr || len > 0xFFFF || len + kLinkOverhead > out_size || (len > 0 && data == nullptr)) return 0;
  out[0] = kLinkStart;
  out[1] = static_cast<std::uint8_t>(len >> 8);
  out[2] = static_cast<std::uint8_t>(len & 0xFF);
  out[3] = command;
  if (len > 0) std::memcpy(out + 4, data, len);
  out[4 + len] = INFo_SUM(out + 1, len + 3);
  out[5 + len] = kLinkEnd;
  return len + kLinkOverhead;
}

std::int32_t read_a_msg(std::uint8_t* buf, std::uint8_t* out, std::size_t out_size, std::int32_t fill,
                        std::int32_t* remaining) {
  if (buf == nullptr || out == nullptr || remaining == nullptr || fill <= 0) return 0;
  *remaining = fill;
  for (std::int32_t i = 0; i < fill; ++i) {
    if (buf[i] != kLinkStart) continue;
    // A start byte whose length has not arrived, or whose frame could still complete within
    // what the caller takes, holds the scan: the bytes behind it may be its data, and data
    // must never be read as frames of their own.
    if (i + 2 >= fill) return 0;
    const std::int32_t len = buf[i + 1] * 256 + buf[i + 2];
    const std::int32_t end = i + len + static_cast<std::int32_t>(kLinkOverhead);
    const bool fits = static_cast<std::size_t>(end - i) <= out_size;
    if (end > fill) {
      if (fits) return 0;
      continue;  // longer than any frame the caller takes: a false start
    }
    if (buf[end - 1] != kLinkEnd) continue;  // no end byte where the length puts it: a false start
    const std::int32_t frame = end - i;
    if (fits) std::memcpy(out, buf + i, static_cast<std::size_t>(frame));
    std::memmove(buf, buf + end, static_cast<std::size_t>(fill - end));
    fill -= end;
    *remaining = fill;
    if (fits) return frame;
    i = -1;  // an oversized frame is dropped; look again from the new front
  }
  return 0;
}

}  // namespace fsu::serial
