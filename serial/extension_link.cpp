#include "serial/extension_link.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "platform/clock.h"
#include "platform/console_output.h"
#include "serial/board_answers.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"

namespace fsu::serial {
namespace {

constexpr std::size_t kFrameBuffer = 5120;
constexpr long kReaderPassMs = 100;
constexpr std::int32_t kKeepAliveTicks = 20;
constexpr std::uint8_t kKeepAliveFrame[] = {0x7E, 0x00, 0x00, 0x92, 0x92, 0x0D};

constexpr ChannelRoute kRoutes[8] = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {2, 0}, {2, 2}, {2, 1}, {2, 3}};

int write_to_board(int board, const std::uint8_t* frame, std::size_t len) {
  std::uint32_t written = 0;
  BSP_ComWrite(board_slot(board), frame, static_cast<std::uint32_t>(len), &written);
  return static_cast<int>(written);
}

// Makes room for the next read: bytes that filled the whole buffer without forming a frame
// are dropped in one go.
void make_room(ExtReader& r) {
  if (r.fill < kExtAccumulation) return;
  r.fill = 0;
  std::memset(r.buffer, 0, sizeof r.buffer);
}

void handle_frames(ExtReader& r) {
  std::int32_t length = 0;
  while ((length = read_a_msg(r.buffer, r.frame, sizeof r.frame, r.fill, &r.fill)) > 0) {
    ext_handle_frame(r, r.frame, length);
  }
}

void append_channel_data(int k, std::int32_t slot, const std::uint8_t* data, std::int32_t len) {
  std::lock_guard<std::mutex> lock(M_COM_READ_LOCK[k]);
  const std::int32_t copied = append_locked(k, data, len);
  support::SDK_LOG_WRITE(support::SDK_LOG_SO, "EXT_M_COM_READ_THREAD com %d sol_index=%d recv info len=%d/%d/%d", k,
                         slot, LIST_MCOM_RECV_INFO[k].nLen.load(std::memory_order_relaxed), len, copied);
}

}  // namespace

std::atomic<std::int32_t> str_com_dog[2];
STR_BSP_EXT_ENV_INFO_T STR_BSP_EXT_ENV_INFO;

bool channel_route(int k, ChannelRoute* route) {
  if (k < 4 || k > 11 || route == nullptr) return false;
  *route = kRoutes[k - 4];
  return true;
}

int channel_record(int board, int channel) {
  for (int k = 4; k <= 11; ++k) {
    if (kRoutes[k - 4].board == board && kRoutes[k - 4].channel == channel) return k;
  }
  return -1;
}

void Rest_cnt_com_dog(int board_index) {
  if (board_index == 0 || board_index == 1) str_com_dog[board_index].store(0, std::memory_order_relaxed);
}

std::int32_t Return_ComDog_Cnt(int board_index) {
  if (board_index != 0 && board_index != 1) return 0;
  return str_com_dog[board_index].load(std::memory_order_relaxed);
}

void RunComDog() {
  for (auto& counter : str_com_dog) counter.fetch_add(1, std::memory_order_relaxed);
  for (int b = 0; b < 2; ++b) {
    if (str_com_dog[b].load(std::memory_order_relaxed) > kKeepAliveTicks) {
      EXT_TTYSCOM_app_dog(b);
      Rest_cnt_com_dog(b);
    }
  }
}

int EXT_TTYSCOM_app_dog(int b) {
  if (b != 0 && b != 1) return 0;
  Rest_cnt_com_dog(b);
  const int written = write_to_board(b + 1, kKeepAliveFrame, sizeof kKeepAliveFrame);
  support::SDK_LOG_WRITE(support::SDK_LOG_SYS, b == 0 ? "COM DOG RUN EXT1 COM" : "COM DOG RUN EXT2 COM");
  return written;
}

int send_link_frame(int board, std::uint8_t command, const std::uint8_t* data, int n) {
  if (n < 0 || n > kMaxLinkData || (data == nullptr && n > 0)) return -1;
  std::uint8_t frame[kFrameBuffer];
  const std::size_t len = build_link_frame(command, data, static_cast<std::size_t>(n), frame, sizeof frame);
  Rest_cnt_com_dog(board - 1);
  return write_to_board(board, frame, len);
}

