#include "serial/environment_link.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/clock.h"
#include "platform/console_output.h"
#include "serial/board_answers.h"
#include "sdk/resource_catalogue.h"
#include "serial/extension_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "serial/uart_driver.h"
#include "support/file_helpers.h"
#include "support/sdk_log.h"

namespace fsu::serial {
namespace {

constexpr int kEnvBoard = 1;
constexpr int kEnvChannel = 4;
constexpr int kRelayOutputs = 4;

std::atomic<std::int32_t> ENV_BOARD_RIGHT_FG{0};
std::atomic<std::uint32_t> g_dropped_answers{0};
// A noisy line drops an answer a second: the first drop is logged, then every hundredth.
constexpr std::uint32_t kDropLogEvery = 100;

bool hex_digit(std::uint8_t c) { return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f'); }

const char* at(const std::uint8_t* text, std::size_t position) {
  return reinterpret_cast<const char*>(text + position);
}

// Pulls a reading within about 10 mV of a multiple of 0.1 V onto that multiple, plus j, in
// single precision as the board's readings always were.
float snap_volts(float v, float j) {
  const int t1 = static_cast<int>((v + 0.005f) * 1000.0f);
  if (t1 > 50 && t1 % 100 <= 9) v = static_cast<float>(t1 - t1 % 100) / 1000.0f + j;
  const int t2 = static_cast<int>(v * 1000.0f);
  if (t2 % 100 > 90) v = static_cast<float>((t2 + 10) - (t2 + 10) % 10) / 1000.0f + j;
  return v;
}

template <typename T, std::size_t N>
void zero(std::atomic<T> (&fields)[N]) {
  for (auto& f : fields) f.store(T{}, std::memory_order_relaxed);
}

}  // namespace

STR_BSP_ENV_INFO_T STR_BSP_ENV_INFO;

void clear_env_info(STR_BSP_ENV_INFO_T& info) {
  zero(info.usAiVoltRaw);
  zero(info.usAiCurrRaw);
  zero(info.fAiVolt);
  zero(info.fAiCurr);
  zero(info.ucDi);
  zero(info.ucDoState);
  zero(info.ucStatusBits);
  info.ucStatusByte.store(0, std::memory_order_relaxed);
  info.nUpdateTime.store(0, std::memory_order_relaxed);
  zero(info.ucDoSetFlag);
  zero(info.ucDoSetValue);
}

int ENV_TTYSCOM_SEND_INFO(const std::uint8_t* data, int n) {
  return send_link_frame(kEnvBoard, static_cast<std::uint8_t>(0x80 + kEnvChannel), data, n);
}

int ENV_TTYSCOM_SET_BAU(int baud, int data_bits, int stop_bits, int parity) {
  return send_line_params(kEnvBoard, kEnvChannel, baud, data_bits, stop_bits, parity);
}

int DO_API_SET_CHECK() {
  for (int i = 0; i < 8; ++i) {
    if (STR_BSP_ENV_INFO.ucDoSetFlag[i].load(std::memory_order_acquire) == 1) {
      fsu::platform::sdk_printf("ready set do %d", i);
      return 1;
    }
  }
  return -1;
}

int SET_DO_CMD(std::uint8_t* out, std::size_t out_size) {
  if (out == nullptr || out_size < kEnvRelayFrame) return 0;
  POWER_7E_CMD cmd{};
  cmd.VER = 0xFF;
  cmd.ADR = 0xFF;
  cmd.CID1 = 0x05;
  cmd.CID2 = 0x55;
  cmd.LENGTH = 10;
  std::memset(cmd.INFO, 0xFF, cmd.LENGTH);
  std::uint8_t mask = 0;
  for (int i = 0; i < kRelayOutputs; ++i) {
    // The flag is taken (acquire) before the value is read, so a request raised meanwhile
    // stays pending for the next second instead of being lost.
    std::uint8_t pending = 1;
    const bool taken = STR_BSP_ENV_INFO.ucDoSetFlag[i].compare_exchange_strong(pending, 0, std::memory_order_acq_rel,
                                                                                std::memory_order_acquire);
    const bool on = STR_BSP_ENV_INFO.ucDoSetValue[i].load(std::memory_order_relaxed) == 1;
    // A pending request decides alone; otherwise the last requested on, or the reported state.
    if (on || (!taken && STR_BSP_ENV_INFO.ucDoState[i].load(std::memory_order_relaxed) == 1)) {
      mask = static_cast<std::uint8_t>(mask | (1u << i));
    }
  }
  cmd.INFO[1] = mask;
  return POWER_7E_CMDSend(cmd, out, out_size);
}

void env_com_send_pass() {
  if (DO_API_SET_CHECK() == 1) {
    std::uint8_t frame[kEnvRelayFrame];
    const int n = SET_DO_CMD(frame, sizeof frame);
    ENV_TTYSCOM_SEND_INFO(frame, n);
  } else {
    ENV_TTYSCOM_SEND_INFO(reinterpret_cast<const std::uint8_t*>(kEnvPoll), kEnvPollLength);
  }
}

void* ENV_COM_SEND_THREAD(void* arg) {
  const std::int32_t value = *static_cast<std::int32_t*>(arg);
  print_stump(value, __func__, __LINE__);
  ENV_TTYSCOM_SET_BAU(9600, 8, 1, 0);
  fsu::platform::sdk_printf("fun-ENV_COM_SEND_THREAD=%d\r\n", value);
  for (;;) {
    platform::sleep_s(1);
    env_com_send_pass();
  }
}

const char* env_answer_fault(const std::uint8_t* text, std::size_t length) {
  if (text == nullptr || length < static_cast<std::size_t>(kEnvAnswerMin)) return "short";
  if (text[0] != '~') return "no start mark";
  if (text[length - 1] != '\r') return "no end mark";
  for (std::size_t i = 1; i + 1 < length; ++i) {
    if (!hex_digit(text[i])) return "not hex";
  }
  // From VER through CHKSUM, two characters a byte: INFO bytes + 8.
  const std::size_t body = length - 2;
  const std::uint8_t word[2] = {AscToHex(at(text, 9)), AscToHex(at(text, 11))};
  if (body % 2 != 0 || CheckLTH(word, static_cast<int>(body / 2)) != 0) return "LENGTH";
  if (CheckSum(text + 1, static_cast<int>(body)) != 0) return "CHKSUM";
  return nullptr;
}

bool decode_env_answer(const std::uint8_t* text, std::size_t length, std::int32_t cycle, STR_BSP_ENV_INFO_T& info) {
  if (env_answer_fault(text, length) != nullptr) return false;
  const int turn = ((cycle % 10) + 10) % 10;
  for (int c = 0; c < 16; ++c) {
    const std::size_t base = 13 + 8 * static_cast<std::size_t>(c);
    const std::uint16_t volt_raw = AscToUnShort(at(text, base));
    const std::uint16_t curr_raw = AscToUnShort(at(text, base + 4));
    info.usAiVoltRaw[c].store(volt_raw, std::memory_order_relaxed);
    info.usAiCurrRaw[c].store(curr_raw, std::memory_order_relaxed);
    const float volts = volt_raw <= 0xFFFD ? static_cast<float>(volt_raw * 5.0 / 64000.0) : 0.0f;
    const float j = static_cast<float>(((c * 3 * turn) % 10) * 0.000001);
    info.fAiVolt[c].store(snap_volts(volts, j), std::memory_order_relaxed);
    const bool in_range = curr_raw >= 0x3200 && curr_raw <= 0xFFFA;
    info.fAiCurr[c].store(in_range ? static_cast<float>(curr_raw * 20.0 / 64000.0) : 0.0f, std::memory_order_relaxed);
  }
  const std::uint8_t di1 = AscToHex(at(text, 141));
  const std::uint8_t di2 = AscToHex(at(text, 143));
  const std::uint8_t relays = AscToHex(at(text, 147));
  const std::uint8_t status = AscToHex(at(text, 149));
  for (int i = 0; i < 8; ++i) {
    info.ucDi[i].store(((di1 >> i) & 1) == 0 ? 1 : 0, std::memory_order_relaxed);  // a 0 bit is a closed contact
    info.ucDi[8 + i].store(((di2 >> i) & 1) == 0 ? 1 : 0, std::memory_order_relaxed);
    info.ucDoState[i].store((relays >> i) & 1, std::memory_order_relaxed);
    info.ucStatusBits[i].store((status >> i) & 1, std::memory_order_relaxed);
  }
  info.ucStatusByte.store(AscToHex(at(text, 163)), std::memory_order_relaxed);
  return true;
}

void env_answer_handler(const std::uint8_t* data, std::int32_t length, std::int32_t cycle) {
  SET_ENV_BOARD_RIGHT_FG();
  if (data == nullptr || length < 0) return;
  MCOM_RECV_INFO& rec = LIST_MCOM_RECV_INFO[kEnvAnswerRecord];
  std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[kEnvAnswerRecord]);
  append_locked(kEnvAnswerRecord, data, length);
  const std::int32_t gathered = rec.nLen.load(std::memory_order_relaxed);
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, "M_COM_READ_THREAD com %d recv info len=%d", kEnvAnswerRecord,
                         gathered);
  if (gathered <= kEnvAnswerWait) return;
  if (gathered >= kEnvAnswerMin) {
    const char* fault = env_answer_fault(rec.aucData, static_cast<std::size_t>(gathered));
    if (fault == nullptr) {
      sdk::PAR_SET_M_ENV_EXIST_STATUS(1);
      decode_env_answer(rec.aucData, static_cast<std::size_t>(gathered), cycle, STR_BSP_ENV_INFO);
      sdk::PAR_SET_EXT_ENV_EXIST_STATUS(1);
      note_board_answer(kEnvironmentBoard, platform::monotonic_seconds());
      STR_BSP_ENV_INFO.nUpdateTime.store(static_cast<std::int32_t>(support::READ_SYSTEM_UnixTime()),
                                         std::memory_order_relaxed);
    } else {
      const std::uint32_t dropped = g_dropped_answers.fetch_add(1, std::memory_order_relaxed) + 1;
      if (dropped % kDropLogEvery == 1) {
        support::SDK_LOG_WRITE(support::SDK_LOG_ERROR, "ENV answer dropped: %s, len=%d (%u dropped so far)", fault,
                               gathered, dropped);
      }
    }
  }
  std::memset(rec.aucData, 0, sizeof rec.aucData);
  rec.nLen.store(0, std::memory_order_relaxed);
}

std::uint32_t env_answers_dropped() { return g_dropped_answers.load(std::memory_order_relaxed); }

void SET_ENV_BOARD_RIGHT_FG() { ENV_BOARD_RIGHT_FG.store(1, std::memory_order_relaxed); }

std::int32_t REAG_ENV_BOARD_RIGHT_FG() { return ENV_BOARD_RIGHT_FG.exchange(0, std::memory_order_relaxed); }

}  // namespace fsu::serial
