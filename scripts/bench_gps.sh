#!/usr/bin/env bash
# Figures of the positioning reader, Release build in build-bench/ (or FSU_BENCH_BUILD):
#  1. bench/nmea_reader_bench: one BSP_GPS_READ pass over the receiver's 1 Hz output, per sentence;
#  2. the CPU time of the whole SDK over a minute (or $1 seconds) on the simulated board, once with
#     the receiver sending its batch every second and once with it silent: the difference is what
#     a minute of receiver traffic costs (reader thread, parsing, the record, the log line).
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
source scripts/bench_build.sh
bench_build fsusim nmea_reader_bench sdk_idle_cpu

"$build/bench/nmea_reader_bench" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true 2>/dev/null |
  grep -E '_(mean|stddev) '

root="$(mktemp -d)"
"$build/fsusim" up --root "$root" >/dev/null &
board=$!
trap 'kill -TERM "$board" 2>/dev/null; wait "$board" 2>/dev/null; rm -rf "$root"' EXIT
for _ in $(seq 100); do [ -e "$root/sim/board.pid" ] && break; sleep 0.1; done
idle() { FSU_ROOT="$root" PATH="$root/bin:$PATH" "$build/bench/sdk_idle_cpu" "$seconds" 2>/dev/null | grep '^idle SDK'; }
echo "receiver sending:  $(idle)"
"$build/fsusim" ctl --root "$root" 'gps silent'
echo "receiver silent:   $(idle)"
