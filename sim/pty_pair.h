// A pseudo-terminal pair as the simulator uses it: the simulator holds the master and keeps a
// descriptor of the slave open itself, so that the master never reads a hang-up while nobody
// else has the slave open and the slave keeps its settings between users.
#pragma once

#include <string>

#include "sim/line_settings.h"

namespace fsu::sim {

class PtyPair {
 public:
  PtyPair() = default;
  ~PtyPair();
  PtyPair(const PtyPair&) = delete;
  PtyPair& operator=(const PtyPair&) = delete;

  // Opens a new pair: master non-blocking, both ends close-on-exec, the line raw (no byte is
  // altered or echoed in either direction, a read waits for one byte) at 9600 baud 8N1. On
  // failure returns false with a reason in `error` and holds nothing.
  bool open(std::string* error);
  void close();

  int master() const { return master_; }
  int slave() const { return slave_; }
  // The slave's path, such as "/dev/pts/7".
  const std::string& slave_path() const { return slave_path_; }
  // The line as the slave's user last set it (on Linux the master reads the slave's termios).
  LineSettings settings() const;

 private:
  int master_ = -1;
  int slave_ = -1;
  std::string slave_path_;
};

}  // namespace fsu::sim
