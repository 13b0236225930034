#!/usr/bin/env bash
# Cross-builds for a board, runs the unit tests under qemu-user and makes the
# board's Debian package:
#
#   scripts/cross.sh arm64|armhf          ->  build-<arch>/tarnwickrelay_<version>_<arch>.deb
#
# The system tests (the daemon as a process in private namespaces, driven by
# simulated peers) and the fuzz targets stay with the native builds: under
# qemu-user a test process cannot start the board's programs as children. So
# do the unit tests whose threads spin on each other or on sockets (the
# endpoint, the sequence counter, commands through a live endpoint, small
# files and shared memory under a writer thread): qemu-user's emulation of
# such races stalls for minutes. What stays (frames and checksums, the
# telemetry decoder, the parameter-set reader, the value tables, the
# remote-control rules, the NAT command) is where word size and layout tell.
# The GStreamer plugin and tarnwick-rtsp are left out (said at the end of the
# build) unless the board's GStreamer development files are installed.
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
# The GStreamer side needs the board's GStreamer development files (libgstreamer1.0-dev:ARCH and the rest),
# which setup.sh does not install for a cross build: the plugin and tarnwick-rtsp are then left out.
[ -f "$dir/gst/libgsttarnwick.so" ] ||
  echo "the GStreamer plugin and tarnwick-rtsp are left out of the $arch build (no GStreamer development files for $arch): no gstreamer1.0-tarnwick package"
GTEST_DEATH_TEST_STYLE=fast ctest --test-dir "$dir" -L unit --output-on-failure -j"$(nproc)" --timeout 300 \
  -E '^(Commands|TxSequence|UdpEndpointTest|SmallFiles|SharedMemory|SharedMemoryDeathTest)\.'

(cd "$dir" && cpack -G DEB >/dev/null)
ls "$dir"/tarnwickrelay_*_"$arch".deb
dpkg-deb -I "$dir"/tarnwickrelay_*_"$arch".deb | grep -E 'Architecture|Depends'
