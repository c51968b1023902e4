// The AT line layer on arbitrary byte streams: the input is cut into the pieces the port's reads
// would deliver (fuzz/pieces.h), appended to the line buffer, and every complete line taken out
// after each piece, as readline does between reads.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fuzz/pieces.h"
#include "lte/at_channel.h"

namespace {

// A line lies inside the line area, is terminated there and holds no line end.
void check(const char* line) {
  using namespace fsu::lte;
  if (line < s_ATBuffer || line >= s_ATBuffer + kAtLineArea) __builtin_trap();
  const std::size_t length = strnlen(line, static_cast<std::size_t>(s_ATBuffer + kAtLineArea - line) + 1);
  if (line + length > s_ATBuffer + kAtLineArea) __builtin_trap();
  if (std::strpbrk(line, "\r\n") != nullptr) __builtin_trap();
  if (length == 0) __builtin_trap();  // runs of CR and LF never make an empty line
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace fsu::lte;
  at_buffer_clear();
  for_each_piece(data, size, 0, [](const std::uint8_t* piece, std::int32_t n) {
    std::size_t done = 0;
    const auto total = static_cast<std::size_t>(n);
    do {
      done += at_buffer_append(reinterpret_cast<const char*>(piece) + done, total - done);
      while (const char* line = at_buffer_take_line()) check(line);
      if (s_ATBuffer[kAtLineArea] != '\0') __builtin_trap();
    } while (done < total);
  });
  return 0;
}
