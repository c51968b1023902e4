// A hostile device on a channel of extension board 1 against the board's reader. Input: byte 0
// picks the channel (low two bits) and seeds the read sizes; then pieces (fuzz/pieces.h), each a
// write of the device, framed as board 1 frames it (data frames of at most 1024 bytes). Its
// bytes reach its own record intact; no other record, exist flag or reading moves. Log off.
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

using namespace fsu::serial;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  for (auto& rec : LIST_MCOM_RECV_INFO) rec.nLen.store(0);
  fsu::sdk::BOARD_HARDWARE_RESOURCES_INIT();
  clear_env_info();
  REAG_ENV_BOARD_RIGHT_FG();
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
  auto reader = std::make_unique<ExtReader>();
  reader->slot = 4;
  std::uint32_t seed = data[0] | 0x100u;
  for (std::size_t at = 0, n = 0; at < wire.size(); at += n) {
    seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5;
    n = std::min<std::size_t>(1 + seed % 1200, wire.size() - at);
    auto read = std::make_unique<std::uint8_t[]>(n);  // exact size: a read past it is caught
    std::memcpy(read.get(), wire.data() + at, n);
    ext_com_feed(*reader, read.get(), static_cast<std::int32_t>(n));
  }

  // Every frame was taken; the records, the flags and the readings are as they started but one.
  static const STR_BSP_ENV_INFO_T untouched{};
  if (reader->fill != 0 || std::memcmp(&STR_BSP_ENV_INFO, &untouched, sizeof untouched) != 0 ||
      REAG_ENV_BOARD_RIGHT_FG() != 0) {
    __builtin_trap();
  }
  for (const auto& flag : fsu::sdk::BSP_BOARD_HARDWARE_RESOURCES) {
    if (flag.load() != 0) __builtin_trap();
  }
  const int own = channel_record(1, channel);
  for (int k = 0; k < kSerialResources; ++k) {
    const auto expected = k != own ? 0 : std::min<std::size_t>(written.size(), kRecvCapacity);
    if (static_cast<std::size_t>(LIST_MCOM_RECV_INFO[k].nLen.load()) != expected ||
        (expected > 0 && std::memcmp(LIST_MCOM_RECV_INFO[k].aucData, written.data(), expected) != 0)) {
      __builtin_trap();
    }
  }
  return 0;
}
