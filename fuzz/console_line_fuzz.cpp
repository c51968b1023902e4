// The console's line reader on typed input, into a buffer of exactly the size given (the console's
// own, or a small one from the first byte): lines stay terminated, numbers convert like strtol clamped to int.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "console/menu.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;  // fmemopen refuses an empty buffer
  const std::size_t line_size = data[0] % 2 == 0 ? fsu::console::kLineSize : 1 + data[0] % 16;
  auto input = std::make_unique<char[]>(size);
  std::copy(data, data + size, input.get());
  std::FILE* in = fmemopen(input.get(), size, "r");
  if (in == nullptr) return 0;
  auto line = std::make_unique<char[]>(line_size);
  for (int kept; (kept = fsu::console::read_console_line(in, line.get(), line_size)) >= 0;) {
    if (static_cast<std::size_t>(kept) >= line_size || line[kept] != '\0') __builtin_trap();
    const long long value = std::clamp<long long>(std::strtoll(line.get(), nullptr, 10), INT_MIN, INT_MAX);
    if (fsu::console::console_number(line.get()) != value) __builtin_trap();
  }
  std::fclose(in);
  return 0;
}
