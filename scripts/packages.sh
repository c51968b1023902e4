#!/usr/bin/env bash
# Makes the Debian packages of a build and checks them as a unit's image or a developer would
# take them:
#   bash scripts/packages.sh build-ci       amd64: installs the packages into an empty folder,
#                                           builds an example against them (CMake package and
#                                           pkg-config) and runs it on the packaged fsusim
#   bash scripts/packages.sh build-armhf    armhf: the packages' architecture, the programs'
#                                           processor and the files' places
# The packages land in BUILD/packages/.
set -euo pipefail
build=${1:?usage: packages.sh BUILD_DIR}
work=$(mktemp -d "${TMPDIR:-/tmp}/fsu-packages.XXXXXX")
trap 'rm -rf "$work"' EXIT
fail() { echo "packages: $*" >&2; exit 1; }

# The libraries go to Debian's multiarch folder of the build's compiler (GNUInstallDirs finds
# it by itself only for a native build).
triple=$(sed -n 's/^set(CMAKE_CXX_LIBRARY_ARCHITECTURE "\(.*\)")$/\1/p' "$build"/CMakeFiles/*/CMakeCXXCompiler.cmake | head -1)
[ -n "$triple" ] || fail "$build: no multiarch name for its compiler"
cmake -S . -B "$build" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$triple" >/dev/null
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB -B "$PWD/packages" >/dev/null) || fail "cpack failed in $build"
rm -rf "$build/packages/_CPack_Packages"

arch=$(sed -n 's/^CPACK_DEBIAN_PACKAGE_ARCHITECTURE:.*=//p' "$build/CMakeCache.txt")
arch=${arch:-$(grep -o 'set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE "[^"]*"' "$build/CPackConfig.cmake" | cut -d'"' -f2)}
case $arch in
  amd64) machine='X86-64' ;;
  armhf) machine='ARM' ;;
  *) fail "no checks for architecture '$arch'" ;;
esac

root=$work/root
mkdir -p "$root"
for package in libfsusdk1 libfsusdk-dev fsu-tools; do
  deb=$(find "$build/packages" -name "${package}_*_${arch}.deb" -print -quit)
  [ -n "$deb" ] || fail "no $package package for $arch in $build/packages"
  [ "$(dpkg-deb -f "$deb" Architecture)" = "$arch" ] || fail "$deb is not for $arch"
  dpkg-deb -x "$deb" "$root"
  echo "packages: $(basename "$deb") $(du -k "$deb" | cut -f1) KiB"
done
sim_deb=$(find "$build/packages" -name "fsusim_*_${arch}.deb" -print -quit)
[ -z "$sim_deb" ] || dpkg-deb -x "$sim_deb" "$root"

# Every file in its Debian place.
for file in usr/lib/$triple/libfsusdk.so.1 usr/lib/$triple/libfsusdk.so usr/lib/$triple/libfsusdk.a \
  usr/include/fsusdk.h usr/lib/$triple/pkgconfig/fsusdk.pc usr/lib/$triple/cmake/fsusdk/fsusdkConfig.cmake \
  usr/share/doc/fsusdk/api.md usr/share/doc/fsusdk/examples/CMakeLists.txt usr/bin/benchkit; do
  [ -e "$root/$file" ] || fail "the packages lack /$file"
done
for program in usr/lib/$triple/libfsusdk.so.1 usr/bin/benchkit; do
  readelf -h "$root/$program" | grep -q "Machine:.*$machine" || fail "/$program is not for $machine"
done
echo "packages: $arch packages hold the library, header, pkg-config file, CMake package, docs and programs"
[ "$arch" = amd64 ] || exit 0

# An application built against the installed packages, both ways, runs on the packaged fsusim.
[ -x "$root/usr/bin/fsusim" ] || fail "no fsusim package to run the example on"
cmake -S "$root/usr/share/doc/fsusdk/examples" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$work/cmake" --target uart_echo >/dev/null || fail "uart_echo does not build with find_package(fsusdk)"
cp -r "$root/usr/share/doc/fsusdk/examples/uart_echo" "$work/make"
PKG_CONFIG_PATH=$root/usr/lib/$triple/pkgconfig make -s -C "$work/make" CC=gcc >/dev/null ||
  fail "uart_echo does not build with pkg-config"
for exe in "$work/cmake/uart_echo/uart_echo" "$work/make/uart_echo"; do
  out=$(env -u LD_LIBRARY_PATH "$root/usr/bin/fsusim" run -- "$exe" 2>&1) || fail "$exe failed on fsusim: $out"
  grep -q 'received 25 bytes' <<<"$out" || fail "$exe: $out"
done
echo "packages: uart_echo built against the amd64 packages runs on the packaged fsusim"
