#!/usr/bin/env bash
# The soak and fault campaign: one simulated unit under a realistic load for MINUTES (60 unless
# given) while faults are applied against it; a CSV every 10 s, then a summary, a picture and
# the pass rules (the exit status says whether they held).
#   bash scripts/soak.sh [--asan] [MINUTES]
# --asan runs the ASan+UBSan build (build-soak-asan/) instead of the release build (build-soak/).
# The results go to build-soak[-asan]/runs/<date-time>/: soak.csv, summary.md, soak.png,
# events.log (what the application saw), unit.log (what the unit printed).
# The /tmp full fault needs a /tmp of the unit's own: as root (or where user namespaces are
# allowed) the run takes place in a private mount namespace with a 16 MiB tmpfs on the unit's
# tmp/; where none can be made, that fault is left out and the summary says so.
set -euo pipefail
cd "$(dirname "$0")/.."

kind=release
if [ "${1:-}" = "--asan" ]; then
  kind=asan
  shift
fi
minutes="${1:-60}"

if [ -z "${SOAK_NAMESPACE:-}" ]; then
  if [ "$kind" = asan ]; then bash scripts/setup.sh asan gnuplot-nox; else bash scripts/setup.sh gnuplot-nox; fi
  if [ "$kind" = asan ]; then
    build=build-soak-asan
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
      -DCMAKE_CXX_COMPILER=clang++ -DFSU_SANITIZE=address -DFSU_WERROR=ON -DFSU_BUILD_TESTS=OFF >/dev/null
  else
    build=build-soak
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFSU_WERROR=ON \
      -DFSU_BUILD_TESTS=OFF >/dev/null
  fi
  cmake --build "$build" -j2 --target fsusim soak_unit
  out="$PWD/$build/runs/$(date +%Y%m%d-%H%M%S)"
  mkdir -p "$out/root/tmp"
  export SOAK_NAMESPACE=1 SOAK_KIND=$kind SOAK_BUILD=$build SOAK_OUT=$out
  # A private mount namespace, so that the unit's tmpfs is seen by nobody else and goes away
  # with the run; as root directly, otherwise as the root of a user namespace of our own.
  for flags in "-m" "-U -r -m"; do
    # shellcheck disable=SC2086
    if unshare $flags --propagation private true 2>/dev/null; then
      # shellcheck disable=SC2086
      exec unshare $flags --propagation private bash "$0" "$minutes"
    fi
  done
  SOAK_NAMESPACE=none exec bash "$0" "$minutes"
fi

tmp_full=no
if [ "$SOAK_NAMESPACE" = 1 ] && mount -t tmpfs -o size=16m,mode=1777 soak-tmp "$SOAK_OUT/root/tmp"; then
  tmp_full=yes
fi
# The unit's parts beyond the serial boards that the campaign loads and faults.
features=(--web --modem --gps)
rc=0
python3 scripts/soak.py run "${features[@]}" --minutes "$minutes" --root "$SOAK_OUT/root" --out "$SOAK_OUT" \
  --fsusim "$SOAK_BUILD/fsusim" --app "$SOAK_BUILD/bench/soak_unit" --build-kind "$SOAK_KIND" \
  --tmp-full "$tmp_full" || rc=$?
[ "$tmp_full" = no ] || umount "$SOAK_OUT/root/tmp" || true
echo "soak: summary, picture and CSV in $SOAK_OUT"
exit $rc
