// The console's line reader and number conversion on arbitrary typed input: every line is
// read into a buffer of exactly the size given (the console's own, or a small one taken from
// the first input byte), must stay terminated, and converts like strtol clamped to int.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "console/menu.h"

namespace {

int clamped_strtol(const char* line) {
  const long long value = std::strtoll(line, nullptr, 10);
  return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size == 0) return 0;  // fmemopen refuses an empty buffer
  const std::size_t line_size = data[0] % 2 == 0 ? fsu::console::kLineSize : 1 + data[0] % 16;

  auto input = std::make_unique<char[]>(size);
  std::copy(data, data + size, input.get());
  std::FILE* in = fmemopen(input.get(), size, "r");
  if (in == nullptr) return 0;

  auto line = std::make_unique<char[]>(line_size);
  for (;;) {
    const int kept = fsu::console::read_console_line(in, line.get(), line_size);
    if (kept < 0) break;
    if (static_cast<std::size_t>(kept) >= line_size || line[kept] != '\0') __builtin_trap();
    if (fsu::console::console_number(line.get()) != clamped_strtol(line.get())) __builtin_trap();
  }
  std::fclose(in);
  return 0;
}
