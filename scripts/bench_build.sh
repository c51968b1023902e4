# Sourced by the bench scripts: `bench_build TARGET...` builds the targets in the Release build
# folder build-bench/ (configured here, tests off), or in the already configured folder named by
# FSU_BENCH_BUILD, and leaves that folder in $build.
bench_build() {
  build="${FSU_BENCH_BUILD:-}"
  if [ -z "$build" ]; then
    build=build-bench
    bash scripts/setup.sh
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DFSU_BUILD_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" -j2 --target "$@" >/dev/null
}
