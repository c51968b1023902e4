#!/usr/bin/env bash
# Builds everything and runs every test under each quality gate; CI runs exactly this.
#   bash scripts/test.sh               every stage, in the order below
#   bash scripts/test.sh asan tsan     the named stages only
# Stages, each in a build folder of its own:
#   werror    gcc, warnings as errors, the whole suite with the front      build-ci/
#             panel's browser tests (headless Chromium), then the build
#             installed and used by C programs (scripts/check_install.sh),
#             and its Debian packages installed and used (scripts/packages.sh)
#   container the unit's image from build-ci's Debian packages, three units of it
#             from deploy/fleet.yaml under podman (scripts/container.sh)
#   asan      clang, ASan+UBSan halting on the first report, the suite  build-asan/
#   tsan      clang, ThreadSanitizer, the suite                         build-tsan/
#   fuzz      every fuzz target for 30 s on its seeds (scripts/fuzz.sh) build-fuzz/
#   coverage  gcc --coverage, the suite, line and branch coverage per folder build-cov/
#   armhf     cross build for the board and its checks of folded        build-armhf/
#             thread-local offsets; unit, module and the serial, board,
#             web, modem and receiver e2e tests under qemu-arm, on a
#             native fsusim; its Debian packages' architecture and files build-armhf-host/
#   soak      3 minutes of the soak and fault campaign (scripts/soak.sh) on the release build
#             and on the ASan+UBSan build                                build-soak[-asan]/
# Every stage runs even when an earlier one failed; the run fails when any stage failed.
set -uo pipefail
cd "$(dirname "$0")/.."

