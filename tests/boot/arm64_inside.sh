#!/bin/bash
# Runs inside the arm64 Debian that tests/boot/arm64_boot.sh boots under qemu-system-aarch64, as a unit at the
# end of the boot; what it says goes to the serial console, read by the host. Then it powers the machine off.
#
# - the unit tests that qemu-user cannot run (threads that spin on each other and on sockets: commands through a
#   live endpoint, the sequence counter, the UDP endpoint, small files and shared memory under a writer thread);
# - the arm64 package installed with the simulator running: the unit starts and finds the camera, the NAT rule
#   is there once, the ring fills, the resolution files appear; the camera falling silent makes systemd restart
#   the relay and the rule is still there once; `systemctl stop` leaves no rule and nothing running.
set -u
passed=0
failed=0
pass() { passed=$((passed + 1)); echo "ARM64 ok   $*"; }
fail() { failed=$((failed + 1)); echo "ARM64 FAIL $*"; }
check() { local what=$1; shift; if "$@" >/dev/null 2>&1; then pass "$what"; else fail "$what"; fi; }
wait_for() {
  local seconds=$1; shift
  local deadline=$((SECONDS + seconds))
  until "$@" >/dev/null 2>&1; do [ $SECONDS -lt $deadline ] || return 1; sleep 0.5; done
}
rules() { iptables -w -t nat -S PREROUTING 2>/dev/null | grep -c -e '-j REDIRECT --to-ports 9004'; }
rules_are() { [ "$(rules)" = "$1" ]; }
journal_has() { journalctl -q -u tarnwickrelay.service --since "@$1" -o cat | grep -q -- "$2"; }

echo "ARM64 kernel $(uname -r) on $(uname -m), $(nproc) processors, systemd $(systemctl --version | head -1 | cut -d' ' -f2)"
started=$SECONDS

# The unit tests left out under qemu-user.
if /root/unit_tests --gtest_brief=1 \
     --gtest_filter='Commands.*:TxSequence.*:UdpEndpointTest.*:SmallFiles.*:SharedMemory.*:SharedMemoryDeathTest.*' \
     > /root/unit_tests.log 2>&1; then
  pass "threaded unit tests: $(grep -E '^\[  PASSED  \]' /root/unit_tests.log) ($((SECONDS - started)) s)"
else
  fail "threaded unit tests:"
  tail -40 /root/unit_tests.log | sed 's/^/ARM64   /'
fi

# The package against the simulator (the package's own, run before the package is there).
mkdir -p /run/tarnwickrelay /etc/default
echo ap0 > /run/tarnwickrelay/ap.iface
: > /run/camsim.control
printf 'TARNWICKRELAY_OPTIONS="--host=127.0.0.1 --port=19004 --verbose"\n' > /etc/default/tarnwickrelay
systemd-run --quiet --unit=tarnwick-camsim --property=Type=exec \
  sh -c 'tail -n +1 -f /run/camsim.control | exec /usr/local/bin/tarnwick-camsim --port=19004 --video=/srv/sample.h264'
since=$(date +%s)
t0=$SECONDS
if DEBIAN_FRONTEND=noninteractive apt-get install -y -q -o Dpkg::Options::=--force-confold /root/debs/*.deb \
     > /root/install.log 2>&1; then
  pass "apt-get install of the arm64 package ($((SECONDS - t0)) s)"
else
  fail "apt-get install:"; tail -5 /root/install.log | sed 's/^/ARM64   /'
fi
wait_for 60 journal_has "$since" 'Camera connection found' && pass "the unit started and found the camera" ||
  fail "no 'Camera connection found': $(systemctl is-active tarnwickrelay.service)"
check "the unit is active" sh -c '[ "$(systemctl is-active tarnwickrelay.service)" = active ]'
wait_for 20 rules_are 1 && pass "the NAT rule is there once" || fail "NAT rules: $(rules), not 1"
check "the ring fills (20 parts)" timeout 60 tarnwick-ringreader --parts=20 --out=/dev/null
wait_for 30 test -s /run/tarnwickrelay/video_width &&
  pass "resolution files: $(cat /run/tarnwickrelay/video_width)x$(cat /run/tarnwickrelay/video_height)" ||
  fail "no resolution files"
pid=$(systemctl show -P MainPID tarnwickrelay.service)
check "confined: CapBnd 0000000000003000, NoNewPrivs 1, Seccomp 2" sh -c \
  "grep -Eq '^CapBnd:[[:space:]]+0000000000003000\$' /proc/$pid/status &&
   grep -Eq '^NoNewPrivs:[[:space:]]+1\$' /proc/$pid/status && grep -Eq '^Seccomp:[[:space:]]+2\$' /proc/$pid/status"

since=$(date +%s)
before=$(systemctl show -P NRestarts tarnwickrelay.service)
echo silent >> /run/camsim.control
wait_for 60 sh -c "[ \"\$(systemctl show -P NRestarts tarnwickrelay.service)\" -gt $before ]"
echo talk >> /run/camsim.control
after=$(systemctl show -P NRestarts tarnwickrelay.service)
[ "$after" -gt "$before" ] && pass "the camera fell silent: systemd restarted the relay (NRestarts $before -> $after)" ||
  fail "no restart after the camera fell silent (NRestarts $after)"
wait_for 60 journal_has "$since" 'Camera connection found' && pass "the restarted relay found the camera again" ||
  fail "the restarted relay did not find the camera"
sleep 2
check "after the restart the NAT rule is there once ($(rules))" rules_are 1
systemctl stop tarnwickrelay.service
check "systemctl stop: no NAT rule left" rules_are 0
check "systemctl stop: no relay runs" sh -c '! pgrep -x tarnwickrelay'

echo "ARM64 RESULT: $passed passed, $failed failed ($((SECONDS - started)) s)"
systemctl --no-block poweroff