int send_line_params(int board, int channel, int baud, int data_bits, int stop_bits, int parity) {
  const std::uint32_t rate = static_cast<std::uint32_t>(baud);
  const std::uint8_t params[7] = {static_cast<std::uint8_t>(rate >> 24), static_cast<std::uint8_t>(rate >> 16),
                                  static_cast<std::uint8_t>(rate >> 8),  static_cast<std::uint8_t>(rate),
                                  static_cast<std::uint8_t>(data_bits),  static_cast<std::uint8_t>(stop_bits),
                                  static_cast<std::uint8_t>(parity)};
  return send_link_frame(board, static_cast<std::uint8_t>(0x60 + channel), params, sizeof params);
}

int EXT_TTYSCOM_SEND_INFO(int k, const std::uint8_t* data, int n) {
  ChannelRoute route{};
  if (!channel_route(k, &route)) return -1;
  return send_link_frame(route.board, static_cast<std::uint8_t>(0x80 + route.channel), data, n);
}

int EXT_TTYSCOM_SET_BAU(int k, int baud, int data_bits, int stop_bits, int parity) {
  ChannelRoute route{};
  if (!channel_route(k, &route)) return -1;
  return send_line_params(route.board, route.channel, baud, data_bits, stop_bits, parity);
}

int EXT_TOP_DO_SET(int output, int value) {
  const std::uint8_t data[1] = {static_cast<std::uint8_t>(value)};
  std::uint8_t frame[8];
  const std::size_t len = build_link_frame(static_cast<std::uint8_t>(output - 0x57), data, 1, frame, sizeof frame);
  const int written = write_to_board(2, frame, len);
  fsu::platform::sdk_printf("EXT_TOP_DO_SET CH%d =%d\r\n", output, value);
  return written;
}

void ext_handle_frame(const ExtReader& reader, const std::uint8_t* frame, std::int32_t length) {
  if (frame == nullptr || length < static_cast<std::int32_t>(kLinkOverhead)) return;
  const std::int32_t len = frame[1] * 256 + frame[2];
  if (len + static_cast<std::int32_t>(kLinkOverhead) != length) return;
  const std::uint8_t command = frame[3];
  const std::uint8_t* data = frame + 4;
  support::SDK_LOG_WRITE(support::SDK_LOG_SO, "CID=%02x nLength=%d\r\n", command, len);
  if (reader.slot == 4 || reader.slot == 5) note_board_answer(reader.slot == 4 ? 1 : 2, platform::monotonic_seconds());
  if (command == 0x41) {
    if (reader.slot == 4) sdk::PAR_SET_M_COM_EXIST_STATUS(1);
    if (reader.slot == 5) sdk::PAR_SET_EXT_COM_EXIST_STATUS(1);
  } else if (command >= 0x50 && command <= 0x53) {
    if (reader.slot != 4 && reader.slot != 5) return;  // no board, no channel map
    const int k = channel_record(reader.slot == 4 ? 1 : 2, command - 0x50);
    append_channel_data(k, reader.slot, data, len);
  } else if (command == 0x54) {
    env_answer_handler(data, len, reader.cycle);
  }
}

std::int32_t ext_com_feed(ExtReader& reader, const std::uint8_t* data, std::int32_t n) {
  make_room(reader);
  if (data == nullptr || n <= 0) return 0;
  const std::int32_t take = n < kExtAccumulation - reader.fill ? n : kExtAccumulation - reader.fill;
  std::memcpy(reader.buffer + reader.fill, data, static_cast<std::size_t>(take));
  reader.fill += take;
  handle_frames(reader);
  return take;
}

void ext_com_read_pass(ExtReader& reader) {
  reader.cycle = reader.cycle >= 9 ? 0 : reader.cycle + 1;
  make_room(reader);
  std::uint32_t n = 0;
  if (BSP_ComRead(static_cast<std::uint32_t>(reader.slot), reader.buffer + reader.fill,
                  static_cast<std::uint32_t>(kExtAccumulation - reader.fill), &n) != 0) {
    n = 0;
  }
  reader.fill += static_cast<std::int32_t>(n);
  handle_frames(reader);
}

void* EXT_COM_READ_THREAD(void* arg) {
  const std::int32_t slot = *static_cast<std::int32_t*>(arg);
  print_stump(slot, __func__, __LINE__);
  if (slot != 4 && slot != 5) support::SDK_LOG_WRITE(support::SDK_LOG_ERROR, "COM_index err %d", slot);
  ExtReader reader;
  reader.slot = slot;
  for (;;) {
    platform::sleep_ms(kReaderPassMs);
    ext_com_read_pass(reader);
  }
}

}  // namespace fsu::serial
