// The simulated board while it is up: what runs beside an application on a sandbox root.
// Today that is the power-up state of the GPIO lines and sim/board.pid, which tells tools and
// people that a board is up and which process holds it.
#pragma once

#include <string>

namespace fsu::sim {

class Board {
 public:
  // `root` is the absolute root of a sandbox made by make_sandbox.
  explicit Board(std::string root);
  ~Board();
  Board(const Board&) = delete;
  Board& operator=(const Board&) = delete;

  // Brings the board up: GPIO value files back to their power-up state, sim/board.pid
  // written. Refused (false, with a reason) while another live process holds the board.
  bool start(std::string* error);
  // Brings it down again; harmless when it is not up.
  void stop();

 private:
  std::string root_;
  bool up_ = false;
};

}  // namespace fsu::sim
