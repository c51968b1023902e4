#include "sim/extension_board.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/clock.h"
#include "serial/frame_codec.h"
#include "sim/control.h"
#include "sim/line_ends.h"

namespace fsu::sim {
namespace {

// Commands of the link, main board to extension board and back.
constexpr std::uint8_t kPresence = 0x41;        // "A"
constexpr std::uint8_t kReceivedFirst = 0x50;   // "P" to "S": bytes from channel 0 to 3
constexpr std::uint8_t kEnvironmentAnswer = 0x54;  // "T": the environment board's text
constexpr std::uint8_t kLineFirst = 0x60;
constexpr std::uint8_t kDataFirst = 0x80;
constexpr std::uint8_t kKeepAlive = 0x92;
constexpr std::uint8_t kRelayFirst = 0xAA;
constexpr int kRelays = 4;
constexpr std::size_t kLineParams = 7;  // baud (4 bytes, most significant first), data, stop, parity
constexpr std::uint32_t kMaxBaud = 4000000;
constexpr std::size_t kLinkFrame = ExtensionBoard::kMaxFrameData + serial::kLinkOverhead;
// An environment answer that never reaches its carriage return is sent on after this quiet.
constexpr double kAnswerQuietSeconds = 0.1;

constexpr const char* kEndNames[] = {"loopback", "terminal", "silent", "environment-board"};

// Shortest wait between two passes while a channel's bytes move: fine enough to see a far end's
// 5 ms pause. The channels are quiet on an idle unit, so this costs nothing there.
constexpr double kChannelTickSeconds = 0.005;

// Credit a direction keeps while nothing moves: one tick's worth, at least one byte.
double burst(double rate) { return std::max(1.0, rate * kChannelTickSeconds); }

}  // namespace

ExtensionBoard::ExtensionBoard(int number, EnvironmentBoard* environment)
    : number_(number),
      environment_(environment),
      channels_(environment != nullptr ? kSerialChannels + 1 : kSerialChannels),
      link_(kLinkFrame),
      epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  for (Channel& channel : channels_) channel.line = {9600, 8, 'N', 1};
  if (environment != nullptr) channels_[kEnvironmentChannel].end = End::kEnvironment;
}

ExtensionBoard::~ExtensionBoard() {
  if (epoll_ >= 0) close(epoll_);
}

void ExtensionBoard::receive(std::span<const std::uint8_t> bytes, Uart& uart) {
  std::uint8_t frame[kLinkFrame];
  while (!bytes.empty()) {
    // A buffer full of bytes that never formed a frame is dropped in one go.
    if (link_fill_ == link_.size()) link_fill_ = 0;
    const std::size_t n = std::min(bytes.size(), link_.size() - link_fill_);
    std::memcpy(link_.data() + link_fill_, bytes.data(), n);
    link_fill_ += n;
    bytes = bytes.subspan(n);
    auto fill = static_cast<std::int32_t>(link_fill_);
    std::int32_t length = 0;
    while ((length = serial::read_a_msg(link_.data(), frame, sizeof frame, fill, &fill)) > 0) {
      handle_frame(frame, static_cast<std::size_t>(length), uart);
    }
    link_fill_ = static_cast<std::size_t>(fill);
  }
}

void ExtensionBoard::handle_frame(const std::uint8_t* frame, std::size_t length, Uart& uart) {
  ++frames_in_;
  const std::size_t len = length - serial::kLinkOverhead;
  if (frame[length - 2] != serial::INFo_SUM(frame + 1, len + 3)) {
    ++bad_frames_;
    return;
  }
  const std::uint8_t command = frame[3];
  const std::span<const std::uint8_t> data(frame + 4, len);
  const int channels = static_cast<int>(channels_.size());
  if (command >= kDataFirst && command < kDataFirst + channels) {
    Channel& channel = channels_[command - kDataFirst];
    channel.from_sdk += len;
    channel.dropped += len - channel.to_end.push(data);
  } else if (command >= kLineFirst && command < kLineFirst + channels && len == kLineParams) {
    set_line(channels_[command - kLineFirst], data.data());
    send_frame(kPresence, {}, uart);
  } else if (command == kKeepAlive) {
    send_frame(kPresence, {}, uart);
  } else if (number_ == 2 && command >= kRelayFirst && command < kRelayFirst + kRelays && len >= 1) {
    const auto bit = static_cast<std::uint8_t>(1u << (command - kRelayFirst));
    relays_ = static_cast<std::uint8_t>(data[0] == 1 ? relays_ | bit : relays_ & ~bit);
  }
  // Anything else is not for this board.
}

void ExtensionBoard::set_line(Channel& channel, const std::uint8_t* params) {
  const std::uint32_t baud = static_cast<std::uint32_t>(params[0]) << 24 | static_cast<std::uint32_t>(params[1]) << 16 |
                             static_cast<std::uint32_t>(params[2]) << 8 | params[3];
  const int data_bits = params[4], stop_bits = params[5], parity = params[6];
  // A line the channel's UART cannot run leaves it as it was.
  if (baud < 1 || baud > kMaxBaud || data_bits < 5 || data_bits > 8 || stop_bits < 1 || stop_bits > 2 || parity > 2) {
    return;
  }
  channel.line = {baud, data_bits, "NOE"[parity], stop_bits};
}

