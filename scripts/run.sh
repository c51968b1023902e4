#!/usr/bin/env bash
# Builds everything and starts benchkit (menu mode) on a freshly made simulated board.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
exec build/fsusim run -- build/benchkit "$@"
