#!/usr/bin/env bash
# The package on a real init: Debian bookworm booted under systemd-nspawn (tests/boot/lib.sh), the packages
# installed the way a board gets them, the camera simulator inside, and the service checked from outside:
#
#   tests/boot/boot_test.sh [--backends=nft,legacy] [--break=WHAT] <package.deb>...      (as root)
#   tests/boot/boot_test.sh --self-test <package.deb>...
#
# Per iptables back end (each in a freshly booted system; update-alternatives picks iptables-nft or
# iptables-legacy before the package comes):
# - `apt-get install` of the packages enables and starts the unit; it is enabled and active;
# - its confinement is in force in /proc/PID/status: CapBnd (CAP_NET_ADMIN and CAP_NET_RAW only), NoNewPrivs,
#   Seccomp (filter mode); `systemd-analyze security` on the running system rates it 4.0 or lower;
# - the phone's NAT rule is in the nat table once; the four shared-memory objects, the resolution files and
#   board_supported are visible outside the service, and the ring fills;
# - /run is read-only for the service but for /run/tarnwickrelay and iptables' lock: a write elsewhere under
#   /run fails inside the service's mount namespace, a write into /run/tarnwickrelay succeeds;
# - an unprivileged user in the package's group "tarnwick" reads the status and the ring and writes the
#   remote-control record (the simulator applies the command it turns into);
# - with libtarnwickclient-dev: the example application builds against it (pkg-config) inside; with
#   python3-tarnwick: /usr/bin/python3 imports the module;
# - the camera falling silent makes the service end and systemd restart it (NRestarts >= 1), and the rule is
#   there once afterwards;
# - `systemctl stop`, `apt-get remove` and `apt-get purge` each leave no rule and nothing running; purge
#   leaves no conffile and no unit.
#
# --break=no-stop-post | no-netlink | writable-run installs a drop-in that spoils the unit (no ExecStopPost;
# AF_NETLINK not allowed; /run left writable) before the package comes: the checks must then fail. --self-test
# runs each (with iptables-nft) and passes when every spoilt unit fails the test. Exit 77 (skipped) with the reason where it cannot run: not root, no
# systemd-nspawn or mmdebstrap, no cgroup v2, no reachable mirror for a root file system not yet cached.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(cd "$here/../.." && pwd)
# shellcheck source=tests/boot/lib.sh
. "$here/lib.sh"

backends=nft,legacy
broken=
self_test=0
debs=()
for argument in "$@"; do
  case $argument in
    --backends=*) backends=${argument#*=} ;;
    --break=*) broken=${argument#*=} ;;
    --self-test) self_test=1 ;;
    -*) echo "unknown option $argument" >&2; exit 2 ;;
    *) debs+=("$(realpath "$argument")") ;;
  esac
done
[ ${#debs[@]} -gt 0 ] || { echo "usage: $0 [--backends=nft,legacy] [--break=no-stop-post|no-netlink|writable-run] [--self-test] <package.deb>..." >&2; exit 2; }

if [ $self_test -eq 1 ]; then
  # Each spoilt unit must be caught, with one back end each (nft needs AF_NETLINK; the clean-up is the same).
  status=0
  log=$(mktemp)
  for what in no-stop-post:nft no-netlink:nft writable-run:nft; do
    echo "=== self-test: a unit with ${what%%:*} (iptables-${what#*:}) must fail the boot test"
    set +e
    "$0" --backends="${what#*:}" --break="${what%%:*}" "${debs[@]}" > "$log" 2>&1
    rc=$?
    set -e
    grep -E '^(FAIL|SKIPPED)' "$log" | sed 's/^/    /'
    case $rc in
      1) echo "self-test: the unit with ${what%%:*} fails the boot test, as it must" ;;
      77) echo "self-test skipped"; exit 77 ;;
      *) echo "SELF-TEST FAILED: the unit with ${what%%:*} passed the boot test (exit $rc)"; status=1 ;;
    esac
  done
  rm -f "$log"
  exit $status
fi