void ExtensionBoard::send_frame(std::uint8_t command, std::span<const std::uint8_t> data, Uart& uart) {
  if (silent_) return;
  std::uint8_t frame[kLinkFrame];
  const std::size_t n = serial::build_link_frame(command, data.data(), data.size(), frame, sizeof frame);
  uart.send({frame, n});
  ++frames_out_;
}

void ExtensionBoard::service(Uart& uart) {
  const double now = platform::monotonic_seconds();
  last_ = now;
  if (announce_) {
    announce_ = false;
    send_frame(kPresence, {}, uart);
  }
  for (Channel& channel : channels_) pump(channel, now);
  const int count = static_cast<int>(channels_.size());
  for (int i = 0; i < count; ++i) {
    const int index = (next_channel_ + i) % count;
    Channel& channel = channels_[index];
    if (!ready(channel, now)) continue;
    if (silent_) {
      channel.dropped += channel.gathered.size();
      channel.gathered.clear();
      continue;
    }
    if (Uart::kQueueCapacity - uart.send_space() > kLinkLowWater) break;
    send_gathered(index, now, uart);
    next_channel_ = (index + 1) % count;  // the others go first next time
  }
}

void ExtensionBoard::pump(Channel& channel, double now) {
  const double rate = channel.line.bytes_per_second();
  const double gained = rate * std::max(0.0, now - channel.last);
  channel.last = now;
  // A direction that was idle has saved up no credit: a line never runs faster than its rate.
  channel.out_credit = channel.out_idle ? std::min(channel.out_credit + gained, burst(rate)) : channel.out_credit + gained;
  channel.in_credit = channel.in_idle ? std::min(channel.in_credit + gained, burst(rate)) : channel.in_credit + gained;

  while (!channel.to_end.empty() && channel.out_credit >= 1) {
    const std::span<const std::uint8_t> run = channel.to_end.front();
    const std::size_t n = std::min(run.size(), static_cast<std::size_t>(channel.out_credit));
    deliver(channel, run.first(n));
    channel.to_end.pop(n);
    channel.out_credit -= static_cast<double>(n);
  }
  if (channel.end == End::kTerminal && channel.from_end.space() > 0) {
    // Only what the channel can still hold: a person typing faster than the line is held back.
    std::uint8_t typed[4096];
    const ssize_t n = read(channel.terminal->master(), typed, std::min(sizeof typed, channel.from_end.space()));
    if (n > 0) channel.from_end.push({typed, static_cast<std::size_t>(n)});
  }
  const std::size_t room = kGatherCapacity - channel.gathered.size();
  std::size_t n = std::min({channel.from_end.size(), room, static_cast<std::size_t>(channel.in_credit)});
  if (n > 0) {
    if (channel.gathered.empty()) channel.gathered_at = now;
    channel.arrived_at = now;
    channel.in_credit -= static_cast<double>(n);
    while (n > 0) {
      const std::span<const std::uint8_t> run = channel.from_end.front().first(std::min(n, channel.from_end.front().size()));
      channel.gathered.insert(channel.gathered.end(), run.begin(), run.end());
      channel.from_end.pop(run.size());
      n -= run.size();
    }
  }
  channel.out_idle = channel.to_end.empty();
  channel.in_idle = channel.from_end.empty() || channel.gathered.size() == kGatherCapacity;
}

void ExtensionBoard::deliver(Channel& channel, std::span<const std::uint8_t> bytes) {
  switch (channel.end) {
    case End::kLoopback:
      channel.dropped += bytes.size() - channel.from_end.push(bytes);
      break;
    case End::kTerminal: {
      int unread = 0;
      if (ioctl(channel.terminal->slave(), TIOCINQ, &unread) != 0 || unread >= PersonTerminal::kBacklog) {
        channel.dropped += bytes.size();
        break;
      }
      const ssize_t n = write(channel.terminal->master(), bytes.data(), bytes.size());
      channel.dropped += bytes.size() - static_cast<std::size_t>(std::max<ssize_t>(n, 0));
      break;
    }
    case End::kSilent:
      break;
    case End::kEnvironment: {
      std::string answers;
      environment_->hear(bytes, answers);
      const auto* text = reinterpret_cast<const std::uint8_t*>(answers.data());
      channel.dropped += answers.size() - channel.from_end.push({text, answers.size()});
      break;
    }
  }
}

bool ExtensionBoard::ready(const Channel& channel, double now) const {
  if (channel.gathered.empty()) return false;
  if (channel.gathered.size() == kGatherCapacity) return true;
  if (channel.end == End::kEnvironment) {
    // An answer goes on once it is complete.
    return std::find(channel.gathered.begin(), channel.gathered.end(), '\r') != channel.gathered.end() ||
           now - channel.arrived_at >= kAnswerQuietSeconds;
  }
  return now - channel.arrived_at >= kPauseSeconds || now - channel.gathered_at >= kLongestGatherSeconds;
}

