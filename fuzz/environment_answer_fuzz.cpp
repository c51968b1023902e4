// The environment board's answer handling on arbitrary bytes: the first byte is the reader's
// pass counter; the rest is a series of pieces, each a 16-bit big-endian size and that many
// bytes, handed to the answer handler as the data of successive "T" link frames. The whole
// input also goes to the decoder directly, in a buffer of its exact size. The log is off (its
// settings start at zero), so nothing reaches a file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "fuzz/pieces.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/receive_buffers.h"

namespace {

using namespace fsu::serial;

bool is_bit(std::uint8_t v) { return v == 0 || v == 1; }

// Volts 0 to 5.12 V (snapping moves them by at most 10 mV), milliamperes 0 or 4 to 20.48,
// every flag a 0 or a 1.
void check_ranges(const STR_BSP_ENV_INFO_T& info) {
  for (int c = 0; c < 16; ++c) {
    const float v = info.fAiVolt[c].load();
    const float i = info.fAiCurr[c].load();
    if (!(v >= 0.0f && v <= 5.13f)) __builtin_trap();
    if (!(i == 0.0f || (i >= 4.0f && i <= 20.48f))) __builtin_trap();
    if (!is_bit(info.ucDi[c].load())) __builtin_trap();
  }
  for (int b = 0; b < 8; ++b) {
    if (!is_bit(info.ucDoState[b].load()) || !is_bit(info.ucStatusBits[b].load())) __builtin_trap();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::int32_t cycle = data[0] % 10;
  LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.store(0);
  clear_env_info();

  auto whole = std::make_unique<std::uint8_t[]>(size);
  std::memcpy(whole.get(), data, size);
  auto direct = std::make_unique<STR_BSP_ENV_INFO_T>();
  if (decode_env_answer(whole.get(), size, cycle, *direct) != (size >= kEnvAnswerMin)) __builtin_trap();
  check_ranges(*direct);

  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    env_answer_handler(piece, n, cycle);
    const std::int32_t gathered = LIST_MCOM_RECV_INFO[kEnvAnswerRecord].nLen.load();
    if (gathered < 0 || gathered > kEnvAnswerWait) __builtin_trap();
    check_ranges(STR_BSP_ENV_INFO);
  });
  return 0;
}
