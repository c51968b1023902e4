#!/usr/bin/env bash
# Builds what the menu needs (the SDK library, benchkit and fsusim) and starts benchkit (menu
# mode) on a freshly made simulated board; optimised without debug information, which is the
# quickest to build. Tests, benchmarks and examples are left to
# scripts/test.sh and `cmake --build build`.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DFSU_BUILD_TESTS=OFF -DFSU_BUILD_BENCH=OFF >/dev/null
cmake --build build -j"$(nproc)" --target benchkit fsusim
exec build/fsusim run -- build/benchkit "$@"
