#!/usr/bin/env bash
# Cross-builds for a board, runs the unit tests under qemu-user and makes the
# board's Debian package:
#
#   scripts/cross.sh arm64|armhf          ->  build-<arch>/tarnwickrelay_<version>_<arch>.deb
#
# The system tests (the daemon as a process in private namespaces, driven by
# simulated peers) and the fuzz targets stay with the native builds: under
# qemu-user a test process cannot start the board's programs as children.
set -euo pipefail
cd "$(dirname "$0")/.."
arch=${1:?usage: scripts/cross.sh arm64|armhf}
case $arch in
  arm64) triple=aarch64-linux-gnu ;;
  armhf) triple=arm-linux-gnueabihf ;;
  *) echo "usage: scripts/cross.sh arm64|armhf" >&2; exit 2 ;;
esac
scripts/setup.sh cross "$arch"
dir=build-$arch
echo "=== $dir (cross, $triple)"
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triple.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j"$(nproc)"
ctest --test-dir "$dir" -L unit --output-on-failure -j"$(nproc)" --timeout 300
(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/tarnwickrelay_*_"$arch".deb
dpkg-deb -I "$dir"/tarnwickrelay_*_"$arch".deb | grep -E 'Architecture|Depends'
