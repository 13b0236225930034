#!/usr/bin/env bash
# Installs what building, running and testing tarnwickrelay needs (Debian).
set -euo pipefail

packages=(
  build-essential cmake pkg-config      # toolchain
  libcjson-dev                          # JSON commands
  libgtest-dev libgmock-dev             # tests
  iproute2 iptables util-linux          # namespaces, NAT rule, unshare
  ffmpeg x264                           # H.264 fixtures and decoding checks
  clang llvm libclang-rt-14-dev         # fuzzing: libFuzzer, sanitizers, llvm-cov
  python3                               # the fuzz corpus generator
  dpkg-dev lintian systemd              # the Debian package: dependencies, checks, the unit
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

export DEBIAN_FRONTEND=noninteractive
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
"${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}" ||
  { "${sudo_cmd[@]}" apt-get update && "${sudo_cmd[@]}" apt-get install -y --no-install-recommends "${missing[@]}"; }
