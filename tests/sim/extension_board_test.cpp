// The extension boards and the environment board on a running simulated board, met on their
// links the way the SDK meets them: link frames in, link frames out.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "serial/environment_link.h"
#include "serial/frame_codec.h"
#include "tests/sim/board_fixture.h"

namespace fsu::sim {
namespace {

struct Frame {
  std::uint8_t command;
  std::string data;
};

bool presence(const std::vector<Frame>& frames) { return frames.size() == 1 && frames[0].command == 'A'; }

// The SDK's end of one board link of a board that has just come up; the presence frame the
// board sent at power-up is taken first.
class Link {
 public:
  Link(const test::TestSandbox& box, const char* device) : fd_(open_port(box.path(device), B115200, 0, false)) {
    EXPECT_GE(fd_, 0) << device;
    announced_ = presence(frames(1));
  }
  ~Link() { close(fd_); }
  bool announced() const { return announced_; }

  void send(std::uint8_t command, const std::string& data = "") {
    std::uint8_t frame[5120];
    const std::size_t n = serial::build_link_frame(command, reinterpret_cast<const std::uint8_t*>(data.data()),
                                                   data.size(), frame, sizeof frame);
    put(fd_, std::string(reinterpret_cast<char*>(frame), n));
  }
  void raw(const std::string& bytes) { put(fd_, bytes); }
  // The frames that come within `seconds`, until `enough` says so.
  std::vector<Frame> frames_until(double seconds, const auto& enough) {
    std::vector<Frame> got;
    poll_until(seconds, [&] {
      const ssize_t n = read(fd_, buffer_ + fill_, sizeof buffer_ - fill_);
      if (n > 0) fill_ += static_cast<std::int32_t>(n);
      std::uint8_t frame[sizeof buffer_];
      std::int32_t length = 0;
      while ((length = serial::read_a_msg(buffer_, frame, sizeof frame, fill_, &fill_)) > 0) {
        got.push_back({frame[3], std::string(reinterpret_cast<char*>(frame) + 4, static_cast<std::size_t>(length) - 6)});
      }
      return enough(got);
    });
    return got;
  }
  std::vector<Frame> frames(std::size_t count, double seconds = 2) {
    return frames_until(seconds, [count](const std::vector<Frame>& got) { return got.size() >= count; });
  }
  // The data of the frames of `command` that come within `seconds`, until `size` bytes came.
  std::string data_of(std::uint8_t command, std::size_t size, double seconds = 2, std::size_t* count = nullptr) {
    std::string data;
    frames_until(seconds, [&](const std::vector<Frame>& got) {
      data.clear();
      for (const Frame& f : got) data += f.command == command ? f.data : "";
      if (count != nullptr) *count = got.size();
      return data.size() >= size;
    });
    return data;
  }

 private:
  int fd_;
  bool announced_ = false;
  std::uint8_t buffer_[8192] = {};
  std::int32_t fill_ = 0;
};

std::string line_params(unsigned baud, int data_bits, int stop_bits, int parity) {
  return {static_cast<char>(baud >> 24), static_cast<char>(baud >> 16), static_cast<char>(baud >> 8),
          static_cast<char>(baud),       static_cast<char>(data_bits),  static_cast<char>(stop_bits),
          static_cast<char>(parity)};
}

TEST(ExtensionBoards, AnnounceThemselvesAnswerKeepAlivesAndLineParametersAndSwitchRelays) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  Link board1(unit.box, "/dev/ttymxc5");
  Link board2(unit.box, "/dev/ttymxc6");
  EXPECT_TRUE(board1.announced());  // at power-up, before anybody listened
  EXPECT_TRUE(board2.announced());

  board1.send(0x92);
  EXPECT_TRUE(presence(board1.frames(1)));
  board1.send(0x61, line_params(19200, 7, 2, 2));
  EXPECT_TRUE(presence(board1.frames(1)));
  EXPECT_TRUE(state_shows(unit.box, "uart 6 ", "channel=1 mode=loopback speed=19200 format=7E2"));
  board2.send(0x63, line_params(4800, 8, 1, 1));
  board2.send(0x62, line_params(9600, 9, 1, 0));  // no such line: answered, not applied
  EXPECT_EQ(board2.frames(2).size(), 2u);
  EXPECT_TRUE(state_shows(unit.box, "uart 12 ", "speed=4800 format=8O1"));
  EXPECT_TRUE(state_shows(unit.box, "uart 10 ", "channel=2 mode=loopback speed=9600 format=8N1"));
  board2.send(0x64, line_params(9600, 8, 1, 0));  // board 2 has no channel 4
  board2.raw(std::string("\x7E\x00\x00\x92\x93\x0D", 6));  // a keep-alive with a wrong sum

