// The extension boards' link on arbitrary wire bytes, three ways, picked by the low two bits of
// byte 0; the rest of the input is the way's own. Log off, nothing reaches a file or a device.
//   0     the link-frame cutter alone: byte 1 sizes the caller's buffer (6 + 32 x byte), then
//         the stream in pieces of 1 to 64 bytes, each size taken from a byte. Every frame
//         returned fits, is LEN + 6 bytes from 0x7E to 0x0D; the fill never passes the buffer.
//   1     a reader on raw bytes: byte 1 picks the slot (4, 5, or 3, which has no board) and the
//         pass counter, then pieces (fuzz/pieces.h). Every record stays within its size and
//         holds no more than the wire brought; environment answers wait (17 bytes) or go.
//   2, 3  a hostile device on a channel of board 1: byte 1 picks the channel and seeds the
//         read sizes, then pieces, each a write of the device framed as board 1 frames it. Its
//         bytes reach its own record intact; no other record, exist flag or reading moves.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "fuzz/pieces.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"

namespace {

using namespace fsu::serial;

void cutter(const uint8_t* data, std::size_t size) {
  if (size < 2) return;
  constexpr std::int32_t kBuffer = 5120;
  const std::size_t out_size = 6 + static_cast<std::size_t>(data[0]) * 32;
  auto buf = std::make_unique<std::uint8_t[]>(kBuffer);
  auto out = std::make_unique<std::uint8_t[]>(out_size);
  std::int32_t fill = 0;
  for (std::size_t at = 1; at < size;) {
    const std::size_t piece = 1 + data[at++] % 64;
    for (std::size_t i = 0; i < piece && at < size; ++i, ++at) {
      if (fill == kBuffer) fill = 0;  // a full buffer is dropped, as the reader does
      buf[fill++] = data[at];
    }
    for (std::int32_t n = 1; n != 0;) {
      const std::int32_t before = fill;
      n = read_a_msg(buf.get(), out.get(), out_size, fill, &fill);
      if (fill < 0 || fill > before) __builtin_trap();
      require(n == 0 || (static_cast<std::size_t>(n) <= out_size && out[0] == kLinkStart && out[n - 1] == kLinkEnd &&
                         out[1] * 256 + out[2] + 6 == n));
    }
  }
}

void reader(const uint8_t* data, std::size_t size) {
  if (size == 0) return;
  auto ext = std::make_unique<ExtReader>();
  static constexpr std::int32_t kSlots[] = {4, 5, 3, 4};
  ext->slot = kSlots[data[0] & 3];
  ext->cycle = (data[0] >> 2) % 10;
  std::size_t delivered = 0;
  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    const std::int32_t kept = ext_com_feed(*ext, piece, n);
    if (kept < 0 || kept > n || ext->fill < 0 || ext->fill > kExtAccumulation) __builtin_trap();
    delivered += static_cast<std::size_t>(n);
    std::size_t channel_bytes = 0;
    for (int k = 0; k < kSerialResources; ++k) {
      const std::int32_t len = LIST_MCOM_RECV_INFO[k].nLen.load();
      if (len < 0 || len > kRecvCapacity) __builtin_trap();
      if (k >= 4 && k <= 11) channel_bytes += static_cast<std::size_t>(len);
      else require(k == kEnvAnswerRecord || len == 0);
    }
    if (channel_bytes > delivered || LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.load() > kEnvAnswerWait) __builtin_trap();
  });
}

void hostile(const uint8_t* data, std::size_t size) {
  if (size == 0) return;
  const int channel = data[0] & 3;
  std::vector<std::uint8_t> written, wire;
  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    written.insert(written.end(), piece, piece + n);
    for (std::int32_t at = 0; at < n; at += 1024) {
      std::uint8_t frame[1024 + kLinkOverhead];
      const std::size_t len = std::min<std::size_t>(1024, static_cast<std::size_t>(n - at));
      wire.insert(wire.end(), frame, frame + build_link_frame(0x50 + channel, piece + at, len, frame, sizeof frame));
    }
  });
  auto ext = std::make_unique<ExtReader>();
  ext->slot = 4;
  std::uint32_t seed = data[0] | 0x100u;
  for (std::size_t at = 0, n = 0; at < wire.size(); at += n) {
    seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5;
    n = std::min<std::size_t>(1 + seed % 1200, wire.size() - at);
    auto read = std::make_unique<std::uint8_t[]>(n);  // exact size: a read past it is caught
    std::memcpy(read.get(), wire.data() + at, n);
    ext_com_feed(*ext, read.get(), static_cast<std::int32_t>(n));
  }
  // Every frame was taken; the records, the flags and the readings are as they started but one.
  static const STR_BSP_ENV_INFO_T untouched{};
  require(ext->fill == 0 && std::memcmp(&STR_BSP_ENV_INFO, &untouched, sizeof untouched) == 0 &&
          REAG_ENV_BOARD_RIGHT_FG() == 0);
  for (const auto& flag : fsu::sdk::BSP_BOARD_HARDWARE_RESOURCES) require(flag.load() == 0);
  const int own = channel_record(1, channel);
  for (int k = 0; k < kSerialResources; ++k) {
    const auto expected = k != own ? 0 : std::min<std::size_t>(written.size(), kRecvCapacity);
    require(static_cast<std::size_t>(LIST_MCOM_RECV_INFO[k].nLen.load()) == expected &&
            (expected == 0 || std::memcmp(LIST_MCOM_RECV_INFO[k].aucData, written.data(), expected) == 0));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  for (auto& rec : LIST_MCOM_RECV_INFO) rec.nLen.store(0);
  fsu::sdk::BOARD_HARDWARE_RESOURCES_INIT();
  clear_env_info();
  REAG_ENV_BOARD_RIGHT_FG();
  const auto way = data[0] & 3;
  (way == 0 ? cutter : way == 1 ? reader : hostile)(data + 1, size - 1);
  return 0;
}
