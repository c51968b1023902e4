#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ (clang, ASan+UBSan) in build-fuzz/ and runs them on
# their seed corpora.
#   bash scripts/fuzz.sh                           every target for 30 s each (the CI stage)
#   bash scripts/fuzz.sh uci_reader_fuzz 3600      one target for an hour
# A crash, a leak, a slow input (over 10 s) or a memory blow-up fails the run: the input that
# did it is printed as a hex dump and kept under build-fuzz/artifacts/<target>/. Inputs that
# found new paths collect in build-fuzz/corpus/<target>/ (copy good ones to fuzz/corpus/).
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh fuzz
target=${1:-}
seconds=${2:-30}
build=build-fuzz

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DFSU_BUILD_FUZZ=ON -DFSU_SANITIZE=address -DFSU_WERROR=ON \
  -DFSU_BUILD_TESTS=OFF -DFSU_BUILD_BENCH=OFF >/dev/null
cmake --build "$build" -j2 --target fuzz_targets

if [ -n "$target" ]; then
  targets=("$target")
else
  targets=()
  for src in fuzz/*_fuzz.cpp; do targets+=("$(basename "$src" .cpp)"); done
fi

export ASAN_OPTIONS=halt_on_error=1:detect_leaks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
failed=()
for name in "${targets[@]}"; do
  exe=$build/fuzz/$name
  [ -x "$exe" ] || { echo "fuzz: no target $name (fuzz/${name}.cpp)"; exit 2; }
  corpus=$build/corpus/$name
  artifacts=$build/artifacts/$name
  work=$PWD/$build/tmp/$name
  log=$build/$name.log
  rm -rf "$artifacts" "$work"
  mkdir -p "$corpus" "$artifacts" "$work"
  echo "fuzz: $name for ${seconds}s ($(date +%T))"
  if TMPDIR=$work "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=16384 \
      -print_final_stats=1 -artifact_prefix="$artifacts/" "$corpus" "fuzz/corpus/$name" >"$log" 2>&1; then
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rss=$(sed -n 's/^stat::peak_rss_mb: *//p' "$log")
    echo "fuzz: $name ok: $runs inputs run, peak ${rss} MB, $(find "$corpus" -type f | wc -l) inputs in its corpus"
  else
    failed+=("$name")
    echo "fuzz: $name FAILED; the end of its log ($log):"
    tail -n 80 "$log"
    for input in "$artifacts"/*; do
      [ -f "$input" ] || continue
      echo "fuzz: input that failed, $input ($(stat -c %s "$input") bytes; first 4 KiB shown):"
      head -c 4096 "$input" | od -A x -t x1z -v
    done
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: failed: ${failed[*]}"
  exit 1
fi
