// The environment board model on its own: the frames it takes, the answers it gives, read
// back with the SDK's own decoder. (Its readings on the way through board 1 are checked in
// extension_board_test.cpp.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "sim/environment_board.h"

namespace fsu::sim {
namespace {

const std::string kPoll = serial::kEnvPoll;

std::string heard(EnvironmentBoard& board, const std::string& text) {
  std::string answers;
  board.hear({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, answers);
  return answers;
}

std::string relay_command(std::uint8_t mask) {
  serial::POWER_7E_CMD cmd{};
  cmd.VER = 0xFF;
  cmd.ADR = 0x01;
  cmd.CID1 = 0x05;
  cmd.CID2 = 0x55;
  cmd.LENGTH = 10;
  std::memset(cmd.INFO, 0xFF, cmd.LENGTH);
  cmd.INFO[1] = mask;
  std::uint8_t out[64];
  const std::int32_t n = serial::POWER_7E_CMDSend(cmd, out, sizeof out);
  return std::string(reinterpret_cast<char*>(out), static_cast<std::size_t>(n));
}

TEST(EnvironmentBoard, AnswersWithAWellFormedFrameOfWhatItsWordsCanCarry) {
  EnvironmentBoard board;
  ASSERT_TRUE(board.set_volts(16, 5.1198));
  ASSERT_TRUE(board.set_milliamps(1, 20.478));
  EXPECT_FALSE(board.set_volts(3, -0.1) || board.set_volts(3, std::nan("")) || board.set_contact(0, true));

  const std::string answer = heard(board, kPoll);
  ASSERT_EQ(answer.size(), 200u);
  EXPECT_EQ(answer.substr(0, 13), "~21010300F0B6");  // VER 21, ADR 01, CID1 as asked, CID2 00, 91 INFO bytes
  EXPECT_EQ(serial::CheckSum(reinterpret_cast<const std::uint8_t*>(answer.data()) + 1, 198), 0);
  serial::STR_BSP_ENV_INFO_T info;
  serial::clear_env_info(info);
  ASSERT_TRUE(serial::decode_env_answer(reinterpret_cast<const std::uint8_t*>(answer.data()), answer.size(), 0, info));
  EXPECT_EQ(info.usAiVoltRaw[15], 0xFFFD);
  EXPECT_EQ(info.usAiCurrRaw[0], 0xFFFA);
  EXPECT_EQ(info.usAiVoltRaw[2], 0);

  // A relay command sets the four relays from its mask and is answered like a poll.
  const std::string relays = heard(board, relay_command(0xF5));
  EXPECT_EQ(relays.substr(5, 4), "0500");
  EXPECT_EQ(relays.substr(147, 2), "05");  // bits above the four relays are no outputs
  EXPECT_TRUE(board.relay(1) && !board.relay(2) && board.relay(3) && !board.relay(4));
}

TEST(EnvironmentBoard, GathersFramesFromPiecesAndIgnoresWhatItCannotTrust) {
  EnvironmentBoard board;
  std::string answers;
  for (const char c : "noise~FFFF03540000FD5C\r~FFFF03540000FD5C\r") {
    if (c != '\0') board.hear({reinterpret_cast<const std::uint8_t*>(&c), 1}, answers);
  }
  EXPECT_EQ(answers.size(), 400u);

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
