#!/usr/bin/env bash
# The wall-clock figures the docs state, measured on the simulated board, each run N times (N=$1,
# default 3) and printed as the fastest, median and slowest run:
#  1. bench/sdk_timings: InitializeSDK, DialDial to the link up, SetPositionMode(1), the position
#     back after SetPositionMode(0), a changed input seen (docs/api.md);
#  2. InitializeSDK with a broken hardware clock (sim/rtc_fault), with the receiver sending its
#     time and with it silent (docs/api.md, docs/benchkit.md);
#  3. benchkit from its start to the menu's prompt (docs/benchkit.md);
#  4. with "clone": a fresh clone's `bash scripts/run.sh` to the menu's prompt, its build included
#     (the README).
# Release build in build-bench/, or the already configured build folder named by FSU_BENCH_BUILD.
#   bash scripts/bench_timings.sh [N] [clone]
set -euo pipefail
cd "$(dirname "$0")/.."
runs="${1:-3}"
source scripts/bench_build.sh
bench_build fsusim benchkit sdk_timings

# Lines "NAME SECONDS s" from every run -> one line per NAME: fastest, median, slowest.
summary() {
  python3 -c '
import re, statistics, sys
runs = {}
for line in sys.stdin:
    m = re.match(r"(.+) ([0-9.]+) s$", line.strip())
    if m:
        runs.setdefault(m.group(1), []).append(float(m.group(2)))
for name, v in sorted(runs.items()):
    print(f"{name:42} {min(v):6.2f} s  median {statistics.median(v):6.2f} s  slowest {max(v):6.2f} s  ({len(v)} runs)")
'
}

# Seconds from starting COMMAND... to the menu's prompt on its standard output.
to_prompt() {
  python3 - "$@" <<'PY'
import subprocess, sys, time
start = time.monotonic()
p = subprocess.Popen(sys.argv[1:], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
seen = b""
while b"\xe8\xbe\x93\xe5\x85\xa5\xe6\xb5\x8b\xe8\xaf\x95\xe9\xa1\xb9" not in seen:  # the prompt, 输入测试项
    chunk = p.stdout.read1(4096)
    if not chunk:
        sys.exit("the menu did not come")
    seen = seen[-64:] + chunk
print(f"{time.monotonic() - start:.2f}")
p.stdin.close()
p.wait()
PY
}

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
for _ in $(seq "$runs"); do
  "$build/fsusim" run -- "$build/bench/sdk_timings" 2>/dev/null | grep ' s$'
  for receiver in sending silent; do
    root="$work/rtc-$receiver"
    rm -rf "$root"
    mkdir -p "$root/sim" && touch "$root/sim/rtc_fault"
    ctl=()
    [ $receiver = silent ] && ctl=(--ctl 'gps silent')
    "$build/fsusim" run --root "$root" "${ctl[@]}" -- "$build/bench/sdk_timings" init 2>/dev/null |
      sed -n "s/^InitializeSDK \(.*\)/InitializeSDK, bad clock, receiver $receiver \1/p"
  done
  echo "benchkit to its menu $(to_prompt "$build/fsusim" run -- "$build/benchkit") s"
done | summary

if [ "${2:-}" = clone ]; then
  git clone -q . "$work/clone"
  echo "fresh clone: scripts/run.sh to the menu $(to_prompt bash "$work/clone/scripts/run.sh") s"
fi
