#!/usr/bin/env bash
# Installs what building and testing need, when it is missing. Safe to run again.
# Arguments name test stages (what scripts/test.sh runs) or further Debian packages:
#   bash scripts/setup.sh asan armhf     the tools of those two stages
set -euo pipefail

need=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

have_cmd cmake || need+=(cmake)
have_cmd ninja || need+=(ninja-build)
have_cmd g++ || need+=(g++)
have_cmd zip || need+=(zip)
have_cmd dpkg-shlibdeps || need+=(dpkg-dev)  # the simulator package's dependencies
have_pkg googletest || [ -f /usr/src/googletest/CMakeLists.txt ] || need+=(googletest)
have_pkg libgtest-dev || need+=(libgtest-dev)
have_pkg libbenchmark-dev || need+=(libbenchmark-dev)
have_pkg nlohmann-json3-dev || need+=(nlohmann-json3-dev)  # tests and fuzz targets parse the SDK's JSON
have_pkg libyaml-cpp-dev || need+=(libyaml-cpp-dev)  # fsusim reads scenario files with it
have_pkg libcpp-httplib-dev || need+=(libcpp-httplib-dev)  # fsusim's front panel serves HTTP
have_cmd pkg-config || need+=(pkg-config)
extras=()
browser=()
for extra in "$@"; do
  case $extra in
    werror) browser=(chromium chromium-driver python3-selenium) ;;  # the panel's browser tests
    asan | tsan | fuzz) extras+=(clang libclang-rt-dev llvm) ;;  # llvm: llvm-symbolizer
    coverage) extras+=(gcovr) ;;
    armhf) extras+=(g++-arm-linux-gnueabihf qemu-user) ;;
    container) extras+=(podman mmdebstrap runc catatonit) ;;
    soak) extras+=(clang libclang-rt-dev llvm gnuplot-nox) ;;
    *) extras+=("$extra") ;;
  esac
done
for extra in "${extras[@]}"; do
  have_pkg "$extra" || [[ " ${need[*]} " == *" $extra "* ]] || need+=("$extra")
done

if [ ${#need[@]} -gt 0 ]; then
  echo "setup: installing ${need[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${need[@]}"
fi

# Without a browser everything else still builds and runs; the browser tests then fail, saying why.
missing=()
for package in "${browser[@]}"; do have_pkg "$package" || missing+=("$package"); done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  { $SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
      "${missing[@]}"; } || echo "setup: cannot install ${missing[*]}: the panel's browser tests will fail"
fi
