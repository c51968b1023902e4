// A bounded first-in first-out store of bytes in one fixed allocation: what a simulated device
// has yet to send down its line.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fsu::sim {

class ByteQueue {
 public:
  explicit ByteQueue(std::size_t capacity) : data_(capacity) {}

  std::size_t size() const { return size_; }
  std::size_t space() const { return data_.size() - size_; }
  bool empty() const { return size_ == 0; }

  // Appends as much of `bytes` as fits; returns how much that was.
  std::size_t push(std::span<const std::uint8_t> bytes) {
    const std::size_t n = std::min(bytes.size(), space());
    for (std::size_t i = 0; i < n; ++i) data_[(head_ + size_ + i) % data_.size()] = bytes[i];
    size_ += n;
    return n;
  }
  // The oldest bytes that lie in one piece (all of them unless they wrap around).
  std::span<const std::uint8_t> front() const {
    return {data_.data() + head_, std::min(size_, data_.size() - head_)};
  }
  void pop(std::size_t n) {
    n = std::min(n, size_);
    head_ = (head_ + n) % data_.size();
    size_ -= n;
  }
  void clear() { head_ = size_ = 0; }

 private:
  std::vector<std::uint8_t> data_;
  std::size_t head_ = 0;
  std::size_t size_ = 0;
};

}  // namespace fsu::sim
