// The link to the environment board, which hangs on channel 4 of extension board 1: the sender
// thread that polls it once a second or sends a relay command instead, and the handling of its
// answers (gathered in receive record 14, decoded into the environment record).
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace fsu::serial {

// The environment record. Every element is written whole by one thread and read by others
// without a lock. A relay request stores its value before its flag (flag with release), and
// the sender reads the flag with acquire before the value.
struct STR_BSP_ENV_INFO_T {
  std::atomic<std::uint16_t> usAiVoltRaw[16];  // raw voltage words of AI 1 to 16
  std::atomic<std::uint16_t> usAiCurrRaw[16];  // raw current words of AI 1 to 16
  std::atomic<float> fAiVolt[16];              // volts
  std::atomic<float> fAiCurr[16];              // milliamperes
  std::atomic<std::uint8_t> ucDi[16];          // DI 1 to 16: 1 = contact closed
  std::atomic<std::uint8_t> ucDoState[8];      // relay states the board reports (0 to 3 used)
  std::atomic<std::uint8_t> ucStatusBits[8];   // bits of the answer's fifth status byte
  std::atomic<std::uint8_t> ucStatusByte;
  std::atomic<std::int32_t> nUpdateTime;       // Unix seconds of the last decoded answer
  std::atomic<std::uint8_t> ucDoSetFlag[8];    // 1 = a change of output i + 1 is pending
  std::atomic<std::uint8_t> ucDoSetValue[8];   // requested value: 1 = on, else off
};
extern STR_BSP_ENV_INFO_T STR_BSP_ENV_INFO;

// Sets every field of the record to zero.
void clear_env_info(STR_BSP_ENV_INFO_T& info = STR_BSP_ENV_INFO);

// The poll frame, 18 characters with its carriage return.
constexpr char kEnvPoll[] = "~FFFF03540000FD5C\r";
constexpr int kEnvPollLength = 18;
// A relay command frame is 38 characters.
constexpr std::size_t kEnvRelayFrame = 38;
// The receive record the answers are gathered in, and the gathering rule: up to 17 bytes wait
// for the next piece, 18 to 185 are discarded, from 186 on the answer is decoded.
constexpr int kEnvAnswerRecord = 14;
constexpr std::int32_t kEnvAnswerWait = 17;
constexpr std::int32_t kEnvAnswerMin = 186;

// Sends bytes to the environment board (link frame 0x84 on slot 4); bytes written, -1 for
// missing data or more than a link frame carries.
int ENV_TTYSCOM_SEND_INFO(const std::uint8_t* data, int n);
// Sets the line parameters of extension board 1's channel 4 (link frame 0x64).
int ENV_TTYSCOM_SET_BAU(int baud, int data_bits, int stop_bits, int parity);
// 1 when a relay request is pending (printing "ready set do %d" with the first), else -1.
int DO_API_SET_CHECK();
// Builds the relay command that carries all four outputs into `out` and clears the pending
// requests; the frame length (38), or 0 without touching anything when `out` is null or
// smaller than kEnvRelayFrame.
int SET_DO_CMD(std::uint8_t* out, std::size_t out_size);

// One second of the sender: the relay command when one is pending, else the poll.
void env_com_send_pass();
// Sender thread; the argument points to an int32 used in its prints only.
void* ENV_COM_SEND_THREAD(void* arg);

// Why a gathered text is not one whole answer of the board, or null when it is: at least
// kEnvAnswerMin characters, "~" first and a carriage return last, hex digits between them, a
// LENGTH whose LENID is the text's INFO and whose LCHKSUM holds, and a CHKSUM that holds.
const char* env_answer_fault(const std::uint8_t* text, std::size_t length);
// Decodes a whole answer (env_answer_fault gives null) at its fixed positions into `info` (raw
// words, volts, milliamperes, DI, relay states, status bits and byte). `cycle` is the receiving
// reader's pass counter (0 to 9), which shifts snapped voltages by a few microvolts. Returns
// false, leaving `info` alone, for a null text or one that is not a whole answer.
bool decode_env_answer(const std::uint8_t* text, std::size_t length, std::int32_t cycle, STR_BSP_ENV_INFO_T& info);
// Handles the data of one "T" frame from an extension board reader: raises the answered flag,
// gathers the bytes in record 14 and decodes or discards them per the gathering rule. A text
// long enough to decode that is not a whole answer is dropped and counted: the readings and the
// exist flags stay as the last good answer left them.
void env_answer_handler(const std::uint8_t* data, std::int32_t length, std::int32_t cycle);
// Answers dropped since start because they failed the checks (noise on the board's line).
std::uint32_t env_answers_dropped();

// The answered flag: set by every answer frame, read and cleared by the board LED.
void SET_ENV_BOARD_RIGHT_FG();
std::int32_t REAG_ENV_BOARD_RIGHT_FG();

}  // namespace fsu::serial
