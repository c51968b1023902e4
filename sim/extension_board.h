// An extension board at the far end of its link (/dev/ttymxc5 for board 1, /dev/ttymxc6 for
// board 2), speaking link frames: it announces itself with the presence frame "A", answers the
// keep-alive and every line-parameter frame with it, carries four serial channels whose far
// ends are loopback plugs, terminals for a person or nothing, and, on board 2, drives four
// relays. Channel 4 of board 1 leads to the environment board. Each channel runs at the line
// rate the SDK set for it; what comes in from a channel's far end goes back to the SDK in data
// frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/byte_queue.h"
#include "sim/environment_board.h"
#include "sim/line_settings.h"
#include "sim/pty_pair.h"
#include "sim/uart.h"

namespace fsu::sim {

class ExtensionBoard : public LineDevice {
 public:
  // Serial channels 0 to 3 on both boards; board 1's channel 4 is the environment board's.
  static constexpr int kSerialChannels = 4;
  static constexpr int kEnvironmentChannel = 4;
  // Data bytes one link frame carries at most.
  static constexpr std::size_t kMaxFrameData = 5114;
  // Data bytes the board gathers from one channel into a frame: it sends them in pieces that the
  // SDK's 4096-byte receive buffers take with room to spare between two reads.
  static constexpr std::size_t kGatherCapacity = 1024;
  // Bytes a channel holds in each direction; more are dropped and counted.
  static constexpr std::size_t kChannelQueue = 8192;
  // A channel frames what its far end sent once the far end has paused this long, or once the
  // oldest byte has waited kLongestGatherSeconds.
  static constexpr double kPauseSeconds = 0.005;
  static constexpr double kLongestGatherSeconds = 0.02;
  // A frame is queued on the link only while less than this is still waiting to go: the board
  // keeps gathering while its transmitter is busy, so a busy link carries longer frames.
  static constexpr std::size_t kLinkLowWater = 64;

  // `number` is 1 or 2. `environment` sits at the far end of channel 4 (board 1), or is null.
  ExtensionBoard(int number, EnvironmentBoard* environment);
  ~ExtensionBoard() override;
  ExtensionBoard(const ExtensionBoard&) = delete;
  ExtensionBoard& operator=(const ExtensionBoard&) = delete;

  std::string_view mode() const override { return "extension-board"; }
  void receive(std::span<const std::uint8_t> bytes, Uart& uart) override;
  void service(Uart& uart) override;
  double due() const override;
  int wake_fd(const Uart& uart) const override;

  // A silent board hears and acts as ever but sends nothing at all; revived, it announces
  // itself again.
  void set_silent(bool silent);
  bool silent() const { return silent_; }
  // Puts "loopback", "terminal" or "silent" at the far end of serial channel 0 to 3; returns ""
  // or why not. A new terminal's path goes to `terminal`. What the previous far end still had
  // to send is dropped.
  std::string set_channel_end(int channel, std::string_view end, std::string* terminal);
  // Bytes that the channel's far end sends, whatever it is (a person typing at the panel);
  // what does not fit is dropped and counted.
  std::string send_from_end(int channel, std::span<const std::uint8_t> bytes);
  // Board 2's relays 1 to 4.
  bool relay(int output) const;

  // Fields for the board's own line of sim/state, and for the line of channel 0 to 4.
  void describe_board(std::string& out) const;
  void describe_channel(int channel, std::string& out) const;

 private:
  enum class End { kLoopback, kTerminal, kSilent, kEnvironment };
  struct Channel {
    End end = End::kLoopback;
    std::unique_ptr<PtyPair> terminal;
    LineSettings line;
    ByteQueue to_end{kChannelQueue};    // from the SDK, waiting to leave on the channel
    ByteQueue from_end{kChannelQueue};  // from the far end, waiting to arrive at the board
    std::vector<std::uint8_t> gathered;  // arrived, not yet framed
    double gathered_at = 0;              // when the first of them arrived
    double arrived_at = 0;               // when the last of them arrived
    double last = 0;
    double out_credit = 0;  // bytes the channel may carry to its far end now
    double in_credit = 0;   // bytes it may carry from its far end now
    bool out_idle = true;   // nothing moved that way at the last pass: no credit saved up
    bool in_idle = true;
    std::uint64_t from_sdk = 0;
    std::uint64_t to_sdk = 0;
    std::uint64_t dropped = 0;
  };

  void handle_frame(const std::uint8_t* frame, std::size_t length, Uart& uart);
  void set_line(Channel& channel, const std::uint8_t* params);
  void send_frame(std::uint8_t command, std::span<const std::uint8_t> data, Uart& uart);
  void pump(Channel& channel, double now);
  void deliver(Channel& channel, std::span<const std::uint8_t> bytes);
  bool ready(const Channel& channel, double now) const;
  void send_gathered(int index, double now, Uart& uart);
  static bool busy(const Channel& channel);

  int number_;
  EnvironmentBoard* environment_;
  std::vector<Channel> channels_;
  std::vector<std::uint8_t> link_;  // bytes from the SDK not yet cut into frames
  std::size_t link_fill_ = 0;
  std::uint8_t relays_ = 0;
  bool silent_ = false;
  bool announce_ = true;  // the presence frame is due
  int next_channel_ = 0;  // channels take turns at the link
  std::uint64_t answers_ = 0;  // environment answers forwarded, for the way they are cut
  std::uint64_t frames_in_ = 0;
  std::uint64_t frames_out_ = 0;
  std::uint64_t bad_frames_ = 0;
  double last_ = 0;
  int epoll_ = -1;  // the terminals' descriptors, so that typing wakes the service loop
};

}  // namespace fsu::sim
