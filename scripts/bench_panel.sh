#!/usr/bin/env bash
# Figures of the front panel (fsusim panel), each over one minute (or $1 seconds):
#  1. the simulator's CPU with an idle SDK application (bench/sdk_idle_cpu) on the board, without
#     the panel and with it serving one page that follows its event stream, and the share of the
#     panel's own threads (named panel-feed and panel-http) in it;
#  2. how long a change the SDK makes takes to show on the page: the run LED, from the SDK's
#     write of the GPIO value to the page's element changing in headless Chromium (median and
#     worst of every turn of the LED in the time).
# Release build in build-bench/, or the already configured build folder named by FSU_BENCH_BUILD.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
source scripts/bench_build.sh
bench_build fsusim sdk_idle_cpu

# CPU seconds (user + sys) of a process so far.
cpu() { awk -v hz="$(getconf CLK_TCK)" '{ sub(/^.*\) /, ""); printf "%.2f", ($12 + $13) / hz }' "/proc/$1/stat"; }
# CPU seconds of a process's threads whose name starts with "panel-".
panel_cpu() {
  local sum=0 task
  for task in /proc/"$1"/task/*; do
    [[ "$(cat "$task/comm" 2>/dev/null)" == panel-* ]] || continue
    sum="$(awk -v s="$sum" -v hz="$(getconf CLK_TCK)" '{ sub(/^.*\) /, ""); printf "%.2f", s + ($12 + $13) / hz }' "$task/stat")"
  done
  echo "$sum"
}
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

idle_cpu() {  # label, fsusim options...
  local label=$1
  shift
  "$build/fsusim" run "$@" --root "$work/$label" -- "$build/bench/sdk_idle_cpu" "$((seconds + 20))" \
    >/dev/null 2>"$work/$label.err" &
  local simulator=$! follower=""
  sleep 10  # start-up: the SDK's start, the first answers of the boards
  if [ "$label" = panel ]; then
    local address
    address="$(grep -o 'http://[^ ]*' "$work/$label.err")"
    curl -sN "${address%%/\?*}/events?token=${address##*=}" >/dev/null &
    follower=$!
    sleep 1
  fi
  local s0 s1 p0 p1
  s0="$(cpu "$simulator")" p0="$(panel_cpu "$simulator")"
  sleep "$seconds"
  s1="$(cpu "$simulator")" p1="$(panel_cpu "$simulator")"
  [ -z "$follower" ] || kill "$follower"
  wait "$simulator" || true
  awk -v a="$s0" -v b="$s1" -v c="$p0" -v d="$p1" -v t="$seconds" -v l="$label" 'BEGIN {
    printf "fsusim CPU, idle SDK, %s: %.2f s in %d s (%.2f%% of a core)", l, b - a, t, (b - a) * 100 / t
    if (l == "panel") printf ", of it the panel threads %.2f s (%.2f%% of a core)", d - c, (d - c) * 100 / t
    printf "\n" }'
}
idle_cpu no-panel
idle_cpu panel --panel

/usr/bin/python3 - "$build/fsusim" "$build/bench/sdk_idle_cpu" "$seconds" "$work/latency" <<'PY'
import shutil, statistics, sys, threading, time
sys.path.insert(0, "tests/sim")
import panel_browser_test as page

fsusim, app, seconds, root = sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4]
unit = page.Unit(fsusim, root, [], [app, str(seconds + 20)])
driver, profile = page.browser()
try:
    driver.get(unit.address)
    page.wait_for("the page", lambda: page.text_of(driver, "board-state") == "board up", 20)
    driver.execute_script("""
        window.ledChanges = [];
        const led = document.getElementById('led-run');
        new MutationObserver(() => window.ledChanges.push([performance.timeOrigin + performance.now(), led.dataset.state]))
            .observe(led, {attributes: true, attributeFilter: ['data-state']});""")
    # The SDK's writes of the run LED's GPIO value, timed by watching the file closely.
    writes, done = [], threading.Event()
    def watch():
        last = None
        while not done.is_set():
            try:
                value = open(f"{root}/sys/class/gpio/gpio1/value").read().strip()
            except OSError:
                value = last
            if value != last:
                writes.append((time.time() * 1000, "lit" if value == "0" else "dark"))
                last = value
            time.sleep(0.001)
    threading.Thread(target=watch, daemon=True).start()
    time.sleep(seconds)
    done.set()
    shown = driver.execute_script("return window.ledChanges")
finally:
    driver.quit()
    unit.stop()
    shutil.rmtree(profile, ignore_errors=True)
delays = []
for at, state in writes[1:]:
    later = [t for t, s in shown if s == state and t >= at - 5]
    if later:
        delays.append(later[0] - at)
delays.sort()
print(f"SDK change to page (run LED, {len(delays)} turns in {seconds} s): median {statistics.median(delays):.0f} ms, "
      f"90th percentile {delays[int(len(delays) * 0.9) - 1]:.0f} ms, worst {delays[-1]:.0f} ms")
PY
