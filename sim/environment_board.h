// The environment board that hangs on channel 4 of extension board 1: sixteen analogue inputs,
// each read as a voltage word and a current word, sixteen contacts and four relays. It takes
// ASCII frames from its line and answers every poll, and every relay command, with one answer
// frame that carries all its readings.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace fsu::sim {

class EnvironmentBoard {
 public:
  static constexpr int kAnalogue = 16;
  static constexpr int kContacts = 16;
  static constexpr int kRelays = 4;
  // INFO bytes of an answer: 200 characters on the line.
  static constexpr std::uint32_t kAnswerInfo = 91;
  // Longest frame it gathers; text that runs longer without a carriage return is dropped.
  static constexpr std::size_t kMaxFrame = 2 * 256 + 18;

  // Takes bytes as they arrive on its line. For every complete frame it understands, it
  // acts on it and appends its answer to `answers`, unless it is silent.
  void hear(std::span<const std::uint8_t> bytes, std::string& answers);
  // The answer to a poll as the board would give it now; `cid1` echoes the command's CID1.
  std::string answer(std::uint8_t cid1 = 0x03) const;

  // Readings. Channels and inputs count from 1. A value the board cannot carry in its words
  // (below 0, above 5.1197 V or 20.478 mA) is refused with false.
  bool set_volts(int channel, double volts);
  bool set_milliamps(int channel, double milliamps);
  bool set_contact(int input, bool closed);
  // A silent board still hears and switches its relays, but answers nothing.
  void set_silent(bool silent) { silent_ = silent; }
  // On a noisy line every answer arrives with one character hit by noise (never its carriage
  // return), so that no answer passes its checks.
  void set_noisy(bool noisy) { noisy_ = noisy; }
  bool silent() const { return silent_; }
  bool relay(int output) const { return output >= 1 && output <= kRelays && ((relays_ >> (output - 1)) & 1) != 0; }

  // Fields of its own for its line of sim/state, each as " key=value".
  void describe(std::string& out) const;
  // The lines of its inputs in sim/state: "ai N ..." and "di N ...".
  void describe_inputs(std::string& out) const;

 private:
  void take_frame(std::string& answers);

  std::uint16_t volts_[kAnalogue] = {};
  std::uint16_t milliamps_[kAnalogue] = {};
  std::uint16_t closed_ = 0;  // bit n - 1 for input n
  std::uint8_t relays_ = 0;   // bit n - 1 for output n
  bool silent_ = false;
  bool noisy_ = false;
  std::uint32_t noise_ = 12345;  // state of the noise's pseudo-random sequence
  std::string frame_;  // the frame being gathered, from its "~"; empty between frames
  std::uint64_t polls_ = 0;
  std::uint64_t commands_ = 0;
  std::uint64_t answered_ = 0;
  std::uint64_t rejected_ = 0;
  std::uint64_t garbled_ = 0;
};

}  // namespace fsu::sim
