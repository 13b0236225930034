#!/usr/bin/env bash
# The arm64 package on an arm64 kernel: Debian bookworm for arm64 (root file system by mmdebstrap, Debian's own
# arm64 kernel and initrd from it) booted by qemu-system-aarch64 (TCG, -M virt, no network), with the arm64
# package, its unit tests and tests/boot/arm64_inside.sh laid into its disk image. The script runs at the end of
# the boot, says what it finds on the serial console and powers the machine off.
#
#   tests/boot/arm64_boot.sh [build-arm64]          (as root; after scripts/cross.sh arm64)
#
# Exit 77 (skipped) with the reason where it cannot run: not root, qemu-system-aarch64 or mmdebstrap missing
# (scripts/setup.sh board), no binfmt handler for arm64 programs while the root file system is not yet cached
# (mmdebstrap runs the packages' scripts through qemu-user), no reachable mirror.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
# shellcheck source=tests/boot/lib.sh
. "$here/lib.sh"
build=$(realpath "${1:-$source_dir/build-arm64}")

skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root"
command -v qemu-system-aarch64 >/dev/null || skip "qemu-system-aarch64 missing: scripts/setup.sh board installs it"
command -v mmdebstrap >/dev/null || skip "mmdebstrap missing: scripts/setup.sh installs it"
deb=$(ls "$build"/tarnwickrelay_*_arm64.deb 2>/dev/null | head -1)
[ -n "$deb" ] && [ -x "$build/tests/unit_tests" ] || { echo "FAIL: no arm64 package or unit tests in $build (scripts/cross.sh arm64)"; exit 1; }

# The kernel and its modules come from the root file system itself.
packages=systemd,systemd-sysv,iptables,libcjson1,libncursesw6,iproute2,procps,linux-image-arm64
set +e
tarball=$(boot_rootfs arm64 "$packages" 2>/tmp/tarnwick-arm64-rootfs.$$)
rc=$?
set -e
[ $rc -eq 77 ] || cat /tmp/tarnwick-arm64-rootfs.$$ >&2
reason=$(tail -1 /tmp/tarnwick-arm64-rootfs.$$); rm -f /tmp/tarnwick-arm64-rootfs.$$
[ $rc -eq 77 ] && skip "$reason"
[ $rc -eq 0 ] || { echo "FAIL: the arm64 root file system could not be made (binfmt handler for arm64 registered? scripts/setup.sh board)"; exit 1; }

work=$(mktemp -d /var/tmp/tarnwick-arm64.XXXXXX)
qemu=
cleanup() { [ -n "$qemu" ] && kill "$qemu" 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
started=$SECONDS
root=$work/root
mkdir "$root"
tar -C "$root" -xf "$tarball"
rm -f "$root/etc/apt/sources.list.d/"* "$root/etc/apt/sources.list"
mkdir -p "$root/root/debs"
cp "$deb" "$root/root/debs/"
cp "$build/tests/unit_tests" "$root/root/unit_tests"
mkdir -p "$work/unpacked"
dpkg-deb -x "$deb" "$work/unpacked"
cp "$work/unpacked/usr/bin/tarnwick-camsim" "$root/usr/local/bin/"
cp "$source_dir/tools/camsim/sample.h264" "$root/srv/sample.h264"
install -m 755 "$here/arm64_inside.sh" "$root/usr/local/sbin/tarnwick-arm64-check"
echo tarnwick-arm64 > "$root/etc/hostname"
cat > "$root/etc/systemd/system/tarnwick-arm64-check.service" <<'UNIT'
[Unit]
Description=tarnwickrelay checks on the arm64 kernel
After=multi-user.target
[Service]
Type=oneshot
ExecStart=/usr/local/sbin/tarnwick-arm64-check
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyAMA0
[Install]
WantedBy=multi-user.target
UNIT
ln -s /etc/systemd/system/tarnwick-arm64-check.service "$root/etc/systemd/system/multi-user.target.wants/"
# No login prompt on the console the results go to.
ln -sf /dev/null "$root/etc/systemd/system/serial-getty@ttyAMA0.service"
kernel=$(ls "$root"/boot/vmlinuz-* | head -1)
initrd=$(ls "$root"/boot/initrd.img-* | head -1)
cp "$kernel" "$work/vmlinuz"
cp "$initrd" "$work/initrd.img"
mke2fs -q -t ext4 -L root -d "$root" "$work/disk.img" 3G >/dev/null
rm -rf "$root"
echo "disk image made in $((SECONDS - started)) s; booting $(basename "$kernel") under qemu-system-aarch64 (TCG)"

booted=$SECONDS
qemu-system-aarch64 -M virt -cpu cortex-a72 -smp "$(nproc)" -m 2048 -nographic -nic none -no-reboot \
  -kernel "$work/vmlinuz" -initrd "$work/initrd.img" \
  -append "root=/dev/vda rw console=ttyAMA0 quiet systemd.show_status=false" \
  -drive if=virtio,format=raw,file="$work/disk.img" </dev/null >"$work/console.log" 2>&1 &
qemu=$!
deadline=$((SECONDS + ${TARNWICK_ARM64_TIMEOUT:-1500}))
while kill -0 "$qemu" 2>/dev/null && [ $SECONDS -lt $deadline ]; do sleep 2; done
if kill -0 "$qemu" 2>/dev/null; then
  echo "FAIL: the arm64 machine did not power off within ${TARNWICK_ARM64_TIMEOUT:-1500} s"
  kill "$qemu"
fi
wait "$qemu" 2>/dev/null || true
qemu=
tr -d '\r' < "$work/console.log" | grep '^ARM64' || { echo "FAIL: nothing from the checks; the console:"; tail -40 "$work/console.log"; exit 1; }
echo "arm64 boot and checks $((SECONDS - booted)) s, all $((SECONDS - started)) s"
result=$(tr -d '\r' < "$work/console.log" | sed -n 's/^ARM64 RESULT: \([0-9]* passed, [0-9]* failed\).*/\1/p')
[ -n "$result" ] || { echo "FAIL: the checks did not finish; the console's end:"; tr -d '\r' < "$work/console.log" | tail -30; exit 1; }
echo "arm64: $result"
[[ $result == *" 0 failed" ]]