reason=$(boot_possible) || { echo "SKIPPED: $reason"; exit 77; }
set +e
tarball=$(boot_rootfs amd64 2>/tmp/tarnwick-boot-rootfs.$$)
rc=$?
set -e
[ $rc -eq 77 ] || cat /tmp/tarnwick-boot-rootfs.$$ >&2
reason=$(tail -1 /tmp/tarnwick-boot-rootfs.$$); rm -f /tmp/tarnwick-boot-rootfs.$$
[ $rc -eq 77 ] && { echo "SKIPPED: $reason"; exit 77; }
[ $rc -eq 0 ] || { echo "FAIL: the root file system could not be made"; exit 1; }

work=$(mktemp -d /var/tmp/tarnwick-boot.XXXXXX)
cleanup() { boot_stop; rm -rf "$work"; }
trap cleanup EXIT

failures=0
checks=0
pass() { checks=$((checks + 1)); echo "ok   [$backend] $*"; }
fail() { checks=$((checks + 1)); failures=$((failures + 1)); echo "FAIL [$backend] $*"; }
check() {   # check "what" command...
  local what=$1; shift
  if "$@" >/dev/null 2>&1; then pass "$what"; else fail "$what"; fi
}
# Waits up to $1 seconds for a command to succeed.
wait_for() {
  local seconds=$1; shift
  local deadline=$((SECONDS + seconds))
  until "$@" >/dev/null 2>&1; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.25
  done
}

rules() { in_boot iptables -w -t nat -S PREROUTING 2>/dev/null | grep -c -e '-j REDIRECT --to-ports 9004' || true; }
rules_are() { [ "$(rules)" = "$1" ]; }
main_pid() { in_boot systemctl show -P MainPID tarnwickrelay.service 2>/dev/null || echo 0; }
running_relays() { in_boot pgrep -x tarnwickrelay | wc -l; }
nothing_runs() { [ "$(running_relays)" = 0 ]; }
journal_has() { in_boot journalctl -q -u tarnwickrelay.service --since "@$1" -o cat | grep -q -- "$2"; }
unit_active() { [ "$(in_boot systemctl is-active tarnwickrelay.service)" = active ]; }

have_dev=0; have_python=0
for deb in "${debs[@]}"; do
  case $(dpkg-deb -f "$deb" Package) in
    libtarnwickclient-dev) have_dev=1 ;;
    python3-tarnwick) have_python=1 ;;
  esac
done

