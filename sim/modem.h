// The simulated LTE modem: plugged into the board's USB port as one of the known models, with
// an AT port (a pseudo-terminal linked at that model's AT device under the root) that answers
// the AT commands the SDK sends as a real modem does, a SIM, a network registration, and a data
// link that the dial script's stand-in brings up. Its power follows GPIO 12; a restart by
// command or by power takes it off USB for its boot time, and it comes back with its model's
// boot lines. Models differ as in the field: the reply shapes, echo, ^SYSINFO, the IMEI in
// hexadecimal, whether AT commands and PPP share one port (a command written there while the
// link is up breaks the link). Faults on command: pulled from USB, AT port silent or streaming
// noise, replies cut, an 8 KiB reply without line end, garbage bytes, unsolicited lines (at once
// or between a command and its reply), a slow registration, the link dropped. Everything runs
// on the board's service thread.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/byte_queue.h"
#include "sim/pty_pair.h"

namespace fsu::sim {

class Modem {
 public:
  using Report = std::function<void(const std::string& message)>;

  Modem(std::string root, Report report);
  ~Modem();
  Modem(const Modem&) = delete;
  Modem& operator=(const Modem&) = delete;

  // Applies a "modem ..." control line (the words after "modem"); "" or the reason it was not.
  std::string command(std::span<const std::string_view> args, double now);
  // Follows GPIO 12 and the timers (boot, dial); call often (the board does every 50 ms).
  void tick(double now);
  // Moves bytes: takes commands from the SDK, answers them.
  void service(double now);
  void add_poll_fds(std::vector<pollfd>& fds) const;
  // When tick wants to run next.
  double due() const;
  void describe(std::string& out) const;

 private:
  bool available(double now) const;
  void refresh(double now);
  void open_port();
  void close_port();
  void write_usb() const;
  void set_link(bool up);
  void answer(std::string_view command, double now);
  void reply(const std::string& text);
  void flush();
  void hear(char c, double now);
  void restart(double now);
  void come_up(double now);
  void send_boot_lines(double now);
  double boot_line_due() const;
  bool on_net(double now) const;
  bool link_holds_port() const;
  std::string imei_shape() const;

  std::string root_;
  Report report_;
  PtyPair pty_;
  std::string at_link_;  // host path of the AT device while the port is there
  ByteQueue out_{64 * 1024};
  std::string line_;  // the command being typed
  int row_ = 10;
  bool plugged_ = true;
  bool powered_ = true;
  double ready_at_ = 0;  // the end of a boot (power-up or restart): off USB until then
  double restart_at_ = std::numeric_limits<double>::infinity();  // a restart acknowledged, not yet begun
  bool port_up_ = false;
  double up_since_ = 0;     // when the port last appeared
  std::size_t boot_sent_ = 0;  // boot lines sent since then
  bool echo_ = true;
  bool sim_ = true;
  bool registered_ = true;
  double register_delay_ = 0;  // seconds from the port's appearance to registration
  bool swallowing_ = false;    // the rest of a line written into the link: data, not a command
  int rssi_ = 24;
  int generation_ = 4;
  std::string imsi_ = "460001234567890";
  std::string imei_ = "866123456789012";
  std::string imei_reply_;  // empty: the model's own shape
  std::string address_ = "10.64.12.34";
  bool silent_ = false;
  bool stream_ = false;
  double next_stream_ = 0;  // when the streaming port sends its next run
  std::string next_fault_;  // cut, flood, garbage or interleave: applied to the next reply
  int interleave_ = 0;      // unsolicited lines before the next reply
  bool link_up_ = false;
  double dial_at_ = std::numeric_limits<double>::infinity();
  double boot_delay_ = 4;
  double dial_delay_ = 3;
  std::uint64_t commands_ = 0;
  std::uint64_t restarts_ = 0;
  std::uint64_t power_cycles_ = 0;
  std::uint64_t dials_ = 0;
  std::uint64_t urcs_ = 0;        // unsolicited lines sent
  std::uint64_t at_on_link_ = 0;  // AT commands written into the link on a shared port
};

}  // namespace fsu::sim
