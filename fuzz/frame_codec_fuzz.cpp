// The ASCII-frame codec on arbitrary text: the hex-text readers and checkers over the input
// (non-hex characters decode as 0, never fault), AsciiStringToHexString into an out_size taken
// from the first byte, and a round trip: a command record built from the input encodes to
// 2 x LENGTH + 18 characters whose length word and checksum the checkers accept.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "serial/frame_codec.h"

using namespace fsu::serial;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 1) return 0;
  const std::size_t out_size = data[0];
  const std::size_t text_size = size - 1;

  auto text = std::make_unique<char[]>(text_size + 1);
  std::memcpy(text.get(), data + 1, text_size);
  text[text_size] = '\0';
  auto out = std::make_unique<std::uint8_t[]>(out_size + 1);
  const std::int32_t n = AsciiStringToHexString(text.get(), out.get(), out_size);
  if (n < 0 || static_cast<std::size_t>(n) > out_size) __builtin_trap();
  for (std::size_t i = 0; i + 4 <= text_size; i += 4) {
    const std::uint16_t word = AscToUnShort(text.get() + i);
    if (word >> 8 != AscToHex(text.get() + i)) __builtin_trap();
  }
  CheckSum(reinterpret_cast<const std::uint8_t*>(data + 1), static_cast<int>(text_size));
  if (text_size >= 2) CheckLTH(reinterpret_cast<const std::uint8_t*>(data + 1), static_cast<int>(text_size));

  POWER_7E_CMD cmd{};
  if (text_size >= 4) {
    cmd.VER = data[1];
    cmd.ADR = data[2];
    cmd.CID1 = data[3];
    cmd.CID2 = data[4];
    cmd.LENGTH = static_cast<std::uint32_t>(text_size - 4 > sizeof cmd.INFO ? sizeof cmd.INFO : text_size - 4);
    std::memcpy(cmd.INFO, data + 5, cmd.LENGTH);
  }
  const std::size_t frame_size = 2 * cmd.LENGTH + 18;
  auto frame = std::make_unique<std::uint8_t[]>(frame_size);
  if (POWER_7E_CMDSend(cmd, frame.get(), frame_size - 1) != 0) __builtin_trap();
  if (POWER_7E_CMDSend(cmd, frame.get(), frame_size) != static_cast<std::int32_t>(frame_size)) __builtin_trap();
  if (frame[0] != '~' || frame[frame_size - 1] != '\r') __builtin_trap();
  // VER through CHKSUM, as the checkers see them.
  const int body = static_cast<int>(frame_size - 2);
  if (CheckSum(frame.get() + 1, body) != 0) __builtin_trap();
  std::uint8_t length_bytes[2] = {AscToHex(reinterpret_cast<char*>(frame.get()) + 9),
                                  AscToHex(reinterpret_cast<char*>(frame.get()) + 11)};
  if (CheckLTH(length_bytes, static_cast<int>(cmd.LENGTH + 8)) != 0) __builtin_trap();
  return 0;
}
