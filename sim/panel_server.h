// The front panel of the simulated unit: a small HTTP server inside fsusim that serves the
// page (sim/panel/), pushes what the unit shows as server-sent events whenever it changes, and
// takes the page's actions, each one a `fsusim ctl` control line or a `fsusim web` request
// run through the same path as those commands.
//
// Only the person who started it can use it: it listens on 127.0.0.1 unless told otherwise,
// and every request must carry the random token printed in its address and name the panel's
// own address as its Host (and Origin, when the browser sends one); anything else gets 403.
#pragma once

#include <memory>
#include <string>

#include "sim/panel_request.h"

namespace fsu::sim {

class Panel {
 public:
  // `bind` is the address to listen on; `port` 0 takes any free port.
  Panel(std::string root, std::string bind, int port = 0);
  ~Panel();
  Panel(const Panel&) = delete;
  Panel& operator=(const Panel&) = delete;

  bool start(std::string* error);
  // Where a browser opens it: http://127.0.0.1:PORT/?token=...
  std::string address() const;
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace fsu::sim
