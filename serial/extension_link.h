// The links to the two extension boards (board 1 on slot 4, board 2 on slot 5, 115200 8N1):
// link frames that carry the serial channels of "Local/Uart/5" to "Local/Uart/12", their line
// parameters, the relays of board 2, the keep-alive, and the reader threads that hand every
// received frame to its destination.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace fsu::serial {

// A link frame carries at most this many data bytes in the senders' 5120-byte frame buffer.
constexpr int kMaxLinkData = 5114;
// A reader's accumulation buffer: bytes that never form a frame are dropped once it is full.
constexpr std::int32_t kExtAccumulation = 5120;

// Where receive record k (4 to 11) lives: board 1 or 2 and its channel. Board 2's channels 1
// and 2 serve records 10 and 9, crossed, in every direction.
struct ChannelRoute {
  int board;    // 1 or 2
  int channel;  // 0 to 3
};
bool channel_route(int k, ChannelRoute* route);
// The receive record that channel 0 to 3 of board 1 or 2 fills; -1 for anything else.
int channel_record(int board, int channel);
// The UART slot of board 1 or 2.
constexpr std::uint32_t board_slot(int board) { return board == 1 ? 4u : 5u; }

// Keep-alive counters: ticks since the main board last sent board 1 (entry 0) or 2 (entry 1)
// a frame.
extern std::atomic<std::int32_t> str_com_dog[2];
void Rest_cnt_com_dog(int board_index);
std::int32_t Return_ComDog_Cnt(int board_index);
// One watchdog tick: a board that has heard nothing for more than 20 ticks gets a keep-alive.
void RunComDog();
// Sends the keep-alive frame to board 0 or 1 (boards 1 and 2); bytes written, 0 for another b.
int EXT_TTYSCOM_app_dog(int b);

// Builds the link frame of `command` around n data bytes, resets the board's keep-alive
// counter and writes it to the board's slot. Bytes written; -1 for missing data or n outside
// 0 to kMaxLinkData.
int send_link_frame(int board, std::uint8_t command, const std::uint8_t* data, int n);
// The line-parameter frame (0x60 + channel, baud big-endian, then the low bytes of data bits,
// stop bits and parity) to a channel of board 1 or 2.
int send_line_params(int board, int channel, int baud, int data_bits, int stop_bits, int parity);

// Sends application bytes out of the channel that serves record k; bytes written, -1 when k
// is not 4 to 11, the data are missing or longer than kMaxLinkData.
int EXT_TTYSCOM_SEND_INFO(int k, const std::uint8_t* data, int n);
// Sends the line parameters of the channel that serves record k; bytes written, -1 for a bad k.
int EXT_TTYSCOM_SET_BAU(int k, int baud, int data_bits, int stop_bits, int parity);
// Switches relay output 1 to 4 of board 2 (DO 5 to 8); bytes written. Leaves the keep-alive
// counter alone.
int EXT_TOP_DO_SET(int output, int value);

// The extension environment record. No frame of the links carries its values, so it stays all
// zero; the point API reads AI 9 to 16 and DI 17 to 24 from it.
struct STR_BSP_EXT_ENV_INFO_T {
  std::atomic<float> fAiVolt[8];  // volts of AI channels 9 to 16
  std::atomic<float> fAiCurr[8];  // milliamperes of AI channels 9 to 16
  std::atomic<std::uint8_t> ucDi[8];  // DI inputs 17 to 24: 1 = contact closed
};
extern STR_BSP_EXT_ENV_INFO_T STR_BSP_EXT_ENV_INFO;

// The state of one reader thread.
struct ExtReader {
  std::int32_t slot = 4;
  std::int32_t fill = 0;
  std::int32_t cycle = 0;  // pass counter: 1, 2, ..., 9, 0, 1, ...
  std::uint8_t buffer[kExtAccumulation] = {};
  std::uint8_t frame[kExtAccumulation] = {};
};

// One 100 ms pass: advances the cycle, empties a full buffer, reads what the slot holds and
// handles every complete frame.
void ext_com_read_pass(ExtReader& reader);
// The bytes as if the slot had delivered them in this pass (without advancing the cycle):
// empties a full buffer, keeps what fits and handles every complete frame. Returns the bytes
// kept.
std::int32_t ext_com_feed(ExtReader& reader, const std::uint8_t* data, std::int32_t n);
// Hands one complete link frame received on reader's slot to its destination.
void ext_handle_frame(const ExtReader& reader, const std::uint8_t* frame, std::int32_t length);

// Reader thread of one board; the argument points to the int32 slot, 4 or 5.
void* EXT_COM_READ_THREAD(void* arg);

}  // namespace fsu::serial
