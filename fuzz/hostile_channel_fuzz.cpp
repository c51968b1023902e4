// A hostile device on a channel of extension board 1 against the board's reader: the input is
// what the device writes into the channel's far end, framed as the board frames it (one data
// frame per write, at most 1024 bytes each), and the resulting wire is fed to the reader in
// reads of varying size. Whatever the device writes, its bytes reach its own channel's record
// intact and in order, no other record, no exist flag and no environment reading.
//
// Input: byte 0 picks the channel (low two bits) and seeds the read sizes; then pieces
// (fuzz/pieces.h), each one write of the device. The log is off, so nothing reaches a file.
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

constexpr std::size_t kBoardFrameData = 1024;

void reset_records() {
  for (auto& rec : LIST_MCOM_RECV_INFO) rec.nLen.store(0);
  fsu::sdk::BOARD_HARDWARE_RESOURCES_INIT();
  clear_env_info();
  REAG_ENV_BOARD_RIGHT_FG();
}

bool readings_untouched() {
  const STR_BSP_ENV_INFO_T& e = STR_BSP_ENV_INFO;
  if (e.nUpdateTime.load() != 0 || e.ucStatusByte.load() != 0 || REAG_ENV_BOARD_RIGHT_FG() != 0) return false;
  for (int c = 0; c < 16; ++c) {
    if (e.usAiVoltRaw[c].load() != 0 || e.usAiCurrRaw[c].load() != 0 || e.ucDi[c].load() != 0) return false;
  }
  for (const auto& state : e.ucDoState) {
    if (state.load() != 0) return false;
  }
  for (const auto& flag : fsu::sdk::BSP_BOARD_HARDWARE_RESOURCES) {
    if (flag.load() != 0) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  reset_records();
  const int channel = data[0] & 3;
  const int record = channel_record(1, channel);

  std::vector<std::uint8_t> written, wire;
  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    written.insert(written.end(), piece, piece + n);
    for (std::int32_t at = 0; at < n; at += static_cast<std::int32_t>(kBoardFrameData)) {
      const std::size_t len = std::min<std::size_t>(kBoardFrameData, static_cast<std::size_t>(n - at));
      std::uint8_t frame[kBoardFrameData + kLinkOverhead];
      const std::size_t length =
          build_link_frame(static_cast<std::uint8_t>(0x50 + channel), piece + at, len, frame, sizeof frame);
      wire.insert(wire.end(), frame, frame + length);
    }
  });

  auto reader = std::make_unique<ExtReader>();
  reader->slot = 4;
  std::uint32_t seed = data[0] | 0x100u;
  for (std::size_t at = 0; at < wire.size();) {
    seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5;
    const std::size_t n = std::min<std::size_t>(1 + seed % 1200, wire.size() - at);
    auto read = std::make_unique<std::uint8_t[]>(n);
    std::memcpy(read.get(), wire.data() + at, n);
    ext_com_feed(*reader, read.get(), static_cast<std::int32_t>(n));
    at += n;
  }

  // Every frame was taken, and the device's bytes landed only in its own record.
  if (reader->fill != 0 || !readings_untouched()) __builtin_trap();
  for (int k = 0; k < kSerialResources; ++k) {
    const std::int32_t len = LIST_MCOM_RECV_INFO[k].nLen.load();
    if (k != record) {
      if (len != 0) __builtin_trap();
      continue;
    }
    const std::size_t expected = std::min<std::size_t>(written.size(), kRecvCapacity);
    if (static_cast<std::size_t>(len) != expected ||
        (expected > 0 && std::memcmp(LIST_MCOM_RECV_INFO[k].aucData, written.data(), expected) != 0)) {
      __builtin_trap();
    }
  }
  return 0;
}
