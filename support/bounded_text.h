// Builds a text into a caller's fixed buffer: appends never go past the buffer, the text is
// always terminated, and fits() tells whether anything had to be cut.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace fsu::support {

class BoundedText {
 public:
  BoundedText(char* buf, std::size_t size) : buf_(buf), size_(size) {
    if (size_ > 0) buf_[0] = '\0';
  }

  BoundedText& append(const char* format, ...) __attribute__((format(printf, 2, 3))) {
    if (size_ == 0) {
      fits_ = false;
      return *this;
    }
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(buf_ + length_, size_ - length_, format, args);
    va_end(args);
    if (n < 0) {
      fits_ = false;
      buf_[length_] = '\0';
    } else if (static_cast<std::size_t>(n) >= size_ - length_) {
      fits_ = false;
      length_ = size_ - 1;
    } else {
      length_ += static_cast<std::size_t>(n);
    }
    return *this;
  }

  bool fits() const { return fits_; }
  std::size_t length() const { return length_; }
  const char* c_str() const { return size_ > 0 ? buf_ : ""; }

 private:
  char* buf_;
  std::size_t size_;
  std::size_t length_ = 0;
  bool fits_ = true;
};

}  // namespace fsu::support
