#!/usr/bin/env bash
# What an idle unit costs, with N units side by side (default 1, 10 and 50): each unit is
# `fsusim run --root DIR/unit-K -- benchkit web`, started one after another. After they settle,
# over one minute (or FSU_BENCH_SECONDS): CPU-s per minute per unit of the simulator (all its
# processes), of the application, and of the programs the application ran (counted when it
# reaped them), resident memory per unit, the share of the machine the units took, and how
# long each unit took to answer a web request (`fsusim web read-aidi`; the SDK answers once a
# second, so a unit within 2 s answers within its period). Everything is stopped and removed
# at the end. Release build in build-bench/, or the already configured folder FSU_BENCH_BUILD.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${FSU_BENCH_SECONDS:-60}"
settle="${FSU_BENCH_SETTLE:-20}"
counts=("$@")
[ ${#counts[@]} -gt 0 ] || counts=(1 10 50)
source scripts/bench_build.sh
bench_build fsusim benchkit
build="$(cd "$build" && pwd)"
hz="$(getconf CLK_TCK)"
cores="$(nproc)"

work="$(mktemp -d /tmp/fsu-bench-fleet.XXXXXX)"
units=()
stop_all() {
  local pid
  for pid in "${units[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${units[@]}"; do wait "$pid" 2>/dev/null || true; done
  units=()
}
trap 'stop_all; rm -rf "$work"' EXIT

# "self children rss_kb" of a process: its CPU seconds, those of the children it reaped, its RSS.
sample() {
  awk -v hz="$hz" '{ sub(/^.*\) /, ""); printf "%.2f %.2f %d\n", ($12 + $13) / hz, ($14 + $15) / hz, $22 * 4 }' \
    "/proc/$1/stat" 2>/dev/null || echo "0 0 0"
}
# CPU seconds of the whole machine (all cores, busy time) so far.
machine_busy() { awk -v hz="$hz" '/^cpu / { printf "%.2f", ($2 + $3 + $4 + $7 + $8) / hz }' /proc/stat; }

# The simulator's processes (fsusim run and its guard) and the application of the unit whose
# fsusim run is $1, as "sim_pids app_pid".
unit_processes() {
  local sims="$1" app="" child
  for child in $(pgrep -P "$1" || true); do
    case "$(cat "/proc/$child/comm" 2>/dev/null)" in
      benchkit) app="$child" ;;
      *) sims+=",$child" ;;
    esac
  done
  echo "$sims $app"
}

measure() {  # count
  local n=$1 k
  for ((k = 0; k < n; ++k)); do
    "$build/fsusim" run --root "$work/unit-$k" -- "$build/benchkit" web >/dev/null 2>"$work/unit-$k.err" &
    units+=($!)
    sleep 0.3
  done
  sleep "$settle"
  local sims=() apps=()
  for ((k = 0; k < n; ++k)); do
    read -r s a <<<"$(unit_processes "${units[$k]}")"
    [ -n "$a" ] || { echo "unit $k has no application:" >&2; cat "$work/unit-$k.err" >&2; exit 1; }
    sims+=("$s") apps+=("$a")
  done
  snapshot() {  # sim_self sim_children app_self app_children rss_kb, summed over the units
    local s p
    for ((k = 0; k < n; ++k)); do
      for p in ${sims[$k]//,/ }; do sample "$p" | awk '{ print "sim", $0 }'; done
      sample "${apps[$k]}" | awk '{ print "app", $0 }'
    done | awk '{ if ($1 == "sim") { ss += $2; sc += $3 } else { as += $2; ac += $3 } r += $4 }
                END { printf "%.2f %.2f %.2f %.2f %d\n", ss, sc, as, ac, r }'
  }
  local before after m0 m1 t0 t1
  before=($(snapshot)) m0="$(machine_busy)" t0="$(date +%s.%N)"
  sleep "$seconds"
  after=($(snapshot)) m1="$(machine_busy)" t1="$(date +%s.%N)"
  # One web request to each unit, one unit after another, timed.
  local answered=0 worst=0 took
  for ((k = 0; k < n; ++k)); do
    local w0 w1
    w0="$(date +%s.%N)"
    if "$build/fsusim" web --root "$work/unit-$k" read-aidi >/dev/null 2>&1; then
      w1="$(date +%s.%N)"
      took="$(awk -v a="$w0" -v b="$w1" 'BEGIN { printf "%.2f", b - a }')"
      awk -v t="$took" 'BEGIN { exit !(t <= 2.0) }' && answered=$((answered + 1))
      worst="$(awk -v a="$worst" -v b="$took" 'BEGIN { print (b > a ? b : a) }')"
    else
      worst=fail
    fi
  done
  stop_all
  awk -v n="$n" -v t="$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')" -v c="$cores" \
      -v ss="$(awk -v a="${before[0]}" -v b="${after[0]}" 'BEGIN { print b - a }')" \
      -v sc="$(awk -v a="${before[1]}" -v b="${after[1]}" 'BEGIN { print b - a }')" \
      -v as="$(awk -v a="${before[2]}" -v b="${after[2]}" 'BEGIN { print b - a }')" \
      -v ac="$(awk -v a="${before[3]}" -v b="${after[3]}" 'BEGIN { print b - a }')" \
      -v rss="${after[4]}" -v busy="$(awk -v a="$m0" -v b="$m1" 'BEGIN { print b - a }')" \
      -v answered="$answered" -v worst="$worst" 'BEGIN {
    per = 60 / t / n
    total = (ss + sc + as + ac) / t
    printf "%5d %8.2f %8.2f %8.2f %8.2f %8.1f %7.1f%% %7.1f%% %5d/%-3d %6s\n", n, ss * per, as * per, (ac + sc) * per,
           (ss + sc + as + ac) * per, rss / n / 1024, total * 100 / c, busy / t * 100 / c, answered, n, worst
  }'
}

printf "CPU-s per minute per unit, RSS per unit, over %d s; %d cores; load average before: %s\n" \
  "$seconds" "$cores" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf "%5s %8s %8s %8s %8s %8s %8s %8s %9s %6s\n" units fsusim app tools total "RSS MB" units% machine% "web<=2s" worst
for n in "${counts[@]}"; do measure "$n"; done
