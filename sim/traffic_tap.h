// What crosses the board's UARTs, written while someone records (`fsusim record`): each port's
// traffic as records of the SDK's hex traffic log, what the unit sent after "TX:" and what the
// far end sent after "RX:", stamped with the local time to the millisecond. A record closes
// when the far end has answered and the unit sends again, or once it is 50 ms old, so that a
// replay puts every byte within 50 ms of when it first came. Runs on the service thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace fsu::sim {

class TrafficTap {
 public:
  // How long a record gathers bytes.
  static constexpr double kRecordSeconds = 0.05;
  static constexpr int kPorts = 7;

  ~TrafficTap() { stop(); }

  // Starts writing to `path` (emptied first); false with a reason when it cannot be opened.
  bool start(const std::string& path, std::string* error);
  // Writes what is still open and closes the file. Harmless when not recording.
  void stop();
  bool active() const { return fd_ >= 0; }

  // Bytes that crossed main-board UART `port` (1 to 7) at monotonic time `now`: sent by the
  // unit (`from_unit`) or by the far end.
  void add(int port, bool from_unit, std::span<const std::uint8_t> bytes, double now);
  // Closes the records that are old enough; the board calls it every pass of its control period.
  void close_due(double now);

  // The name of main-board UART `port` in the records: Local/Uart/1 to 4, Local/Port/5 to 7.
  static std::string port_name(int port);

 private:
  struct Open {
    bool open = false;
    bool answered = false;  // "RX:" written: more of the unit's bytes start a new record
    double started = 0;
    unsigned number = 0;
    std::string text;
  };
  void close_record(Open& record);

  int fd_ = -1;
  Open records_[kPorts];
};

}  // namespace fsu::sim