  // Board 2 switches its four relays and does not answer for them; board 1 has none.
  board2.send(0xAA, "\x01");
  board2.send(0xAD, "\x01");
  board1.send(0xAB, "\x01");
  EXPECT_TRUE(state_shows(unit.box, "relay 8 ", "on=board-2 output=4 state=on"));
  EXPECT_TRUE(state_shows(unit.box, "relay 5 ", "state=on"));
  board2.send(0xAA, std::string(1, '\0'));
  EXPECT_TRUE(state_shows(unit.box, "relay 5 ", "state=off"));
  EXPECT_NE(state_line(unit.box, "relay 6 ").find("state=off"), std::string::npos);
  EXPECT_TRUE(board2.frames(1, 0.2).empty());
  EXPECT_TRUE(state_shows(unit.box, "board 2 ", "state=on frames_in=7 frames_out=3 bad_frames=1"));
}

TEST(ExtensionBoards, CarryChannelBytesBothWaysAtTheChannelRate) {
  RunningBoard unit({"uart 10 terminal"});
  ASSERT_TRUE(unit.started);
  const int person = open_port(terminal_of(unit.box, "uart 10 "), B9600);
  ASSERT_GE(person, 0) << unit.box.read("/sim/state");
  Link board1(unit.box, "/dev/ttymxc5");
  Link board2(unit.box, "/dev/ttymxc6");

  board1.send(0x80, "through the plug of channel 0");
  EXPECT_EQ(board1.data_of(0x50, 29), "through the plug of channel 0");
  board2.send(0x82, "to the person");
  EXPECT_EQ(take(person, 13, 2), "to the person");

  std::string typed;
  for (int i = 0; i < 480; ++i) typed += static_cast<char>('a' + i % 26);
  const double start = platform::monotonic_seconds();
  put(person, typed);
  std::size_t frames = 0;
  EXPECT_EQ(board2.data_of(0x52, typed.size(), 3, &frames), typed);
  EXPECT_GT(platform::monotonic_seconds() - start, 0.4);  // 480 bytes at 960 a second
  EXPECT_LT(frames, 48u);                                 // gathered, not a frame a byte
  EXPECT_TRUE(state_shows(unit.box, "uart 10 ", "from_sdk=13 to_sdk=480 dropped=0"));
  close(person);
}

// Polls the environment board through channel 4 of board 1, the poll cut in three frames, and
// hands the answer's pieces to the SDK's gatherer as its reader would.
void poll_through(Link& board1) {
  const std::string poll = serial::kEnvPoll;
  for (const auto& [at, size] : {std::pair{0, 5}, {5, 6}, {11, 7}}) board1.send(0x84, poll.substr(at, size));
  std::vector<Frame> pieces = board1.frames_until(2, [](const std::vector<Frame>& got) {
    return !got.empty() && !got.back().data.empty() && got.back().data.back() == '\r';
  });
  std::size_t whole = 0;
  for (const Frame& piece : pieces) {
    ASSERT_EQ(piece.command, 'T');
    whole += piece.data.size();
    serial::env_answer_handler(reinterpret_cast<const std::uint8_t*>(piece.data.data()),
                               static_cast<std::int32_t>(piece.data.size()), 0);
  }
  EXPECT_EQ(whole, 200u);
}

TEST(EnvironmentBoard, AnswersThroughBoardOneInPiecesTheSdkGathersAndFollowsItsRelayCommand) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  EXPECT_TRUE(unit.control({"ai 3 2.5", "ai 7 current 12", "ai 8 voltage 0.04", "di 5 closed", "di 16 closed"}).empty());
  Link board1(unit.box, "/dev/ttymxc5");
  serial::STR_BSP_ENV_INFO_T& info = serial::STR_BSP_ENV_INFO;
  for (int round = 0; round < 5; ++round) {  // every way the board cuts its answers
    serial::clear_env_info();
    poll_through(board1);
    EXPECT_GE(info.fAiVolt[2], 2.5f) << round;
    EXPECT_LE(info.fAiVolt[2], 2.500009f) << round;
    EXPECT_FLOAT_EQ(info.fAiVolt[7], 0.04f);
    EXPECT_FLOAT_EQ(info.fAiCurr[6], 12.0f);
    EXPECT_EQ(info.ucDi[4] + info.ucDi[15] * 2 + info.ucDi[5] * 4, 3) << round;
  }

  // The SDK's own relay command, outputs 1 and 3 on.
  info.ucDoSetValue[0] = info.ucDoSetFlag[0] = 1;
  info.ucDoSetValue[2] = info.ucDoSetFlag[2] = 1;
  std::uint8_t command[serial::kEnvRelayFrame];
  ASSERT_EQ(serial::SET_DO_CMD(command, sizeof command), 38);
  board1.send(0x84, std::string(reinterpret_cast<char*>(command), sizeof command));
  EXPECT_EQ(board1.data_of('T', 200).size(), 200u);  // answered like a poll
  EXPECT_TRUE(state_shows(unit.box, "relay 3 ", "on=environment-board output=3 state=on"));
  EXPECT_NE(state_line(unit.box, "relay 1 ").find("state=on"), std::string::npos);
  EXPECT_NE(state_line(unit.box, "relay 2 ").find("state=off"), std::string::npos);
  EXPECT_TRUE(state_shows(unit.box, "env ", "speed=9600 format=8N1 from_sdk=128 to_sdk=1200 dropped=0 state=on "
                                            "polls=5 commands=1 answers=6"));
}

TEST(ExtensionBoards, SilencedBoardsSayNothingUntilRevived) {
  RunningBoard unit;
  ASSERT_TRUE(unit.started);
  Link board1(unit.box, "/dev/ttymxc5");
  const std::string poll = serial::kEnvPoll;

  EXPECT_TRUE(unit.control({"board 1 silent"}).empty());
  board1.send(0x92);
  board1.send(0x84, poll);
  board1.send(0x80, "echo?");
  EXPECT_TRUE(board1.frames(1, 0.5).empty());
  EXPECT_TRUE(unit.control({"board 1 on"}).empty());
  EXPECT_TRUE(presence(board1.frames(1)));  // back, it announces itself

  EXPECT_TRUE(unit.control({"env silent"}).empty());
  board1.send(0x84, poll);
  board1.send(0x92);
  EXPECT_TRUE(presence(board1.frames_until(0.5, [](const auto&) { return false; })));  // board 1 speaks, env not
  EXPECT_TRUE(unit.control({"env on"}).empty());
  board1.send(0x84, poll);
  EXPECT_EQ(board1.data_of('T', 200).size(), 200u);
}

}  // namespace
}  // namespace fsu::sim
