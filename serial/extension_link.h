// The links to the two extension boards (board 1 on slot 4, board 2 on slot 5, 115200 8N1):
// link frames that carry the serial channels of "Local/Uart/5" to "Local/Uart/12", their line
// parameters, and the keep-alive counters.
#pragma once

#include <atomic>
#include <cstdint>

namespace fsu::serial {

// A link frame carries at most this many data bytes in the senders' 5120-byte frame buffer.
constexpr int kMaxLinkData = 5114;

// Where receive record k (4 to 11) lives: board 1 or 2 and its channel. Board 2's channels 1
// and 2 serve records 10 and 9, crossed, in every direction.
struct ChannelRoute {
  int board;    // 1 or 2
  int channel;  // 0 to 3
};
bool channel_route(int k, ChannelRoute* route);
// The UART slot of board 1 or 2.
constexpr std::uint32_t board_slot(int board) { return board == 1 ? 4u : 5u; }

// Keep-alive counters: ticks since the main board last sent board 1 (entry 0) or 2 (entry 1)
// a frame.
extern std::atomic<std::int32_t> str_com_dog[2];
void Rest_cnt_com_dog(int board_index);
std::int32_t Return_ComDog_Cnt(int board_index);

// Sends application bytes out of the channel that serves record k; bytes written, -1 when k
// is not 4 to 11, the data are missing or longer than kMaxLinkData.
int EXT_TTYSCOM_SEND_INFO(int k, const std::uint8_t* data, int n);
// Sends the line parameters of the channel that serves record k; bytes written, -1 for a bad k.
int EXT_TTYSCOM_SET_BAU(int k, int baud, int data_bits, int stop_bits, int parity);

}  // namespace fsu::serial
