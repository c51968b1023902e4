// The board links against pseudo-terminals at /dev/ttymxc5 and /dev/ttymxc6: frames cut out
// of the byte stream and handed to their destinations, bad wire input, the keep-alive's timing,
// relays of board 2, the environment sender, and the thread bodies.
#include <gtest/gtest.h>

#include <pthread.h>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "sdk/resource_catalogue.h"
#include "serial/environment_link.h"
#include "serial/extension_link.h"
#include "serial/frame_codec.h"
#include "serial/receive_buffers.h"
#include "serial/serial_ports.h"
#include "serial/uart_driver.h"
#include "support/sdk_log.h"
#include "tests/common/pty_pair.h"
#include "tests/common/test_sandbox.h"

namespace fsu::serial {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes frame(std::uint8_t command, const std::string& data) {
  Bytes out(data.size() + kLinkOverhead);
  build_link_frame(command, reinterpret_cast<const std::uint8_t*>(data.data()), data.size(), out.data(), out.size());
  return out;
}

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The poll as board 1 carries it to the environment board.
const Bytes kWrappedPoll = Bytes{0x7E, 0x00, 0x12, 0x84} + Bytes(kEnvPoll, kEnvPoll + kEnvPollLength) + Bytes{0xC7, 0x0D};

std::string record(int k) {
  const MCOM_RECV_INFO& r = LIST_MCOM_RECV_INFO[k];
  return std::string(r.aucData, r.aucData + r.nLen.load());
}

// The four exist flags, in order.
std::string flags() {
  std::string out;
  for (auto& f : sdk::BSP_BOARD_HARDWARE_RESOURCES) out += std::to_string(f.load());
  return out;
}

// Reader passes (if a reader is given) until `done` holds or the deadline passes.
template <typename Condition>
bool wait_for(Condition done, ExtReader* reader = nullptr) {
  const double deadline = platform::monotonic_seconds() + 3.0;
  while (!done() && platform::monotonic_seconds() < deadline) {
    if (reader != nullptr) ext_com_read_pass(*reader);
    platform::sleep_ms(5);
  }
  return done();
}

class BoardLinks : public ::testing::Test {
 protected:
  void SetUp() override {
    support::SDK_LOG_PAR_INIT();
    testing::internal::CaptureStdout();
    for (std::uint32_t slot : {4u, 5u}) {
      BSP_ComCreate(slot);
      M_BAU_SET_COM(slot, 115200, 8, 1, 0);
    }
    testing::internal::GetCapturedStdout();
    board1_.slot = 4;
    board2_.slot = 5;
  }
  void TearDown() override {
    BSP_ComDestroy(4);
    BSP_ComDestroy(5);
  }
  static void feed(ExtReader& reader, const Bytes& bytes) {
    ext_com_feed(reader, bytes.data(), static_cast<std::int32_t>(bytes.size()));
  }
  bool logged(const std::string& text) const { return box_.read("/tmp/sdklog.log").find(text) != std::string::npos; }

