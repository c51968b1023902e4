// The simulated board while it is up: the power-up state of the GPIO lines, sim/board.pid
// (which tells tools and people that a board is up and which process holds it), the seven
// UARTs with what sits at their far ends (the two extension boards, and the environment board
// behind board 1), and the state and control files under sim/. One service thread moves the
// serial bytes, takes control lines and keeps sim/state current.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "sim/control.h"
#include "sim/environment_board.h"
#include "sim/extension_board.h"
#include "sim/modem.h"
#include "sim/positioning_receiver.h"
#include "sim/state_file.h"
#include "sim/traffic_tap.h"
#include "sim/uart.h"

namespace fsu::sim {

struct BoardOptions {
  // Control lines applied as the board comes up, before the SDK can see a port
  // ("uart 2 terminal").
  std::vector<std::string> commands;
  // Messages for the person running the board (a terminal's path, a rejected control line);
  // standard error when not set.
  std::function<void(const std::string& message)> report;
  // The unit's number in a fleet (`--unit K`), which `fsusim ls` shows and `--unit K` finds;
  // 0 for a unit without one.
  int number = 0;
};

class Board {
 public:
  // `root` is the absolute root of a sandbox made by make_sandbox.
  explicit Board(std::string root, BoardOptions options = {});
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  // Brings the board up: GPIO value files back to their power-up state, the UARTs linked at
  // dev/ttymxc1 to dev/ttymxc7, sim/state and sim/control fresh, sim/board.pid written, the
  // service thread started. Refused (false, with a reason) while another live process holds
  // the board, or when a start-up command fails.
  bool start(std::string* error);
  // Brings it down again: the thread joined, the links removed, the terminals closed,
  // sim/state saying so. Harmless when it is not up.
  void stop();

 private:
  void serve();
  void take_control(double now);
  std::string set_uart(std::span<const std::string_view> args);
  std::string set_port(std::span<const std::string_view> args);
  std::string set_port_end(Uart& uart, std::string_view mode);
  std::string set_board(std::span<const std::string_view> args);
  std::string set_environment(std::span<const std::string_view> args);
  std::string set_analogue(std::span<const std::string_view> args);
  std::string set_contact(std::span<const std::string_view> args);
  std::string set_modem(std::span<const std::string_view> args);
  std::string set_receiver(std::span<const std::string_view> args);
  std::string set_receiver_port(std::string_view mode);
  std::string set_recording(std::span<const std::string_view> args);
  void say(const std::string& message) const;
  void describe_board(std::string& out) const;
  void describe_serial(std::string& out) const;
  void describe_extensions(std::string& out) const;
  void describe_gpio(std::string& out) const;
  void describe_control(std::string& out) const;
  void describe_watchdog(std::string& out) const;
  void close_ports();
  void start_guard();

  std::string root_;
  BoardOptions options_;
  bool up_ = false;
  std::unique_ptr<EnvironmentBoard> environment_;  // outlives the ports, whose boards use it
  std::vector<std::unique_ptr<Uart>> uarts_;
  ExtensionBoard* extensions_[2] = {nullptr, nullptr};  // the far ends of ports 5 and 6
  std::unique_ptr<Modem> modem_;
  PositioningReceiver* receiver_ = nullptr;  // the far end of port 7 while it is the receiver
  TrafficTap tap_;  // the ports' traffic while `fsusim record` records it
  CommandTable commands_;
  ControlFile control_;
  StateFile state_;
  std::uint64_t applied_ = 0;
  std::uint64_t failed_ = 0;
  std::uint64_t reboots_ = 0;  // `reboot` asked of the unit since the board came up
  std::deque<std::string> errors_;  // the latest rejected lines, for sim/state
  std::thread thread_;
  int wake_[2] = {-1, -1};  // a byte in this pipe ends the service thread
  int gpio_watch_ = -1;     // inotify on the GPIO value files the state shows and the modem's power line
  int modem_power_watch_ = -1;  // its watch on the modem's power line
  int control_watch_ = -1;  // inotify on sim/, for lines appended to sim/control
  pid_t guard_ = -1;        // brings the board down in the files when this process dies
  int guard_pipe_ = -1;     // its end of the pipe; the guard wakes when it closes
};

// The live process that holds a board up in `root`, or 0.
pid_t board_process(const std::string& root);

}  // namespace fsu::sim
