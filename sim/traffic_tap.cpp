#include "sim/traffic_tap.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

#include "sim/capture_file.h"

namespace fsu::sim {

bool TrafficTap::start(const std::string& path, std::string* error) {
  stop();
  fd_ = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  if (fd_ < 0) {
    if (error != nullptr) *error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  for (Open& record : records_) record = Open{};
  return true;
}

void TrafficTap::stop() {
  if (fd_ < 0) return;
  for (Open& record : records_) close_record(record);
  ::close(fd_);
  fd_ = -1;
}

std::string TrafficTap::port_name(int port) {
  return (port <= 4 ? "Local/Uart/" : "Local/Port/") + std::to_string(port);
}

void TrafficTap::add(int port, bool from_unit, std::span<const std::uint8_t> bytes, double now) {
  if (fd_ < 0 || port < 1 || port > kPorts || bytes.empty()) return;
  Open& record = records_[port - 1];
  if (record.open && (now - record.started > kRecordSeconds || (from_unit && record.answered))) close_record(record);
  if (!record.open) {
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    record.open = true;
    record.answered = false;
    record.started = now;
    record.text = record_header(static_cast<double>(wall.tv_sec) + wall.tv_nsec / 1e9, port_name(port), ++record.number);
  }
  if (!from_unit && !record.answered) {
    record.text += "\r\nRX:";
    record.answered = true;
  }
  append_hex(record.text, bytes.data(), bytes.size());
}

void TrafficTap::close_due(double now) {
  if (fd_ < 0) return;
  for (Open& record : records_) {
    if (record.open && now - record.started > kRecordSeconds) close_record(record);
  }
}

void TrafficTap::close_record(Open& record) {
  if (!record.open) return;
  record.open = false;
  if (!record.answered) record.text += "\r\nRX:";
  const char* data = record.text.data();
  std::size_t left = record.text.size();
  while (left > 0) {
    const ssize_t n = ::write(fd_, data, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // a full disk loses the record, not the board
    data += n;
    left -= static_cast<std::size_t>(n);
  }
  record.text.clear();
}

}  // namespace fsu::sim
