// A pseudo-terminal standing in for one UART: the SDK opens the slave through its device path
// inside the sandbox, the test plays the device on the master.
#pragma once

#include <cstdint>
#include <string>
#include <termios.h>
#include <vector>

#include "sim/pty_pair.h"

namespace fsu::test {

class PtyPair {
 public:
  // Links the slave at `host_link` (the sandbox path of a device such as /dev/ttymxc1).
  explicit PtyPair(const std::string& host_link);
  ~PtyPair();
  PtyPair(const PtyPair&) = delete;
  PtyPair& operator=(const PtyPair&) = delete;

  // What the device sends.
  void send(const std::vector<std::uint8_t>& bytes);
  void send(const std::string& text) { send(std::vector<std::uint8_t>(text.begin(), text.end())); }
  // Collects what the SDK sent until `count` bytes have come or the deadline passes.
  std::vector<std::uint8_t> receive(std::size_t count, double seconds);
  // Everything the SDK sent that has arrived by now.
  std::vector<std::uint8_t> drain();
  // The line settings the SDK gave the port, as the other side sees them.
  termios settings() const;

 private:
  sim::PtyPair pty_;  // keeps the slave open itself, so the master never reads EIO
  std::string link_;
};

}  // namespace fsu::test
