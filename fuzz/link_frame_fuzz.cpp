// The link-frame cutter on an arbitrary byte stream, cut into pieces as a reader's passes would
// receive it (piece sizes from the input's bytes): every frame returned fits the caller's
// buffer, is LEN + 6 bytes from 0x7E to 0x0D, and the fill never passes the reader's buffer.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "serial/frame_codec.h"

using namespace fsu::serial;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  constexpr std::int32_t kBuffer = 5120;
  const std::size_t out_size = 6 + static_cast<std::size_t>(data[0]) * 32;
  auto buf = std::make_unique<std::uint8_t[]>(kBuffer);
  auto out = std::make_unique<std::uint8_t[]>(out_size);
  std::int32_t fill = 0;
  std::size_t at = 1;
  while (at < size) {
    const std::size_t piece = 1 + data[at] % 64;
    ++at;
    for (std::size_t i = 0; i < piece && at < size; ++i, ++at) {
      if (fill == kBuffer) fill = 0;  // a full buffer is dropped, as the reader does
      buf[fill++] = data[at];
    }
    for (;;) {
      const std::int32_t before = fill;
      const std::int32_t n = read_a_msg(buf.get(), out.get(), out_size, fill, &fill);
      if (fill < 0 || fill > before) __builtin_trap();
      if (n == 0) break;
      if (static_cast<std::size_t>(n) > out_size || out[0] != kLinkStart || out[n - 1] != kLinkEnd ||
          out[1] * 256 + out[2] + 6 != n) {
        __builtin_trap();
      }
    }
  }
  return 0;
}
