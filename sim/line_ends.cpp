#include "sim/line_ends.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

namespace fsu::sim {

std::unique_ptr<PersonTerminal> PersonTerminal::open(std::string* error) {
  auto terminal = std::make_unique<PersonTerminal>();
  if (!terminal->pty_.open(error)) return nullptr;
  return terminal;
}

void PersonTerminal::receive(std::span<const std::uint8_t> bytes, Uart& uart) {
  int unread = 0;
  if (ioctl(pty_.slave(), TIOCINQ, &unread) != 0 || unread >= kBacklog) {
    uart.count_dropped(bytes.size());
    return;
  }
  const ssize_t n = write(pty_.master(), bytes.data(), bytes.size());
  uart.count_dropped(bytes.size() - static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
}

void PersonTerminal::service(Uart& uart) {
  // Only what the line can still queue: a person typing faster than the line is held back,
  // as the terminal at the far end of a real cable would be.
  std::uint8_t buf[4096];
  const std::size_t want = std::min(sizeof buf, uart.send_space());
  if (want == 0) return;
  const ssize_t n = read(pty_.master(), buf, want);
  if (n > 0) uart.send({buf, static_cast<std::size_t>(n)});
}

int PersonTerminal::wake_fd(const Uart& uart) const {
  // While bytes are queued the line's own passes come often enough to read more.
  return uart.send_space() == Uart::kQueueCapacity ? pty_.master() : -1;
}

}  // namespace fsu::sim