void ExtensionBoard::send_gathered(int index, double now, Uart& uart) {
  Channel& channel = channels_[index];
  std::span<const std::uint8_t> data(channel.gathered);
  if (channel.end == End::kEnvironment) {
    const auto end = std::find(data.begin(), data.end(), '\r');
    data = data.first(end == data.end() ? data.size() : static_cast<std::size_t>(end - data.begin()) + 1);
    // Cut as a real link may cut it: a short head (the SDK waits for more after up to 17
    // bytes), then the rest; every fourth answer goes whole.
    const std::size_t head = answers_ % 4 == 3 ? data.size() : std::min<std::size_t>(data.size(), static_cast<std::size_t>(1 + answers_ * 5 % 17));
    ++answers_;
    send_frame(kEnvironmentAnswer, data.first(head), uart);
    if (head < data.size()) send_frame(kEnvironmentAnswer, data.subspan(head), uart);
  } else {
    send_frame(static_cast<std::uint8_t>(kReceivedFirst + index), data, uart);
  }
  channel.to_sdk += data.size();
  channel.gathered.erase(channel.gathered.begin(), channel.gathered.begin() + static_cast<std::ptrdiff_t>(data.size()));
  channel.gathered_at = now;
}

bool ExtensionBoard::busy(const Channel& channel) {
  return !channel.to_end.empty() || !channel.from_end.empty() || !channel.gathered.empty();
}

double ExtensionBoard::due() const {
  if (announce_) return 0;
  const bool moving = std::any_of(channels_.begin(), channels_.end(), busy);
  return moving ? last_ + kChannelTickSeconds : std::numeric_limits<double>::infinity();
}

int ExtensionBoard::wake_fd(const Uart&) const {
  // While bytes move, the passes come often enough to read the terminals as well.
  const bool terminals = std::any_of(channels_.begin(), channels_.end(), [](const Channel& c) { return c.terminal != nullptr; });
  return terminals && due() == std::numeric_limits<double>::infinity() ? epoll_ : -1;
}

void ExtensionBoard::set_silent(bool silent) {
  if (silent_ && !silent) announce_ = true;
  silent_ = silent;
}

std::string ExtensionBoard::send_from_end(int index, std::span<const std::uint8_t> bytes) {
  if (index < 0 || index >= kSerialChannels) return "no channel " + std::to_string(index);
  Channel& channel = channels_[index];
  channel.dropped += bytes.size() - channel.from_end.push(bytes);
  return "";
}

std::string ExtensionBoard::set_channel_end(int index, std::string_view end, std::string* terminal) {
  if (index < 0 || index >= kSerialChannels) return "no channel " + std::to_string(index);
  Channel& channel = channels_[index];
  End want;
  if (end == "loopback") {
    want = End::kLoopback;
  } else if (end == "terminal") {
    want = End::kTerminal;
  } else if (end == "silent") {
    want = End::kSilent;
  } else {
    return "no mode " + quoted_line(end);
  }
  if (want == channel.end) return "";
  std::unique_ptr<PtyPair> pty;
  if (want == End::kTerminal) {
    pty = std::make_unique<PtyPair>();
    std::string error;
    if (!pty->open(&error)) return error;
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, pty->master(), &event) != 0) return "cannot watch the terminal";
    if (terminal != nullptr) *terminal = pty->slave_path();
  }
  if (channel.terminal) epoll_ctl(epoll_, EPOLL_CTL_DEL, channel.terminal->master(), nullptr);
  channel.terminal = std::move(pty);
  channel.end = want;
  channel.dropped += channel.from_end.size();
  channel.from_end.clear();
  return "";
}

bool ExtensionBoard::relay(int output) const {
  return number_ == 2 && output >= 1 && output <= kRelays && ((relays_ >> (output - 1)) & 1) != 0;
}

void ExtensionBoard::describe_board(std::string& out) const {
  out += std::string(" state=") + (silent_ ? "silent" : "on") + " frames_in=" + std::to_string(frames_in_) +
         " frames_out=" + std::to_string(frames_out_) + " bad_frames=" + std::to_string(bad_frames_);
}

void ExtensionBoard::describe_channel(int index, std::string& out) const {
  if (index < 0 || index >= static_cast<int>(channels_.size())) return;
  const Channel& channel = channels_[index];
  out += std::string(" mode=") + kEndNames[static_cast<int>(channel.end)];
  if (channel.terminal) out += " terminal=" + channel.terminal->slave_path();
  out += " speed=" + std::to_string(channel.line.baud) + " format=" + channel.line.format() +
         " from_sdk=" + std::to_string(channel.from_sdk) + " to_sdk=" + std::to_string(channel.to_sdk) +
         " dropped=" + std::to_string(channel.dropped);
}

}  // namespace fsu::sim
