// The environment board's answer handling on arbitrary bytes: the first byte is the reader's
// pass counter; the rest is a series of pieces, each a 16-bit big-endian size and that many
// bytes, handed to the answer handler as the data of successive "T" link frames. The whole
// input also goes to the decoder directly, in a buffer of its exact size. The log is off (its
// settings start at zero), so nothing reaches a file.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

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
  for (int b = 0; b < 8; ++b) require(is_bit(info.ucDoState[b].load()) && is_bit(info.ucStatusBits[b].load()));
}

// The raw words, inputs and relay states a decode writes, as one text.
std::string readings(const STR_BSP_ENV_INFO_T& info) {
  std::string out;
  for (int c = 0; c < 16; ++c) {
    out += std::to_string(info.usAiVoltRaw[c] * 65536u + info.usAiCurrRaw[c]) + static_cast<char>('0' + info.ucDi[c] + 2 * info.ucDoState[c % 8]);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::int32_t cycle = data[0] % 10;
  MCOM_RECV_INFO& record = LIST_MCOM_RECV_INFO[kEnvAnswerRecord];
  record.nLen.store(0);
  clear_env_info();

  // A decode takes only one whole answer: "~" first, a carriage return last, the length the
  // gathering rule allows.
  auto whole = std::make_unique<std::uint8_t[]>(size);
  std::memcpy(whole.get(), data, size);
  auto direct = std::make_unique<STR_BSP_ENV_INFO_T>();
  require(!decode_env_answer(whole.get(), size, cycle, *direct) ||
          (size >= kEnvAnswerMin && whole[0] == '~' && whole[size - 1] == '\r'));
  check_ranges(*direct);

  // Through the handler, the readings move only on a gathered text that passes the checks, and
  // every gathered text long enough to decode that fails them is counted.
  for_each_piece(data, size, 1, [&](std::uint8_t* piece, std::int32_t n) {
    const std::size_t had = static_cast<std::size_t>(record.nLen.load());
    std::string text(reinterpret_cast<const char*>(record.aucData), had);
    text.append(reinterpret_cast<const char*>(piece), std::min(static_cast<std::size_t>(n), sizeof record.aucData - had));
    const bool passes = env_answer_fault(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()) == nullptr;
    const std::string before = readings(STR_BSP_ENV_INFO);
    const std::uint32_t dropped = env_answers_dropped();
    env_answer_handler(piece, n, cycle);
    const std::int32_t gathered = record.nLen.load();
    if (gathered < 0 || gathered > kEnvAnswerWait) __builtin_trap();
    if (!passes && readings(STR_BSP_ENV_INFO) != before) __builtin_trap();
    const bool decodable = text.size() >= static_cast<std::size_t>(kEnvAnswerMin);
    if (env_answers_dropped() != dropped + (decodable && !passes ? 1 : 0)) __builtin_trap();
    check_ranges(STR_BSP_ENV_INFO);
  });
  return 0;
}