all_stages=(werror container asan tsan fuzz coverage armhf soak)
stages=("$@")
[ ${#stages[@]} -gt 0 ] || stages=("${all_stages[@]}")
for stage in "${stages[@]}"; do
  [[ " ${all_stages[*]} " == *" $stage "* ]] || { echo "test.sh: unknown stage $stage (${all_stages[*]})"; exit 2; }
done
bash scripts/setup.sh "${stages[@]}" || exit 1

# Two jobs at once by default. The werror stage runs six: its tests spend most of their time
# waiting on simulated devices and clocks (the whole suite takes about 100 CPU-s for 500 s of
# summed test time), so six at once keep the two cores busy without starving a test.
suite() {  # build folder, further ctest arguments
  local dir=$1
  shift
  ctest --test-dir "$dir" -j"${FSU_TEST_JOBS:-2}" --output-on-failure --no-tests=error --timeout 300 "$@"
}

# A sanitized build of everything and the whole suite. Every process's reports (also those of
# benchkit and fsusim started by the tests) go to files, so a report in a child process that
# its test did not notice still fails the stage; the first few are printed.
sanitized_suite() {  # address|thread, build folder
  local kind=$1 dir=$2
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=clang \
    -DCMAKE_CXX_COMPILER=clang++ -DFSU_SANITIZE="$kind" -DFSU_WERROR=ON -DFSU_BUILD_BENCH=OFF \
    >/dev/null || return 1
  cmake --build "$dir" -j2 || return 1
  local reports=$PWD/$dir/sanitizer-reports rc=0
  rm -rf "$reports"
  mkdir -p "$reports"
  local run=()
  # ThreadSanitizer's memory layout needs the address randomisation of older kernels.
  if [ "$kind" = thread ] && [ "$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)" -gt 28 ]; then
    run=(setarch "$(uname -m)" -R)
  fi
  ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:log_path=$reports/asan \
    UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:log_path=$reports/ubsan \
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:log_path=$reports/tsan \
    "${run[@]}" ctest --test-dir "$dir" -j2 --output-on-failure --no-tests=error --timeout 300 -LE browser || rc=1
  local files=("$reports"/*)
  if [ -e "${files[0]}" ]; then
    echo "${#files[@]} sanitizer report(s) in $reports; the first ones:"
    for report in "${files[@]:0:3}"; do
      echo "---- $report"
      head -n 150 "$report"
    done
    rc=1
  fi
  return $rc
}

stage_werror() {
  cmake -S . -B build-ci -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFSU_WERROR=ON >/dev/null &&
    cmake --build build-ci -j2 &&
    FSU_TEST_JOBS=6 suite build-ci &&
    bash scripts/check_install.sh build-ci &&
    bash scripts/packages.sh build-ci
}

# The unit's image from werror's packages, and three units of it from the Kubernetes manifests.
stage_container() { bash scripts/container.sh test build-ci; }

stage_asan() { sanitized_suite address build-asan; }

stage_tsan() { sanitized_suite thread build-tsan; }

stage_fuzz() { bash scripts/fuzz.sh; }

stage_coverage() {
  cmake -S . -B build-cov -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_C_COMPILER=gcc \
    -DCMAKE_CXX_COMPILER=g++ -DFSU_COVERAGE=ON -DFSU_BUILD_BENCH=OFF >/dev/null &&
    cmake --build build-cov -j2 || return 1
  find build-cov -name '*.gcda' -delete
  suite build-cov -LE browser || return 1
  # gcovr may hang on a report it cannot parse instead of exiting: bounded, so the stage fails.
  timeout 600 gcovr --root . --object-directory build-cov -j 2 --exclude '(tests|fuzz|bench|examples)/' \
    --json-summary build-cov/coverage.json &&
    python3 scripts/coverage_table.py build-cov/coverage.json
}

# The board's build: its unit and module suites under qemu-arm, and on a native fsusim (it only
# stands in for the board) the end-to-end tests of the serial paths, the extension and environment
# boards, the web request files, the modem and the receiver. Left out, as they test no more of the
# board's build than these and wait out long timeouts: benchkit's menu, the watchdog's reboot and
# the modem's recovery.
armhf_e2e='^(SerialOnSimulator|BoardsOnSimulator|WebPagesOnSimulator|ModemOnSimulator|PositioningOnSimulator)\.'
stage_armhf() {
  cmake -S . -B build-armhf-host -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFSU_WERROR=ON \
    -DFSU_BUILD_TESTS=OFF -DFSU_BUILD_BENCH=OFF >/dev/null &&
    cmake --build build-armhf-host -j2 --target fsusim &&
    cmake -S . -B build-armhf -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake -DFSU_WERROR=ON -DFSU_BUILD_BENCH=OFF \
      -DFSU_TEST_HOST_FSUSIM="$PWD/build-armhf-host/fsusim" >/dev/null &&
    cmake --build build-armhf -j2 &&
    arm-linux-gnueabihf-readelf -h build-armhf/benchkit | grep -E 'Class|Machine|Flags' &&
    find build-armhf -name '*.o' -exec python3 scripts/check_tls_offsets.py {} + &&
    suite build-armhf -L 'unit|module' &&
    suite build-armhf -L e2e -R "$armhf_e2e" &&
    bash scripts/packages.sh build-armhf
}

# Both runs even when the first fails, so that one log shows both.
stage_soak() {
  local rc=0
  bash scripts/soak.sh 3 || rc=1
  bash scripts/soak.sh --asan 3 || rc=1
  return $rc
}

summary=()
failed=0
for stage in "${stages[@]}"; do
  echo
  echo "==== $stage: start $(date '+%F %T')"
  start=$(date +%s)
  ("stage_$stage")
  rc=$?
  took=$(($(date +%s) - start))
  result=ok
  [ $rc -eq 0 ] || { result=FAILED; failed=$((failed + 1)); }
  line=$(printf '%-9s %-6s %3dm%02ds' "$stage" "$result" $((took / 60)) $((took % 60)))
  echo "==== $stage: $result at $(date '+%F %T') ($((took / 60))m$((took % 60))s)"
  summary+=("$line")
done

echo
echo "==== summary"
printf '%s\n' "${summary[@]}"
echo "stages: $((${#stages[@]} - failed)) passed, $failed failed"
[ $failed -eq 0 ]
