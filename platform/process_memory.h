// Process-wide memory settings that the SDK makes once, at start-up.
#pragma once

namespace fsu::platform {

// Bounds the C library's malloc arenas to two (the main one and one more) unless the
// environment already chose a bound (MALLOC_ARENA_MAX, or arena_max in GLIBC_TUNABLES).
// Without a bound, glibc opens a new arena, 12-16 kB resident and 132 kB reserved, each time two
// of the SDK's thirteen threads happen to allocate at the same moment, up to several per core:
// the resident size of a unit then creeps up in 16 kB steps for hours. The SDK's threads
// allocate seldom and little, so one shared arena costs them nothing measurable.
// A C library without arenas (or without the setting) is left as it is.
void bound_malloc_arenas();

}  // namespace fsu::platform
