#include "platform/process_memory.h"

#include <cstdlib>
#include <cstring>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace fsu::platform {

void bound_malloc_arenas() {
#if defined(__GLIBC__) && defined(M_ARENA_MAX)
  if (std::getenv("MALLOC_ARENA_MAX") != nullptr) return;
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables != nullptr && std::strstr(tunables, "arena_max") != nullptr) return;
  mallopt(M_ARENA_MAX, 2);
#endif
}

}  // namespace fsu::platform
