// Cuts a fuzz input into the pieces a reader's passes would receive: from `at` on, each piece is
// a 16-bit big-endian size and that many bytes (fewer at the end). Every piece is handed over in
// a heap block of its exact size, so a read past the piece is caught.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

// Stops the run where a property of the code under test does not hold.
inline void require(bool holds) {
  if (!holds) __builtin_trap();
}

template <typename Feed>
void for_each_piece(const std::uint8_t* data, std::size_t size, std::size_t at, Feed&& feed) {
  while (at + 2 <= size) {
    std::size_t n = static_cast<std::size_t>(data[at]) << 8 | data[at + 1];
    at += 2;
    if (n > size - at) n = size - at;
    auto piece = std::make_unique<std::uint8_t[]>(n + 1);  // +1 so that n = 0 works
    std::memcpy(piece.get(), data + at, n);
    feed(piece.get(), static_cast<std::int32_t>(n));
    at += n;
  }
}
