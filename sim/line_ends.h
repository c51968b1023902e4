// The far ends that any port can have: the loopback plug of the factory test, nothing at all,
// and a terminal that a person opens with screen, minicom or socat.
#pragma once

#include <memory>
#include <string>

#include "sim/pty_pair.h"
#include "sim/uart.h"

namespace fsu::sim {

// Sends back whatever arrives, as a plug that joins a port's transmit and receive pins does.
class LoopbackPlug : public LineDevice {
 public:
  std::string_view mode() const override { return "loopback"; }
  void receive(std::span<const std::uint8_t> bytes, Uart& uart) override { uart.send(bytes); }
};

// An open line: what the SDK sends is carried away and nothing ever comes back.
class SilentEnd : public LineDevice {
 public:
  std::string_view mode() const override { return "silent"; }
  void receive(std::span<const std::uint8_t>, Uart&) override {}
};

// A second pseudo-terminal whose slave a person opens: what the SDK sends appears there, what
// the person types goes to the SDK, both at the port's line rate. A person who is not
// reading loses what the SDK sends beyond a small backlog, as on an unattended cable.
class PersonTerminal : public LineDevice {
 public:
  // Bytes waiting unread at the person's side beyond which more are dropped.
  static constexpr int kBacklog = 2048;

  // A terminal with a fresh pseudo-terminal, or null with a reason in `error`.
  static std::unique_ptr<PersonTerminal> open(std::string* error);

  // The path a person opens, such as "/dev/pts/7".
  const std::string& path() const { return pty_.slave_path(); }

  std::string_view mode() const override { return "terminal"; }
  void receive(std::span<const std::uint8_t> bytes, Uart& uart) override;
  void service(Uart& uart) override;
  int wake_fd(const Uart& uart) const override;
  void describe(std::string& out) const override { out += " terminal=" + path(); }

 private:
  PtyPair pty_;
};

}  // namespace fsu::sim
