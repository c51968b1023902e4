#!/usr/bin/env bash
# Installs a build into a temporary prefix and uses it as an application developer would:
#   - the shared library exports exactly the calls that fsusdk.h declares (as gcc reads them);
#   - pkg-config's version is the header's;
#   - the installed examples build as a C-only CMake project (find_package, the static
#     library) and with their Makefiles (pkg-config, the shared library);
#   - uart_echo, built each way, runs on the installed fsusim without LD_LIBRARY_PATH.
#     bash scripts/check_install.sh build-ci
set -euo pipefail
build=${1:?usage: check_install.sh BUILD_DIR}
work=$(mktemp -d "${TMPDIR:-/tmp}/fsu-install.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "check_install: $*" >&2; exit 1; }

prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null
header=$prefix/include/fsusdk.h
library=$(find "$prefix" -name libfsusdk.so -print -quit)
pcdir=$(dirname "$(find "$prefix" -name fsusdk.pc -print -quit)")
examples=$(find "$prefix" -type d -path '*/doc/fsusdk/examples' -print -quit)
[ -n "$library" ] && [ -n "$examples" ] && [ -f "$header" ] || fail "the install lacks the library, header or examples"
[ -f "$(dirname "$examples")/api.md" ] || fail "the install lacks docs/api.md"

gcc -fsyntax-only -aux-info "$work/declarations" -x c "$header"
grep -F "$header:" "$work/declarations" | sed -E 's|^/\*[^*]*\*/ ||; s/ \(.*//; s/.*[ *]//' | sort >"$work/declared"
nm -D --defined-only "$library" | awk '{print $NF}' | sort >"$work/exported"
diff -u "$work/declared" "$work/exported" >"$work/exports.diff" || {
  cat "$work/exports.diff"
  fail "libfsusdk.so exports other symbols than the calls of fsusdk.h (- declared only, + exported only)"
}
echo "check_install: libfsusdk.so exports the $(wc -l <"$work/declared") calls of fsusdk.h and nothing else"

header_version=$(sed -n 's/^#define FSUSDK_VERSION "\(.*\)"/\1/p' "$header")
[ "$(PKG_CONFIG_PATH=$pcdir pkg-config --modversion fsusdk)" = "$header_version" ] ||
  fail "pkg-config's version is not the header's $header_version"

cmake -S "$examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
! grep -q '^CMAKE_CXX_COMPILER:' "$work/cmake/CMakeCache.txt" || fail "the examples' CMake project uses C++"
cmake --build "$work/cmake" >/dev/null || fail "the examples do not build with find_package(fsusdk)"

cp -r "$examples" "$work/make"
PKG_CONFIG_PATH=$pcdir make -s -C "$work/make" CC=gcc >/dev/null || fail "the examples do not build with pkg-config"
readelf -d "$work/make/uart_echo/uart_echo" | grep -q 'NEEDED.*libfsusdk\.so' ||
  fail "the pkg-config build did not link the shared library"

for way in cmake make; do
  out=$(env -u LD_LIBRARY_PATH "$prefix/bin/fsusim" run -- "$work/$way/uart_echo/uart_echo" 2>&1) ||
    fail "uart_echo built with $way failed on fsusim: $out"
  grep -q 'received 25 bytes' <<<"$out" || fail "uart_echo built with $way: $out"
done
echo "check_install: the examples build as C programs with find_package and with pkg-config; uart_echo runs on fsusim"

[ "$(env -u FSU_ROOT "$prefix/bin/fsuctl" version)" = "SE-$header_version" ] || fail "the installed fsuctl does not give the version"
echo "check_install: fsuctl is installed beside benchkit"