round() {
  backend=$1
  local round_started=$SECONDS
  boot_start "$tarball" "$work" || { fail "the system boots"; return; }
  pass "bookworm boots under systemd-nspawn: $(in_boot systemctl is-system-running)"

  in_boot update-alternatives --quiet --set iptables "/usr/sbin/iptables-$backend"
  in_boot update-alternatives --quiet --set ip6tables "/usr/sbin/ip6tables-$backend"
  check "iptables is iptables-$backend" sh -c "nsenter --target $BOOT_INIT --all iptables -V | grep -q '($([ "$backend" = nft ] && echo nf_tables || echo legacy))'"

  # What the board has before the package: the access point's name for the rule, the camera (the
  # simulator on loopback, playing the sample video; lines appended to /run/camsim.control reach it),
  # the relay's options pointing at it (kept as the conffile's local change).
  local root=$work/root
  mkdir -p "$root/root/debs" "$root/etc/default"
  cp "${debs[@]}" "$root/root/debs/"
  cp "$source_dir/tools/camsim/sample.h264" "$root/srv/sample.h264"
  cp "$source_dir/examples/recorder.cpp" "$root/root/recorder.cpp"
  printf 'TARNWICKRELAY_OPTIONS="--host=127.0.0.1 --port=19004 --verbose"\n' > "$root/etc/default/tarnwickrelay"
  in_boot sh -c 'mkdir -p /run/tarnwickrelay && echo ap0 > /run/tarnwickrelay/ap.iface && : > /run/camsim.control'
  # The simulator is the package's own, run from /usr/local/bin before the package is there.
  local camsim_deb
  for camsim_deb in "${debs[@]}"; do
    [ "$(dpkg-deb -f "$camsim_deb" Package)" = tarnwickrelay ] && break
  done
  rm -rf "$work/unpacked"
  dpkg-deb -x "$camsim_deb" "$work/unpacked"
  cp "$work/unpacked/usr/bin/tarnwick-camsim" "$root/usr/local/bin/"
  in_boot systemd-run --quiet --unit=tarnwick-camsim --property=Type=exec \
    sh -c 'tail -n +1 -f /run/camsim.control | exec /usr/local/bin/tarnwick-camsim --port=19004 --video=/srv/sample.h264'
  case $broken in
    no-stop-post) in_boot sh -c 'mkdir -p /etc/systemd/system/tarnwickrelay.service.d &&
                                 printf "[Service]\nExecStopPost=\n" > /etc/systemd/system/tarnwickrelay.service.d/broken.conf' ;;
    no-netlink) in_boot sh -c 'mkdir -p /etc/systemd/system/tarnwickrelay.service.d &&
                               printf "[Service]\nRestrictAddressFamilies=\nRestrictAddressFamilies=AF_INET AF_UNIX\n" > /etc/systemd/system/tarnwickrelay.service.d/broken.conf' ;;
    writable-run) in_boot sh -c 'mkdir -p /etc/systemd/system/tarnwickrelay.service.d &&
                                 printf "[Service]\nReadOnlyPaths=\n" > /etc/systemd/system/tarnwickrelay.service.d/broken.conf' ;;
    '') ;;
    *) echo "unknown --break=$broken" >&2; exit 2 ;;
  esac

  # Installed as a board gets it. The local options stay (as an administrator's change would).
  local since
  since=$(in_boot date +%s)
  local t0=$SECONDS
  if in_boot env DEBIAN_FRONTEND=noninteractive apt-get install -y -q -o Dpkg::Options::=--force-confdef \
       -o Dpkg::Options::=--force-confold $(cd "$root/root/debs" && printf '/root/debs/%s ' *.deb) > "$work/install.log" 2>&1; then
    pass "apt-get install of $(cd "$root/root/debs" && ls | tr '\n' ' ')($((SECONDS - t0)) s)"
  else
    fail "apt-get install: $(tail -5 "$work/install.log")"
    return
  fi
  check "the unit is enabled" sh -c "[ \"\$(nsenter --target $BOOT_INIT --all systemctl is-enabled tarnwickrelay.service)\" = enabled ]"
  wait_for 15 journal_has "$since" 'Camera connection found' && pass "the relay found the simulated camera" ||
    fail "no 'Camera connection found' in the journal"
  check "the unit is active" unit_active

  local pid
  pid=$(main_pid)
  local status
  status=$(in_boot cat "/proc/$pid/status" 2>/dev/null || true)
  [ "$(sed -n 's/^CapBnd:\s*//p' <<<"$status")" = 0000000000003000 ] &&
    pass "CapBnd 0000000000003000 (CAP_NET_ADMIN, CAP_NET_RAW)" || fail "CapBnd: $(grep CapBnd <<<"$status")"
  [ "$(sed -n 's/^NoNewPrivs:\s*//p' <<<"$status")" = 1 ] && pass "NoNewPrivs 1" || fail "NoNewPrivs: $(grep NoNewPrivs <<<"$status")"
  [ "$(sed -n 's/^Seccomp:\s*//p' <<<"$status")" = 2 ] && pass "Seccomp 2 (filter)" || fail "Seccomp: $(grep Seccomp: <<<"$status")"
  local exposure
  exposure=$(in_boot systemd-analyze security tarnwickrelay.service 2>/dev/null |
    sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
  awk -v e="${exposure:-99}" 'BEGIN { exit !(e <= 4.0) }' && pass "systemd-analyze security on the running system: $exposure" ||
    fail "systemd-analyze security: ${exposure:-no figure} (above 4.0)"

  wait_for 10 rules_are 1 && pass "the NAT rule is there once: $(in_boot iptables -t nat -S PREROUTING | grep 9004)" ||
    fail "NAT rules with the bridge port: $(rules), not 1"
  local object
  for object in tarnwickrelay_framebuffer tarnwickrelay_framebuffer_transcoding shared_camstate shared_rc_raw; do
    wait_for 10 in_boot test -s "/dev/shm/$object" || true
    check "/dev/shm/$object is there: $(in_boot stat -c '%A %U:%G %s' "/dev/shm/$object" 2>&1)" in_boot test -s "/dev/shm/$object"
  done
  if wait_for 15 in_boot test -s /run/tarnwickrelay/video_width; then
    pass "resolution files: $(in_boot cat /run/tarnwickrelay/video_width)x$(in_boot cat /run/tarnwickrelay/video_height)"
  else
    fail "no resolution files in /run/tarnwickrelay: $(in_boot ls /run/tarnwickrelay | tr '\n' ' ')"
  fi
  check "board_supported is there" in_boot test -e /run/tarnwickrelay/board_supported
  check "the ring fills (20 parts read outside the service)" \
    in_boot timeout 20 tarnwick-ringreader --parts=20 --out=/dev/null

  # /run: read-only inside the service but for its own directory (and iptables' lock).
  if [ "$pid" -gt 0 ] 2>/dev/null; then
    if in_boot nsenter --target "$pid" --mount sh -c ': > /run/tarnwick-probe' 2>"$work/probe"; then
      fail "a write to /run/tarnwick-probe succeeded inside the service"
      in_boot rm -f /run/tarnwick-probe
    else
      pass "a write elsewhere under /run fails inside the service: $(tail -1 "$work/probe")"
    fi
    check "a write into /run/tarnwickrelay succeeds inside the service" \
      in_boot nsenter --target "$pid" --mount sh -c ': > /run/tarnwickrelay/probe && rm /run/tarnwickrelay/probe'
  fi

  application_checks

  # The camera falls silent: the relay ends (no data for 5 s), systemd brings it back.
  since=$(in_boot date +%s)
  in_boot sh -c 'echo silent >> /run/camsim.control'
  local restarts=0 restarts_before
  restarts_before=$(in_boot systemctl show -P NRestarts tarnwickrelay.service)
  for _ in $(seq 80); do
    restarts=$(in_boot systemctl show -P NRestarts tarnwickrelay.service)
    [ "$restarts" -gt "$restarts_before" ] && break
    sleep 0.25
  done
  in_boot sh -c 'echo talk >> /run/camsim.control'
  [ "$restarts" -ge 1 ] && [ "$restarts" -gt "$restarts_before" ] &&
    pass "the camera fell silent: systemd restarted the relay (NRestarts $restarts_before -> $restarts)" ||
    fail "no restart after the camera fell silent (NRestarts $restarts_before -> $restarts)"
  wait_for 15 journal_has "$since" 'Camera connection found' && pass "the restarted relay found the camera again" ||
    fail "the restarted relay did not find the camera"
  sleep 1
  check "after the restart the NAT rule is there once ($(rules))" rules_are 1
  check "one relay runs" sh -c "[ \"\$(nsenter --target $BOOT_INIT --all pgrep -x tarnwickrelay | wc -l)\" = 1 ]"

  # Stop, remove, purge.
  in_boot systemctl stop tarnwickrelay.service
  check "systemctl stop: no NAT rule left ($(rules))" rules_are 0
  check "systemctl stop: no relay runs" nothing_runs
  in_boot systemctl start tarnwickrelay.service
  wait_for 10 rules_are 1 || true
  in_boot env DEBIAN_FRONTEND=noninteractive apt-get remove -y -q tarnwickrelay > "$work/remove.log" 2>&1 ||
    fail "apt-get remove: $(tail -3 "$work/remove.log")"
  check "apt-get remove: no NAT rule left ($(rules))" rules_are 0
  check "apt-get remove: no relay runs" nothing_runs
  check "apt-get remove: the conffile stays until purge" in_boot test -e /etc/default/tarnwickrelay
  in_boot env DEBIAN_FRONTEND=noninteractive apt-get purge -y -q tarnwickrelay > "$work/purge.log" 2>&1 ||
    fail "apt-get purge: $(tail -3 "$work/purge.log")"
  check "apt-get purge: no NAT rule left" rules_are 0
  check "apt-get purge: no relay runs" nothing_runs
  check "apt-get purge: no conffile" in_boot test ! -e /etc/default/tarnwickrelay
  check "apt-get purge: no unit, no enablement" in_boot sh -c \
    '! test -e /lib/systemd/system/tarnwickrelay.service && ! test -e /etc/systemd/system/multi-user.target.wants/tarnwickrelay.service'
  check "apt-get purge: dpkg knows the package no more" in_boot sh -c '! dpkg -s tarnwickrelay'
  echo "[$backend] round: $((SECONDS - round_started)) s"
}

