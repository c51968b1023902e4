#include "sim/environment_board.h"

#include <cmath>
#include <cstdio>

#include "serial/frame_codec.h"

namespace fsu::sim {
namespace {

using serial::AscToHex;
using serial::AscToUnShort;

// The frames the board understands, by CID1 and CID2.
constexpr std::uint8_t kPollCid1 = 0x03, kPollCid2 = 0x54;
constexpr std::uint8_t kRelayCid1 = 0x05, kRelayCid2 = 0x55;
// VER, ADR, CID1, CID2, LENGTH and CHKSUM as characters: a frame without INFO.
constexpr std::size_t kBareFrame = 16;

// Where the answer's INFO carries what: four words per channel, then the status bytes.
constexpr std::size_t kContactsLow = 64, kContactsHigh = 65, kRelayByte = 67;

// The word a reading travels as: value x scale, rounded; false when it does not fit `limit`.
bool to_word(double value, double scale, double limit, std::uint16_t* word) {
  const double scaled = value * scale;
  if (!(scaled >= 0 && scaled < limit + 0.5)) return false;  // NaN fails too
  *word = static_cast<std::uint16_t>(std::lround(scaled));
  return true;
}

constexpr double kVoltScale = 64000.0 / 5;
constexpr double kMilliampScale = 64000.0 / 20;

}  // namespace

void EnvironmentBoard::hear(std::span<const std::uint8_t> bytes, std::string& answers) {
  for (const std::uint8_t byte : bytes) {
    if (byte == '~') {
      frame_.assign(1, '~');
    } else if (!frame_.empty()) {  // between frames, noise is ignored
      frame_ += static_cast<char>(byte);
      if (byte == '\r') {
        take_frame(answers);
        frame_.clear();
      } else if (frame_.size() >= kMaxFrame) {
        ++rejected_;
        frame_.clear();
      }
    }
  }
}

void EnvironmentBoard::take_frame(std::string& answers) {
  // Between "~" and the carriage return: VER ADR CID1 CID2 LENGTH INFO CHKSUM.
  const char* body = frame_.data() + 1;
  const std::size_t length = frame_.size() - 2;
  const std::uint16_t word = length >= kBareFrame ? AscToUnShort(body + 8) : 0;
  const std::size_t info = (word & 0x0FFFu) / 2;
  if (length < kBareFrame || serial::CheckSum(reinterpret_cast<const std::uint8_t*>(body), static_cast<int>(length)) != 0 ||
      length != kBareFrame + 2 * info || serial::EnCheckLTH(static_cast<std::uint32_t>(info)) != word) {
    ++rejected_;
    return;
  }
  const std::uint8_t cid1 = AscToHex(body + 4);
  const std::uint8_t cid2 = AscToHex(body + 6);
  if (cid1 == kPollCid1 && cid2 == kPollCid2) {
    ++polls_;
  } else if (cid1 == kRelayCid1 && cid2 == kRelayCid2 && info >= 2) {
    ++commands_;
    relays_ = AscToHex(body + 14) & 0x0F;  // INFO byte 1 is the mask
  } else {
    ++rejected_;
    return;
  }
  if (silent_) return;
  std::string text = answer(cid1);
  if (noisy_) {
    noise_ = noise_ * 1103515245u + 12345u;
    // One bit flipped between the marks; no hex digit flips into a carriage return.
    const std::size_t at = 1 + (noise_ >> 8) % (text.size() - 2);
    text[at] = static_cast<char>(text[at] ^ (1u << (noise_ >> 4) % 8));
    ++garbled_;
  }
  answers += text;
  ++answered_;
}

std::string EnvironmentBoard::answer(std::uint8_t cid1) const {
  serial::POWER_7E_CMD cmd{};
  cmd.VER = 0x21;
  cmd.ADR = 0x01;
  cmd.CID1 = cid1;
  cmd.CID2 = 0x00;  // normal return
  cmd.LENGTH = kAnswerInfo;
  for (int c = 0; c < kAnalogue; ++c) {
    std::uint8_t* words = cmd.INFO + 4 * c;
    words[0] = static_cast<std::uint8_t>(volts_[c] >> 8);
    words[1] = static_cast<std::uint8_t>(volts_[c]);
    words[2] = static_cast<std::uint8_t>(milliamps_[c] >> 8);
    words[3] = static_cast<std::uint8_t>(milliamps_[c]);
  }
  // A contact pulls its bit low when it is closed.
  cmd.INFO[kContactsLow] = static_cast<std::uint8_t>(~closed_);
  cmd.INFO[kContactsHigh] = static_cast<std::uint8_t>(~closed_ >> 8);
  cmd.INFO[kRelayByte] = relays_;
  std::uint8_t text[2 * kAnswerInfo + 18];
  const std::int32_t n = serial::POWER_7E_CMDSend(cmd, text, sizeof text);
  return std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(n));
}

bool EnvironmentBoard::set_volts(int channel, double volts) {
  return channel >= 1 && channel <= kAnalogue && to_word(volts, kVoltScale, 0xFFFD, &volts_[channel - 1]);
}

bool EnvironmentBoard::set_milliamps(int channel, double milliamps) {
  return channel >= 1 && channel <= kAnalogue && to_word(milliamps, kMilliampScale, 0xFFFA, &milliamps_[channel - 1]);
}

bool EnvironmentBoard::set_contact(int input, bool closed) {
  if (input < 1 || input > kContacts) return false;
  const auto bit = static_cast<std::uint16_t>(1u << (input - 1));
  closed_ = static_cast<std::uint16_t>(closed ? closed_ | bit : closed_ & ~bit);
  return true;
}

void EnvironmentBoard::describe(std::string& out) const {
  out += std::string(" state=") + (silent_ ? "silent" : noisy_ ? "noise" : "on") + " polls=" + std::to_string(polls_) +
         " commands=" + std::to_string(commands_) + " answers=" + std::to_string(answered_) +
         " rejected=" + std::to_string(rejected_) + " garbled=" + std::to_string(garbled_);
}

void EnvironmentBoard::describe_inputs(std::string& out) const {
  char line[128];
  for (int c = 0; c < kAnalogue; ++c) {
    std::snprintf(line, sizeof line, "ai %d for=Local/AI/%d volts=%.4f milliamps=%.3f words=%04X/%04X\n", c + 1,
                  c + 1, volts_[c] / kVoltScale, milliamps_[c] / kMilliampScale, volts_[c], milliamps_[c]);
    out += line;
  }
  for (int n = 1; n <= kContacts; ++n) {
    out += "di " + std::to_string(n) + " for=Local/DI/" + std::to_string(n) +
           " state=" + (((closed_ >> (n - 1)) & 1) != 0 ? "closed" : "open") + "\n";
  }
}

}  // namespace fsu::sim
