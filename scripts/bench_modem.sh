#!/usr/bin/env bash
# The CPU time of an idle SDK (bench/sdk_idle_cpu: InitializeSDK, then nothing for a minute, or
# $1 seconds) on the simulated board, once for each state of the modem: healthy (answering its
# queries), silent (its AT port takes commands and answers nothing), streaming (its AT port sends
# an endless line of binary noise, XOFF bytes among it) and unplugged. Each must stay at or under
# 0.3 CPU seconds a minute. Release build in build-bench/, or the build folder named by
# FSU_BENCH_BUILD.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-60}"
source scripts/bench_build.sh
bench_build fsusim sdk_idle_cpu

status=0
for state in healthy silent streaming unplugged; do
  case $state in
    healthy) ctl=() ;;
    silent) ctl=(--ctl 'modem silent on') ;;
    streaming) ctl=(--ctl 'modem stream on') ;;
    unplugged) ctl=(--ctl 'modem unplug') ;;
  esac
  line="$("$build/fsusim" run "${ctl[@]}" -- "$build/bench/sdk_idle_cpu" "$seconds" 2>/dev/null | grep '^idle SDK')"
  per_minute="$(sed -E 's/.*\(([0-9.]+) s a minute.*/\1/' <<<"$line")"
  verdict="$(awk -v m="$per_minute" 'BEGIN { print (m <= 0.3 ? "ok" : "OVER 0.3") }')"
  [ "$verdict" = ok ] || status=1
  printf 'modem %-9s %s [%s]\n' "$state:" "$line" "$verdict"
done
exit $status
