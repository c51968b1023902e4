// A result buffer that each thread has for itself: the static texts that calls such as
// BSP_ReadPar, Read_A_Str and sdkuci_get_ram return.
//
// Declare it `thread_local` and reach the bytes only through text(). The address comes out of
// an empty asm statement, so the compiler cannot fold an offset into the buffer (`buf - 1`,
// `buf + n`) into the thread-local relocation of the buffer itself. The armhf cross assembler
// encodes such a folded `sym(tlsldo)+n` wrongly (it adds the symbol's place in the thread-local
// section once more), so every access would land that far past the buffer. With text() the
// relocation names the buffer alone and the offset is added at run time. CI checks the armhf
// objects for folded offsets (scripts/check_tls_offsets.py).
#pragma once

#include <cstddef>

namespace fsu::support {

template <std::size_t N>
class ThreadBuffer {
 public:
  char (&text())[N] {
    char(*bytes)[N] = &bytes_;
    asm("" : "+r"(bytes));
    return *bytes;
  }

 private:
  char bytes_[N];
};

}  // namespace fsu::support
