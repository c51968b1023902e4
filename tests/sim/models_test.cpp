// Pure pieces of the simulator: the pace of a line, the bounded queue of a far end, and the
// environment board and positioning receiver models read back with the SDK's decoders.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <termios.h>
#include <tuple>
#include <vector>

#include "gps/gps_record.h"
#include "gps/nmea_reader.h"
#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "sim/byte_queue.h"
#include "sim/environment_board.h"
#include "sim/line_settings.h"
#include "sim/positioning_receiver.h"

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

// Two batches of a receiver after its control lines, as the SDK's reader takes them into a clean
// record: position (as magnitudes), the used counts and the time it holds.
TEST(PositioningReceiver, EveryOutputAndFaultAsTheSdkReadsIt) {
  setenv("TZ", "UTC", 1);
  tzset();
  const std::time_t pc = 1794817630, zda = pc + 1 + 28800;  // 2026-11-16 08:27:10 UTC; the reader adds 8 hours
  const struct {
    std::vector<std::string_view> line;  // without its first word, "gps"
    std::tuple<double, double, float, float, std::int32_t> read;
  } rows[] = {{{}, {31.2304, 121.4737, 9, 7, zda}},
              {{"position", "-33.75", "-70.5"}, {33.75, 70.5, 9, 7, zda}},  // south and west
              {{"talker", "gn"}, {31.2304, 121.4737, 0, 0, zda}},  // GN counts for neither system
              {{"nofix"}, {0, 0, 0, 0, zda}},  // a fix lost: the time goes on
              {{"cold"}, {0, 0, 0, 0, 0}},  // no fix nor time yet
              {{"leap", "-3600"}, {31.2304, 121.4737, 9, 7, zda - 3600}},
              {{"drop", "2"}, {0, 0, 0, 0, 0}}};  // no sentence comes whole
  for (const auto& row : rows) {
    PositioningReceiver receiver, untouched;
    ASSERT_EQ(row.line.empty() ? "" : receiver.control(row.line), "");
    std::string bytes = receiver.next_batch(pc) + receiver.next_batch(pc + 1);
    const std::size_t whole = (untouched.next_batch(pc) + untouched.next_batch(pc + 1)).size();
    if (!row.line.empty() && row.line[0] == "drop") {
      EXPECT_EQ(bytes.size(), whole - whole / 2);
    }
    bytes.insert(0, std::max<std::size_t>(1025, bytes.size()) - bytes.size(), ' ');
    gps::reset_gps_reader_for_tests();
    ASSERT_EQ(gps::BSP_GPS_READ(bytes.data(), static_cast<int>(bytes.size())), 0);
    const gps::GpsFix fix = gps::gps_fix();
    const auto [latitude, longitude, gps_used, bd_used, time] = row.read;
    EXPECT_NEAR(fix.latitude, latitude, 1e-4) << bytes;
    EXPECT_NEAR(fix.longitude, longitude, 1e-4) << bytes;
    EXPECT_EQ(std::tuple(fix.gps_used, fix.bd_used, fix.gps_time), std::tuple(gps_used, bd_used, time)) << bytes;
  }
  PositioningReceiver receiver;
  for (const auto& bad : {std::vector<std::string_view>{"talker", "gb"}, {"leap", "315360001"}, {"drop", "1"}, {"drop"}, {"cold", "x"}})
    EXPECT_NE(receiver.control(bad), "") << bad[0];
}

}  // namespace
}  // namespace fsu::sim
