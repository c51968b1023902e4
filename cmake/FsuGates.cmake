# Build settings of the quality gates that are not plain compiler flags: the libFuzzer
# targets of fuzz/ and line coverage. Both apply to every target of the build they are on in.
option(FSU_BUILD_FUZZ "Build the libFuzzer targets of fuzz/ (clang, with FSU_SANITIZE=address)" OFF)
option(FSU_COVERAGE "Instrument every target for line coverage (gcc --coverage)" OFF)

if(FSU_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "FSU_BUILD_FUZZ needs clang: configure with CC=clang CXX=clang++")
  endif()
  if(NOT FSU_SANITIZE STREQUAL "address")
    message(FATAL_ERROR "FSU_BUILD_FUZZ needs FSU_SANITIZE=address: fuzzing without it misses faults")
  endif()
  # The code under test reports its edges and comparisons to libFuzzer; only the fuzz
  # targets themselves link libFuzzer's main.
  add_compile_options(-fsanitize=fuzzer-no-link)
  add_link_options(-fsanitize=fuzzer-no-link)
endif()

if(FSU_COVERAGE)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    message(FATAL_ERROR "FSU_COVERAGE is read with gcov: configure with gcc")
  endif()
  # The SDK's threads run the same code at once: counters updated atomically, or torn updates
  # leave counts (even negative ones) that gcov reports and gcovr refuses.
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
  # Programs that leave by _exit or by a signal write their counts first (platform/coverage.h).
  add_compile_definitions(FSU_COVERAGE_BUILD)
endif()
