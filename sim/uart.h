// One of the board's UARTs as the simulator serves it: a pseudo-terminal whose slave is linked
// at the device path inside the sandbox, and whatever sits at the far end of the line (a
// loopback plug, a person's terminal, a board model). Bytes cross the line in both directions
// no faster than the speed the SDK set on the port.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "sim/byte_queue.h"
#include "sim/line_settings.h"
#include "sim/pty_pair.h"

namespace fsu::sim {

class Uart;

// The far end of a line. Everything is called from the simulator's one service thread.
class LineDevice {
 public:
  virtual ~LineDevice() = default;
  // The word that names this far end in the state file and in control commands.
  virtual std::string_view mode() const = 0;
  // Bytes the SDK transmitted, handed over as fast as the line carries them.
  virtual void receive(std::span<const std::uint8_t> bytes, Uart& uart) = 0;
  // Called on every pass over its port, for input or timed sending of its own.
  virtual void service(Uart& uart) { (void)uart; }
  // Monotonic time at which it wants a pass of its own (a receiver's next sentence); infinity
  // when only bytes arriving from either side give it something to do.
  virtual double due() const { return std::numeric_limits<double>::infinity(); }
  // A descriptor whose input should end the service loop's wait, or -1.
  virtual int wake_fd(const Uart& uart) const {
    (void)uart;
    return -1;
  }
  // Fields of its own for the port's state line, each as " key=value".
  virtual void describe(std::string& out) const { (void)out; }
};

// The last bytes that crossed a line one way, for people watching the traffic.
class RecentBytes {
 public:
  static constexpr std::size_t kKept = 32;
  void add(std::span<const std::uint8_t> bytes);
  // " NAME=HEX" of the kept bytes, oldest first; nothing while none crossed.
  void describe(std::string_view name, std::string& out) const;

 private:
  std::uint8_t bytes_[kKept] = {};
  std::size_t next_ = 0;
  std::size_t count_ = 0;
};

class Uart {
 public:
  // What a far end may have queued for the SDK; more is dropped and counted.
  static constexpr std::size_t kQueueCapacity = 64 * 1024;
  // Shortest wait between two passes while bytes are moving: fewer wake-ups, bytes go in batches.
  static constexpr double kTickSeconds = 0.005;

  // `number` 1 to 7 for /dev/ttymxc1 to /dev/ttymxc7; `use` says what the port serves
  // ("Local/Uart/1", "extension-board-1"); `link` is the host path of the device path.
  Uart(int number, std::string use, std::string link);
  ~Uart();
  Uart(const Uart&) = delete;
  Uart& operator=(const Uart&) = delete;

  // Opens the pseudo-terminal and links its slave at the device path (replacing a stale link).
  bool open(std::string* error);
  // Removes the link (when it is still ours) and closes the pseudo-terminal and the far end.
  void close();

  // Puts another far end on the line. What the previous one had still queued is lost.
  void attach(std::unique_ptr<LineDevice> device);
  LineDevice& device() const { return *device_; }

  // Queues bytes for the SDK; what does not fit is dropped and counted.
  void send(std::span<const std::uint8_t> bytes);
  std::size_t send_space() const { return queue_.space(); }
  void count_dropped(std::size_t n) { dropped_ += n; }

  // One pass at monotonic time `now`: moves as many bytes each way as the line rate allowed
  // since the last pass.
  void pump(double now);
  // When the next pass has bytes to move or the far end wants one; infinity when only new
  // input can start anything.
  double next_due(double now) const;
  // Descriptors whose input should end the service loop's wait.
  void add_poll_fds(std::vector<pollfd>& fds) const;

  int number() const { return number_; }
  const std::string& use() const { return use_; }
  // The port's line of the state file, opening with `name` ("uart 1", "port 5").
  void describe(std::string_view name, std::string& out) const;

 private:
  void take_from_sdk();
  void give_to_sdk();

  int number_;
  std::string use_;
  std::string link_;
  PtyPair pty_;
  std::unique_ptr<LineDevice> device_;
  ByteQueue queue_{kQueueCapacity};
  LineSettings settings_;
  double last_ = 0;
  double in_credit_ = 0;   // bytes the SDK's side may hand over now
  double out_credit_ = 0;  // bytes the far end may deliver now
  bool input_pending_ = false;  // the SDK may have written more than the line has carried yet
  bool output_blocked_ = false;  // the SDK's side takes no more for now
  std::uint64_t from_sdk_ = 0;
  std::uint64_t to_sdk_ = 0;
  std::uint64_t dropped_ = 0;
  RecentBytes recent_from_sdk_;
  RecentBytes recent_to_sdk_;
};

}  // namespace fsu::sim
