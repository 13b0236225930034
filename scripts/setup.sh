#!/usr/bin/env bash
# Installs what building, running and testing tarnwickrelay needs (Debian):
#
#   scripts/setup.sh              everything for the native builds and their tests
#   scripts/setup.sh run          only what building the daemon and tools needs (not the GStreamer side)
#   scripts/setup.sh bench        the native build's packages and gnuplot, which draws the benchmark's figures
#   scripts/setup.sh cross ARCH   the cross compiler, ARCH's libraries and qemu-user (arm64, armhf)
#   scripts/setup.sh board        what booting an arm64 Debian needs (tests/boot/arm64_boot.sh): qemu-system-arm,
#                                 and qemu-user-static's binfmt handlers, through which mmdebstrap makes its root
#                                 file system (binfmt_misc is mounted when it is not)
#
# As root it installs directly; otherwise through sudo, and only when
# something is missing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config      # toolchain
  libcjson-dev                          # JSON commands
  libncurses-dev tmux                   # the monitor's full-screen view, and its test
  libgtest-dev libgmock-dev             # tests
  iproute2 iptables util-linux          # namespaces, NAT rule, unshare
  ffmpeg x264                           # H.264 fixtures and decoding checks
  clang llvm libclang-rt-14-dev         # fuzzing: libFuzzer, sanitizers, llvm-cov
  python3                               # the fuzz corpus generator, the Python client and its tests
  dpkg-dev lintian systemd              # the Debian package: dependencies, checks, the unit
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev libgstrtspserver-1.0-dev   # the plugin tarnwick, tarnwick-rtsp
  gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good        # gst-launch-1.0, rtph264pay
  gstreamer1.0-plugins-bad gstreamer1.0-libav                                  # h264parse, avdec_h264
  valgrind                                                                      # their leak checks
  mmdebstrap systemd-container          # the boot test: a Debian root file system, booted by systemd-nspawn
  python3-venv python3-setuptools python3-wheel   # `pip install ./clients/python` with no network
)

case ${1:-all} in
  run) packages=(build-essential cmake pkg-config libcjson-dev libncurses-dev ffmpeg x264 iproute2) ;;
  bench) packages+=(gnuplot-nox) ;;
  board)
    packages=(qemu-system-arm qemu-user-static binfmt-support arch-test mmdebstrap e2fsprogs)
    board=1
    ;;
  cross)
    arch=${2:?usage: scripts/setup.sh cross arm64|armhf}
    case $arch in
      arm64) triple=aarch64-linux-gnu ;;
      armhf) triple=arm-linux-gnueabihf ;;
      *) echo "usage: scripts/setup.sh cross arm64|armhf" >&2; exit 2 ;;
    esac
    # libstdc++6:ARCH: the package's dependencies are computed against the board's own runtime.
    packages=(g++-$triple libcjson-dev:$arch libncursesw6:$arch libtinfo6:$arch libgtest-dev:$arch libgmock-dev:$arch libstdc++6:$arch qemu-user dpkg-dev)
    ;;
esac

as_root() { if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi; }
if [ -n "${arch:-}" ] && ! dpkg --print-foreign-architectures | grep -qx "$arch"; then
  as_root dpkg --add-architecture "$arch"
  as_root apt-get update || true   # a mirror in sync may fail one index; the install below says what is missing
fi

if [ -n "${board:-}" ] && [ -d /proc/sys/fs/binfmt_misc ] && ! mountpoint -q /proc/sys/fs/binfmt_misc; then
  as_root mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc || true
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt_install() { as_root apt-get -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "$@"; }
  apt_install "${missing[@]}" || { as_root apt-get update || true; apt_install "${missing[@]}"; }
fi
# binfmt-support registers qemu-user-static's handlers when it is installed (and binfmt_misc mounted); one
# missing or disabled is enabled.
if [ -n "${board:-}" ] && ! grep -qsx enabled /proc/sys/fs/binfmt_misc/qemu-aarch64; then
  as_root update-binfmts --enable qemu-aarch64 || true
fi
