// The extension board reader's cutting and dispatch on arbitrary wire bytes: the first byte
// picks the reader's slot (4, 5, or 3, which has no board) and its pass counter; the rest is a
// series of pieces, each a 16-bit big-endian size and that many bytes, fed one after the other
// as successive passes would deliver them. The log is off (its settings start at zero), so
// nothing reaches a file or a device.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz/pieces.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/receive_buffers.h"

namespace {

using namespace fsu::serial;

void reset_records() {
  for (auto& rec : LIST_MCOM_RECV_INFO) rec.nLen.store(0);
  fsu::sdk::BOARD_HARDWARE_RESOURCES_INIT();
  clear_env_info();
}

// Every buffer within its size, no record holding more bytes than the wire brought, and the
// environment answers either waiting (at most 17 bytes) or gone.
void check(const ExtReader& reader, std::size_t delivered) {
  if (reader.fill < 0 || reader.fill > kExtAccumulation) __builtin_trap();
  std::size_t channel_bytes = 0;
  for (int k = 0; k < kSerialResources; ++k) {
    const std::int32_t len = LIST_MCOM_RECV_INFO[k].nLen.load();
    if (len < 0 || len > kRecvCapacity) __builtin_trap();
    if (k < 4 || k > 11) {
      if (k != kEnvAnswerRecord && len != 0) __builtin_trap();
      continue;
    }
    channel_bytes += static_cast<std::size_t>(len);
  }
  if (channel_bytes > delivered) __builtin_trap();
  if (LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.load() > kEnvAnswerWait) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  reset_records();
  auto reader = std::make_unique<ExtReader>();
  static constexpr std::int32_t kSlots[] = {4, 5, 3, 4};
  reader->slot = kSlots[data[0] & 3];
  reader->cycle = (data[0] >> 2) % 10;

  std::size_t delivered = 0;
  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    const std::int32_t kept = ext_com_feed(*reader, piece, n);
    if (kept < 0 || kept > n) __builtin_trap();
    delivered += static_cast<std::size_t>(n);
    check(*reader, delivered);
  });
  return 0;
}
