// Pure pieces of the simulator: the pace of a line, the bounded queue of a far end, and the
// environment board model read back with the SDK's decoder.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <termios.h>
#include <tuple>
#include <vector>

#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "sim/byte_queue.h"
#include "sim/environment_board.h"
#include "sim/line_settings.h"

namespace fsu::sim {
namespace {

TEST(LineSettings, CountEveryBitOfACharacter) {
  // A parity-odd flag without parity enabled, as a pseudo-terminal reports it, is no parity.
  for (const auto& [speed, cflag, format, per_second] :
       {std::tuple{B115200, tcflag_t{CS8}, "8N1", 11520.0}, {B9600, CS7 | PARENB | PARODD | CSTOPB, "7O2", 9600.0 / 11},
        {B300, CS5 | PARENB, "5E1", 37.5}, {B600, CS8 | PARODD, "8N1", 60.0}, {B0, CS8, "8N1", 0.0}}) {
    termios tio{};
    cfsetospeed(&tio, speed);
    tio.c_cflag |= cflag;
    EXPECT_EQ(line_settings(tio).format(), format);
    EXPECT_DOUBLE_EQ(line_settings(tio).bytes_per_second(), per_second) << format;
  }
}

TEST(ByteQueue, KeepsOrderAcrossTheWrapAndDropsWhatDoesNotFit) {
  ByteQueue queue(8);
  EXPECT_EQ(queue.push(std::vector<std::uint8_t>{1, 2, 3, 4, 5, 6}), 6u);
  queue.pop(5);
  EXPECT_EQ(queue.push(std::vector<std::uint8_t>{7, 8, 9, 10, 11, 12, 13, 14, 15}), 7u);
  std::vector<std::uint8_t> out;
  while (!queue.empty()) {
    const auto run = queue.front();
    out.insert(out.end(), run.begin(), run.end());
    queue.pop(run.size());
  }
  EXPECT_EQ(out, (std::vector<std::uint8_t>{6, 7, 8, 9, 10, 11, 12, 13}));
}

const std::string kPoll = serial::kEnvPoll;

std::string heard(EnvironmentBoard& board, const std::string& text) {
  std::string answers;
  board.hear({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, answers);
  return answers;
}

std::string relay_command(std::uint8_t mask) {
  serial::POWER_7E_CMD cmd{'~', 0xFF, 0x01, 0x05, 0x55, 10, {}};
  std::memset(cmd.INFO, 0xFF, cmd.LENGTH);
  cmd.INFO[1] = mask;
  std::uint8_t out[64];
  return std::string(reinterpret_cast<char*>(out), static_cast<std::size_t>(serial::POWER_7E_CMDSend(cmd, out, sizeof out)));
}

TEST(EnvironmentBoard, AnswersWellFormedFramesGatheredFromPiecesAndIgnoresWhatItCannotTrust) {
  EnvironmentBoard board;
  ASSERT_TRUE(board.set_volts(16, 5.1198) && board.set_milliamps(1, 20.478));
  EXPECT_FALSE(board.set_volts(3, -0.1) || board.set_volts(3, std::nan("")) || board.set_contact(0, true));

  const std::string answer = heard(board, kPoll);
  ASSERT_EQ(answer.size(), 200u);
  EXPECT_EQ(answer.substr(0, 13), "~21010300F0B6");  // VER 21, ADR 01, CID1 as asked, CID2 00, 91 INFO bytes
  EXPECT_EQ(serial::CheckSum(reinterpret_cast<const std::uint8_t*>(answer.data()) + 1, 198), 0);
  serial::STR_BSP_ENV_INFO_T info;
  serial::clear_env_info(info);
  ASSERT_TRUE(serial::decode_env_answer(reinterpret_cast<const std::uint8_t*>(answer.data()), answer.size(), 0, info));
  EXPECT_EQ(std::tuple(info.usAiVoltRaw[15].load(), info.usAiCurrRaw[0].load(), info.usAiVoltRaw[2].load()),
            std::tuple(0xFFFD, 0xFFFA, 0));

  // A relay command sets the four relays from its mask and is answered like a poll.
  const std::string relays = heard(board, relay_command(0xF5));
  EXPECT_EQ(relays.substr(5, 4) + relays.substr(147, 2), "050005");  // bits above the four relays are no outputs
  EXPECT_TRUE(board.relay(1) && !board.relay(2) && board.relay(3) && !board.relay(4));
  std::string answers;  // polls heard byte by byte
  for (const char c : "noise~FFFF03540000FD5C\r~FFFF03540000FD5C\r") {
    if (c != '\0') board.hear({reinterpret_cast<const std::uint8_t*>(&c), 1}, answers);
  }
  EXPECT_EQ(answers.size(), 400u);
  board.set_noisy(true);  // every answer keeps its shape on the line but fails its checks
  for (int k = 0; k < 50; ++k) {
    const std::string noisy = heard(board, kPoll);
    EXPECT_TRUE(noisy.find('\r') == 199u && serial::env_answer_fault(reinterpret_cast<const std::uint8_t*>(noisy.data()), noisy.size()) != nullptr) << k;
  }
  board.set_noisy(false);
  ASSERT_TRUE(heard(board, relay_command(0x00)).size() == 200u && !board.relay(1));

  std::string bad_sum = kPoll;
  bad_sum[16] = 'D';
  // A relay command whose LENGTH says 4 INFO bytes where there are 10, under a correct CHKSUM.
  std::string bad_length = relay_command(0x01).substr(1, 32);
  bad_length.replace(8, 4, "8008");
  bad_length.resize(36);
  serial::EnCheckSum(reinterpret_cast<std::uint8_t*>(bad_length.data()), 32);
  EXPECT_EQ(heard(board, bad_sum + "~" + bad_length + "\r~FFFF07540000FD58\r"), "");  // the last: no known command
  EXPECT_FALSE(board.relay(1));
  // Text that never ends is dropped in bounded pieces; the next frame is heard again.
  EXPECT_EQ(heard(board, "~" + std::string(100000, 'F')), "");
  EXPECT_EQ(heard(board, kPoll).size(), 200u);

  board.set_silent(true);
  EXPECT_EQ(heard(board, relay_command(0x08)), "");
  EXPECT_TRUE(board.relay(4));  // a silent board still acts
}

}  // namespace
}  // namespace fsu::sim
