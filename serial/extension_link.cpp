#include "serial/extension_link.h"

#include "serial/frame_codec.h"
#include "serial/uart_driver.h"

namespace fsu::serial {
namespace {

constexpr std::size_t kFrameBuffer = 5120;

int write_frame(int board, const std::uint8_t* frame, std::size_t len) {
  Rest_cnt_com_dog(board - 1);
  std::uint32_t written = 0;
  BSP_ComWrite(board_slot(board), frame, static_cast<std::uint32_t>(len), &written);
  return static_cast<int>(written);
}

}  // namespace

std::atomic<std::int32_t> str_com_dog[2];

bool channel_route(int k, ChannelRoute* route) {
  static constexpr ChannelRoute kRoutes[8] = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {2, 0}, {2, 2}, {2, 1}, {2, 3}};
  if (k < 4 || k > 11) return false;
  *route = kRoutes[k - 4];
  return true;
}

void Rest_cnt_com_dog(int board_index) {
  if (board_index == 0 || board_index == 1) str_com_dog[board_index].store(0, std::memory_order_relaxed);
}

std::int32_t Return_ComDog_Cnt(int board_index) {
  if (board_index != 0 && board_index != 1) return 0;
  return str_com_dog[board_index].load(std::memory_order_relaxed);
}

int EXT_TTYSCOM_SEND_INFO(int k, const std::uint8_t* data, int n) {
  ChannelRoute route{};
  if (!channel_route(k, &route) || n < 0 || n > kMaxLinkData || (data == nullptr && n > 0)) return -1;
  std::uint8_t frame[kFrameBuffer];
  const std::size_t len = build_link_frame(static_cast<std::uint8_t>(0x80 + route.channel), data,
                                           static_cast<std::size_t>(n), frame, sizeof frame);
  return write_frame(route.board, frame, len);
}

int EXT_TTYSCOM_SET_BAU(int k, int baud, int data_bits, int stop_bits, int parity) {
  ChannelRoute route{};
  if (!channel_route(k, &route)) return -1;
  const std::uint32_t rate = static_cast<std::uint32_t>(baud);
  const std::uint8_t params[7] = {static_cast<std::uint8_t>(rate >> 24), static_cast<std::uint8_t>(rate >> 16),
                                  static_cast<std::uint8_t>(rate >> 8),  static_cast<std::uint8_t>(rate),
                                  static_cast<std::uint8_t>(data_bits),  static_cast<std::uint8_t>(stop_bits),
                                  static_cast<std::uint8_t>(parity)};
  std::uint8_t frame[16];
  const std::size_t len =
      build_link_frame(static_cast<std::uint8_t>(0x60 + route.channel), params, sizeof params, frame, sizeof frame);
  return write_frame(route.board, frame, len);
}

}  // namespace fsu::serial
