#!/usr/bin/env bash
# One minute (or $1 seconds) of traffic through Local/Uart/1 at 115200 baud on the simulated
# board, the application reading every 100 ms. Release build in build-bench/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DFSU_BUILD_TESTS=OFF >/dev/null
cmake --build build-bench -j2 --target fsusim uart_line_rate
build-bench/fsusim run --terminal 1 -- build-bench/bench/uart_line_rate "${1:-60}" | grep -A5 '^Local/Uart/1 at'