  test::TestSandbox box_;
  test::PtyPair ext1_{box_.path("/dev/ttymxc5")};
  test::PtyPair ext2_{box_.path("/dev/ttymxc6")};
  ExtReader board1_, board2_;
};

TEST_F(BoardLinks, ReaderPassesRouteChannelFramesWithBoard2Crossed) {
  const Bytes q = {0x7E, 0x00, 0x03, 0x51, 0x31, 0x32, 0x33, 0x99, 0x0D};  // the sum is not checked
  ext2_.send(q + frame(0x52, "r") + frame(0x50, "p"));
  EXPECT_TRUE(wait_for([] { return record(8) == "p"; }, &board2_));
  EXPECT_EQ(record(10), "123");  // "Local/Uart/11"
  EXPECT_EQ(record(9), "r");
  ext1_.send(q);
  EXPECT_TRUE(wait_for([] { return record(5) == "123"; }, &board1_));  // "Local/Uart/6"
  EXPECT_TRUE(logged("CID=51 nLength=3\r\n"));
  EXPECT_TRUE(logged("EXT_M_COM_READ_THREAD com 10 sol_index=5 recv info len=3/3/3"));
}

TEST_F(BoardLinks, FramesReachTheirDestinationsThroughSplitsGarbageAndFullBuffers) {
  feed(board1_, frame(0x50, "ab") + frame(0x50, "cd"));
  const Bytes split = frame(0x53, "xyz");
  feed(board1_, Bytes(split.begin(), split.begin() + 5));
  EXPECT_EQ(record(7), "");
  feed(board1_, Bytes(split.begin() + 5, split.end()) + frame(0x42, "?") + frame(0xA0, ""));  // unknown: ignored
  EXPECT_EQ(record(7), "xyz");
  feed(board1_, Bytes(6000, 0x7E));
  EXPECT_EQ(board1_.fill, kExtAccumulation);
  feed(board1_, frame(0x52, "after"));  // a full buffer is dropped whole at the next pass
  EXPECT_EQ(record(6), "after");
  EXPECT_EQ(board1_.fill, 0);
  for (char c : {'a', 'b'}) feed(board1_, frame(0x50, std::string(3000, c)));
  EXPECT_EQ(record(4), "abcd" + std::string(3000, 'a') + std::string(4096 - 3004, 'b'));

  feed(board2_, frame(0x41, "xx"));  // presence of board 2, then of board 1
  EXPECT_EQ(flags(), "0100");
  feed(board1_, frame(0x41, ""));
  EXPECT_EQ(flags(), "1100");
  const std::string answer = "~21014100E0BE" + std::string(187, '0');  // every input closed
  feed(board2_, frame(0x54, answer.substr(0, 10)) + frame(0x54, answer.substr(10)));
  EXPECT_EQ(STR_BSP_ENV_INFO.ucDi[15].load(), 1);
  EXPECT_EQ(flags(), "1111");
  for (int k : {0, 5, 8, 9, 10, 11, 12, 13, 14, 15}) EXPECT_EQ(record(k), "") << k;
}

TEST_F(BoardLinks, KeepAliveAfter21SilentTicksRelayCommandsNotCountedAndTheEnvironmentSender) {
  const Bytes keep_alive = {0x7E, 0x00, 0x00, 0x92, 0x92, 0x0D};
  for (int tick = 0; tick < 20; ++tick) RunComDog();
  EXPECT_TRUE(ext2_.drain().empty());
  RunComDog();
  EXPECT_EQ(ext1_.receive(6, 2.0), keep_alive);
  EXPECT_EQ(ext2_.receive(6, 2.0), keep_alive);
  EXPECT_TRUE(logged("COM DOG RUN EXT1 COM") && logged("COM DOG RUN EXT2 COM"));

  for (int tick = 0; tick < 5; ++tick) RunComDog();
  EXPECT_EQ(EXT_TTYSCOM_SEND_INFO(8, reinterpret_cast<const std::uint8_t*>("x"), 1), 7);  // "Local/Uart/9"
  RunComDog();
  testing::internal::CaptureStdout();
  EXPECT_EQ(EXT_TOP_DO_SET(4, 1), 7);  // DO 8 on
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "EXT_TOP_DO_SET CH4 =1\r\n");
  EXPECT_EQ(ext2_.receive(14, 2.0), (frame(0x80, "x") + Bytes{0x7E, 0x00, 0x01, 0xAD, 0x01, 0xAF, 0x0D}));
  EXPECT_EQ(Return_ComDog_Cnt(1), 1);
  EXPECT_EQ(Return_ComDog_Cnt(0), 6);

  // The environment sender polls board 1's channel 4, or sends a pending relay command instead.
  env_com_send_pass();
  EXPECT_EQ(Return_ComDog_Cnt(0), 0);
  EXPECT_EQ(ext1_.receive(24, 2.0), kWrappedPoll);
  STR_BSP_ENV_INFO.ucDoSetValue[0].store(1, std::memory_order_relaxed);
  STR_BSP_ENV_INFO.ucDoSetFlag[0].store(1, std::memory_order_release);
  env_com_send_pass();
  EXPECT_EQ(ext1_.receive(44, 2.0), frame(0x84, "~FFFF0555B014FF01FFFFFFFFFFFFFFFFF7F5\r"));
  env_com_send_pass();
  EXPECT_EQ(ext1_.receive(24, 2.0), kWrappedPoll);
  EXPECT_TRUE(ext2_.drain().empty());
}

TEST_F(BoardLinks, ThreadsSetTheChannelUpThenPollEverySecondAndRead) {
  static std::int32_t slot = 5, value = 6;
  pthread_t reader, sender;
  testing::internal::CaptureStdout();
  ASSERT_EQ(pthread_create(&reader, nullptr, EXT_COM_READ_THREAD, &slot), 0);
  ASSERT_EQ(pthread_create(&sender, nullptr, ENV_COM_SEND_THREAD, &value), 0);
  pthread_detach(reader), pthread_detach(sender);
  const Bytes line = {0x7E, 0x00, 0x07, 0x64, 0x00, 0x00, 0x25, 0x80, 0x08, 0x01, 0x00, 0x19, 0x0D};
  EXPECT_EQ(ext1_.receive(13 + 24, 3.0), line + kWrappedPoll);
  ext2_.send(frame(0x41, ""));
  EXPECT_TRUE(wait_for([] { return flags() == "0100"; }));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("STUMP[005]: FILE: extension_link.cpp, FUNCTION: EXT_COM_READ_THREAD"), std::string::npos);
  EXPECT_NE(out.find("fun-ENV_COM_SEND_THREAD=6\r\n"), std::string::npos);
}

}  // namespace
}  // namespace fsu::serial
