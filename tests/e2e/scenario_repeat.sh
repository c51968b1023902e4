#!/usr/bin/env bash
# The same scenario passes 20 times in a row while both cores are kept busy by two endless
# loops: a scenario run holds on a loaded CI machine.
#   scenario_repeat.sh FSUSIM SCENARIO.yaml REPORT.xml APP [ARG...]
set -u
fsusim=$1 scenario=$2 report=$3
shift 3
busy=()
for _ in 1 2; do (while :; do :; done) & busy+=($!); done
trap 'kill "${busy[@]}"' EXIT
runs=()
for _ in $(seq 20); do runs+=("$scenario"); done
start=$(date +%s)
"$fsusim" test --junit "$report" "${runs[@]}" -- "$@"
rc=$?
echo "scenario_repeat: 20 runs with both cores busy in $(($(date +%s) - start)) s, exit status $rc"
[ "$rc" -eq 0 ] && [ "$(grep -c '<testcase ' "$report")" -eq 20 ] && ! grep -q '<failure' "$report"