# The main application's side, from an unprivileged user in the package's group "tarnwick"; the group's access
# through the relay's repairs; the client library and the Python module as installed.
application_checks() {
  in_boot useradd --create-home --groups tarnwick tarnwickapp
  in_boot useradd --create-home outsider
  as_app() { in_boot runuser -u tarnwickapp -- "$@"; }
  check "group tarnwick exists (made by the package): $(in_boot getent group tarnwick)" in_boot getent group tarnwick
  check "the status, as a member of the group (5 status datagrams on port 5000)" \
    as_app timeout 10 tarnwick-monitor --count=5 --notice-port=0
  check "the ring, as a member of the group (20 parts)" as_app timeout 20 tarnwick-ringreader --parts=20 --out=/dev/null
  check "the ring is closed to a user outside the group" \
    sh -c "! nsenter --target $BOOT_INIT --all runuser -u outsider -- timeout 5 tarnwick-ringreader --parts=1 --out=/dev/null"
  local since
  since=$(in_boot date +%s)
  as_app tarnwick-rcwriter --press-ms=1500 press record >/dev/null 2>&1 || true
  wait_for 10 sh -c "nsenter --target $BOOT_INIT --all journalctl -q -u tarnwick-camsim --since @$since -o cat |
                     grep -q 'applied: set recording 1'" &&
    pass "the remote-control record, written as a member of the group, starts recording" ||
    fail "the remote-control record written by the group's member had no effect (no 'applied: set recording 1')"

  # Another process spoils the objects: cut short, removed, replaced by one of mode 0600. The relay restores each
  # within a second or two, and the group keeps its access.
  in_boot truncate -s 0 /dev/shm/tarnwickrelay_framebuffer
  in_boot rm /dev/shm/tarnwickrelay_framebuffer_transcoding
  in_boot sh -c 'rm /dev/shm/shared_rc_raw && (umask 077; : > /dev/shm/shared_rc_raw)'
  local object expected
  for object in tarnwickrelay_framebuffer:60003624 tarnwickrelay_framebuffer_transcoding:13003624 shared_rc_raw:1504; do
    expected="-rw-rw---- root:tarnwick ${object#*:}"
    if wait_for 10 sh -c "[ \"\$(nsenter --target $BOOT_INIT --all stat -c '%A %U:%G %s' /dev/shm/${object%%:*})\" = '$expected' ]"; then
      pass "/dev/shm/${object%%:*} restored by the relay with the group's access: $expected"
    else
      fail "/dev/shm/${object%%:*} after the relay's repair: $(in_boot stat -c '%A %U:%G %s' "/dev/shm/${object%%:*}" 2>&1), not $expected"
    fi
  done
  check "the ring, as a member of the group, after the repairs" as_app timeout 20 tarnwick-ringreader --parts=20 --out=/dev/null

  if [ $have_dev -eq 1 ]; then
    check "the example builds against libtarnwickclient-dev inside (pkg-config)" in_boot sh -c \
      'g++ -std=c++17 -o /usr/local/bin/recorder /root/recorder.cpp $(pkg-config --cflags --libs tarnwickclient)'
    check "the example, run as a member of the group, records the live video" as_app sh -c \
      '(sleep 5; echo q) | timeout 20 /usr/local/bin/recorder --out=$HOME/live.h264 >/dev/null && test -s $HOME/live.h264' 
  fi
  if [ $have_python -eq 1 ]; then
    check "/usr/bin/python3 imports tarnwick (python3-tarnwick)" in_boot /usr/bin/python3 -c \
      'import tarnwick; assert tarnwick.__file__ == "/usr/lib/python3/dist-packages/tarnwick.py", tarnwick.__file__'
  fi
}

started=$SECONDS
for backend in ${backends//,/ }; do
  round "$backend"
  boot_stop
done
backend=all
echo "boot test: $checks checks, $failures failed, $((SECONDS - started)) s"
[ $failures -eq 0 ]
