#!/usr/bin/env bash
# Whole-process figures of the board links on the simulated board, each over one minute (or $1
# seconds):
#  1. traffic both ways through Local/Uart/5, a channel of extension board 1, the channel and the
#     link both at 115200 baud, the far end played through a person's terminal;
#  2. the CPU time and peak memory of an idle SDK (InitializeSDK, then nothing) for each state
#     of the modem (scripts/bench_modem.sh), also with the modem's data link up, with the
#     commands the SDK ran and their CPU;
#  3. `benchkit web`: its CPU seconds (threads included), those of the shell commands it ran and
#     the simulator's over the minute after start-up, and its peak memory, from /proc.
# Release build in build-bench/, or the already configured build folder named by FSU_BENCH_BUILD.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
source scripts/bench_build.sh
bench_build fsusim benchkit uart_line_rate sdk_idle_cpu

"$build/fsusim" run --terminal 5 -- "$build/bench/uart_line_rate" "$seconds" 5 | grep -A5 '^Local/Uart/5 at'
# The idle SDK with the modem healthy, silent, streaming and unplugged.
FSU_BENCH_BUILD="$build" bash scripts/bench_modem.sh "$seconds" || true
# The same with the simulated modem registered and its data link up.
"$build/fsusim" run -- "$build/bench/sdk_idle_cpu" "$seconds" dial | grep -E '^(link|idle SDK|commands)'

# CPU seconds (user + sys) of a process so far.
cpu() { awk -v hz="$(getconf CLK_TCK)" '{ sub(/^.*\) /, ""); printf "%.2f", ($12 + $13) / hz }' "/proc/$1/stat"; }
# CPU seconds of the children a process has waited for (its shell commands).
children() { awk -v hz="$(getconf CLK_TCK)" '{ sub(/^.*\) /, ""); printf "%.2f", ($14 + $15) / hz }' "/proc/$1/stat"; }
# A board of its own in a temporary root, which fsusim removes (with the console's segment).
"$build/fsusim" run -- "$build/benchkit" web >/dev/null 2>&1 &
simulator=$!
benchkit=""
for _ in $(seq 100); do
  benchkit="$(pgrep -P "$simulator" -x benchkit || true)"
  [ -n "$benchkit" ] && break
  sleep 0.1
done
[ -n "$benchkit" ] || { echo "benchkit web did not start" >&2; exit 1; }
sleep 10  # start-up: the SDK's 2 s, the console's 2 s and 3 s, the first loopback rounds
bk0="$(cpu "$benchkit")" ch0="$(children "$benchkit")" sim0="$(cpu "$simulator")"
sleep "$seconds"
bk1="$(cpu "$benchkit")" ch1="$(children "$benchkit")" sim1="$(cpu "$simulator")"
peak="$(awk '/^VmHWM/ { print $2, $3 }' "/proc/$benchkit/status")"
kill -TERM "$benchkit"
wait "$simulator" || true
awk -v b0="$bk0" -v b1="$bk1" -v c0="$ch0" -v c1="$ch1" -v s0="$sim0" -v s1="$sim1" -v t="$seconds" -v p="$peak" 'BEGIN {
  b = b1 - b0; c = c1 - c0; s = s1 - s0
  printf "benchkit web on fsusim for %d s: benchkit CPU %.2f s (%.2f s a minute), its shell commands %.2f s ", t, b, b * 60 / t, c
  printf "(%.2f s a minute), peak memory %s; fsusim CPU %.2f s (%.2f s a minute)\n", c * 60 / t, p, s, s * 60 / t }'
