#!/usr/bin/env bash
# Installs what building, running and testing tarnwickrelay needs (Debian):
#
#   scripts/setup.sh              everything for the native builds and their tests
#   scripts/setup.sh run          only what building the daemon and tools needs
#   scripts/setup.sh bench        the native build's packages and gnuplot, which draws the benchmark's figures
#   scripts/setup.sh cross ARCH   the cross compiler, ARCH's libraries and qemu-user (arm64, armhf)
#   scripts/setup.sh board        what booting Debian for the boards needs: qemu-system-arm, an arm64 kernel's
#                                 tools (tests/boot/arm64_boot.sh)
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
  mmdebstrap systemd-container          # the boot test: a Debian root file system, booted by systemd-nspawn
  python3-venv python3-setuptools python3-wheel   # `pip install ./clients/python` with no network
)

case ${1:-all} in
  run) packages=(build-essential cmake pkg-config libcjson-dev libncurses-dev ffmpeg x264 iproute2) ;;
  bench) packages+=(gnuplot-nox) ;;
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

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

export DEBIAN_FRONTEND=noninteractive
apt_install() { as_root apt-get -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "$@"; }
apt_install "${missing[@]}" || { as_root apt-get update || true; apt_install "${missing[@]}"; }
