#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
jobs=$(nproc)

stage() { echo; echo "==== $1 ($(date +%T))"; }

stage "build (-Werror)"
cmake -S . -B build-ci -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFSU_WERROR=ON >/dev/null
cmake --build build-ci -j"$jobs"

stage "test suite"
ctest --test-dir build-ci -j"$jobs" --output-on-failure --timeout 300

stage "done"
