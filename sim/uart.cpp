#include "sim/uart.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <unistd.h>

#include "sim/traffic_tap.h"

namespace fsu::sim {
namespace {

// Credit a line keeps while it has nothing to move: one tick's worth, at least one byte.
double burst(double rate) { return std::max(1.0, rate * Uart::kTickSeconds); }

// A pass that finds the SDK's side full tries again this much later.
constexpr double kBlockedRetrySeconds = 0.05;

}  // namespace

Uart::Uart(int number, std::string use, std::string link)
    : number_(number), use_(std::move(use)), link_(std::move(link)) {}

Uart::~Uart() { close(); }

bool Uart::open(std::string* error) {
  if (!pty_.open(error)) return false;
  // A link to a new name first, then renamed over the device path: a reader never finds the
  // path missing or pointing at a closed terminal of an earlier board.
  const std::string tmp = link_ + ".new";
  unlink(tmp.c_str());
  if (symlink(pty_.slave_path().c_str(), tmp.c_str()) != 0 || rename(tmp.c_str(), link_.c_str()) != 0) {
    if (error != nullptr) *error = "cannot link " + link_ + ": " + std::strerror(errno);
    unlink(tmp.c_str());
    pty_.close();
    return false;
  }
  settings_ = pty_.settings();
  return true;
}

void Uart::close() {
  if (pty_.master() < 0) return;
  char target[256];
  const ssize_t n = readlink(link_.c_str(), target, sizeof target - 1);
  if (n > 0 && std::string_view(target, static_cast<std::size_t>(n)) == pty_.slave_path()) unlink(link_.c_str());
  device_.reset();
  pty_.close();
}

void Uart::attach(std::unique_ptr<LineDevice> device) {
  dropped_ += queue_.size();
  queue_.clear();
  device_ = std::move(device);
}

void Uart::send(std::span<const std::uint8_t> bytes) { dropped_ += bytes.size() - queue_.push(bytes); }

void Uart::pump(double now) {
  if (pty_.master() < 0) return;
  settings_ = pty_.settings();
  const double rate = settings_.bytes_per_second();
  const double gained = rate * std::max(0.0, now - last_);
  last_ = now;
  in_credit_ += gained;
  out_credit_ += gained;
  // Credit does not pile up while a direction is idle: a line never runs faster than its rate.
  if (!input_pending_) in_credit_ = std::min(in_credit_, burst(rate));
  if (queue_.empty()) out_credit_ = std::min(out_credit_, burst(rate));

  take_from_sdk();
  if (device_) device_->service(*this);
  give_to_sdk();
}

void Uart::take_from_sdk() {
  std::uint8_t buf[4096];
  const double allowed = std::min(std::floor(in_credit_), static_cast<double>(sizeof buf));
  // Without a whole byte of credit the next pass looks again; waiting on the descriptor now
  // would wake at once for as long as the SDK's bytes sit there.
  if (allowed < 1) {
    input_pending_ = true;
    return;
  }
  const auto want = static_cast<std::size_t>(allowed);
  const ssize_t n = read(pty_.master(), buf, want);
  if (n <= 0) {
    input_pending_ = false;
    return;
  }
  const auto got = static_cast<std::size_t>(n);
  in_credit_ -= static_cast<double>(got);
  from_sdk_ += got;
  recent_from_sdk_.add({buf, got});
  input_pending_ = got == want;
  if (tap_ != nullptr) tap_->add(number_, true, {buf, got}, last_);
  if (device_) device_->receive({buf, got}, *this);
}

void Uart::give_to_sdk() {
  output_blocked_ = false;
  while (!queue_.empty() && out_credit_ >= 1) {
    const std::span<const std::uint8_t> run = queue_.front();
    const std::size_t want = std::min(run.size(), static_cast<std::size_t>(out_credit_));
    const ssize_t n = write(pty_.master(), run.data(), want);
    if (n <= 0) {
      output_blocked_ = true;
      return;
    }
    const auto put = static_cast<std::size_t>(n);
    recent_to_sdk_.add(run.first(put));
    if (tap_ != nullptr) tap_->add(number_, false, run.first(put), last_);
    queue_.pop(put);
    out_credit_ -= static_cast<double>(put);
    to_sdk_ += put;
    if (put < want) {
      output_blocked_ = true;
      return;
    }
  }
}

double Uart::next_due(double now) const {
  if (pty_.master() < 0) return std::numeric_limits<double>::infinity();
  double due = device_ ? device_->due() : std::numeric_limits<double>::infinity();
  const double rate = settings_.bytes_per_second();
  if (rate <= 0) return due;
  const auto when_credit = [&](double credit) { return now + std::max(kTickSeconds, (1 - credit) / rate); };
  if (input_pending_) due = std::min(due, when_credit(in_credit_));
  if (!queue_.empty()) due = std::min(due, output_blocked_ ? now + kBlockedRetrySeconds : when_credit(out_credit_));
  return due;
}

void Uart::add_poll_fds(std::vector<pollfd>& fds) const {
  if (pty_.master() < 0) return;
  if (!input_pending_) fds.push_back({pty_.master(), POLLIN, 0});
  const int wake = device_ ? device_->wake_fd(*this) : -1;
  if (wake >= 0) fds.push_back({wake, POLLIN, 0});
}

void Uart::describe(std::string_view name, std::string& out) const {
  out += std::string(name) + " device=/dev/ttymxc" + std::to_string(number_) + " for=" + use_ +
         " mode=" + std::string(device_ ? device_->mode() : "none");
  if (device_) device_->describe(out);
  // Read afresh: the SDK may have set the line since the port last carried a byte.
  const LineSettings line = pty_.settings();
  out += " speed=" + std::to_string(line.baud) + " format=" + line.format() +
         " from_sdk=" + std::to_string(from_sdk_) + " to_sdk=" + std::to_string(to_sdk_) +
         " dropped=" + std::to_string(dropped_);
  recent_from_sdk_.describe("recent_from_sdk", out);
  recent_to_sdk_.describe("recent_to_sdk", out);
  out += "\n";
}

void RecentBytes::add(std::span<const std::uint8_t> bytes) {
  for (const std::uint8_t byte : bytes.last(std::min(bytes.size(), kKept))) {
    bytes_[next_] = byte;
    next_ = (next_ + 1) % kKept;
  }
  count_ = std::min(kKept, count_ + bytes.size());
}

void RecentBytes::describe(std::string_view name, std::string& out) const {
  if (count_ == 0) return;
  out += " " + std::string(name) + "=";
  for (std::size_t i = 0; i < count_; ++i) {
    const std::uint8_t byte = bytes_[(next_ + kKept - count_ + i) % kKept];
    out += "0123456789ABCDEF"[byte >> 4];
    out += "0123456789ABCDEF"[byte & 15];
  }
}

}  // namespace fsu::sim
