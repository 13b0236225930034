#!/usr/bin/env bash
# Checks the Debian packages as a board would get them:
#
#   tests/packaging/check_package.sh tarnwickrelay_*.deb libtarnwickclient-dev_*.deb python3-tarnwick_*.deb
#                                    [gstreamer1.0-tarnwick_*.deb --gstreamer]                   (as root)
#
# With --gstreamer (a build that made the GStreamer side) it also wants the
# package gstreamer1.0-tarnwick: the plugin in GStreamer's plugin directory,
# gst-inspect-1.0 finding tarnwicksrc there, tarnwick-rtsp with its page, its
# options as a conffile, its unit verified and not enabled, lintian clean, and
# dependencies no wider than the C and C++ runtimes and GStreamer's libraries.
# The relay's own package never depends on GStreamer.
#
# - their contents and control data (dpkg-deb -c / -I): the programs, the unit,
#   the defaults conffile, the sysctl, tmpfiles.d and sysusers.d files, the NAT
#   clean-up, the manual pages; in libtarnwickclient-dev the client library
#   with its headers and pkg-config file; in python3-tarnwick the module;
#   the relay's dependencies no wider than the C and C++ runtimes, libcjson1
#   and ncurses;
# - a C++ and a C program build against the client library as installed,
#   through pkg-config; python3 imports the module as installed;
# - lintian reports no error and no warning for any of them;
# - the unit: systemd-analyze verify, and a security exposure of 4.0 or less;
# - the daemon starts under the unit's confinement (its capability bounding
#   set and no new privileges, as root) against the camera simulator, in
#   private namespaces, inserts the phone's NAT rule, and the unit's clean-up
#   removes every copy of it.
set -euo pipefail
[ "$(id -u)" -eq 0 ] || { echo "needs root (namespaces, iptables): skipped"; exit 77; }
deb= dev_deb= python_deb= gst_deb=
gstreamer=false
for argument in "$@"; do
  if [ "$argument" = --gstreamer ]; then
    gstreamer=true
    continue
  fi
  case $(dpkg-deb -f "$argument" Package) in
    tarnwickrelay) deb=$(realpath "$argument") ;;
    libtarnwickclient-dev) dev_deb=$(realpath "$argument") ;;
    python3-tarnwick) python_deb=$(realpath "$argument") ;;
    gstreamer1.0-tarnwick) gst_deb=$(realpath "$argument") ;;
  esac
done
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

contents=$(dpkg-deb -c "$deb")
for path in ./usr/bin/tarnwickrelay ./usr/bin/tarnwick-camsim ./usr/bin/tarnwick-monitor ./usr/bin/tarnwick-ringreader \
            ./usr/bin/tarnwick-rcwriter ./lib/systemd/system/tarnwickrelay.service ./etc/default/tarnwickrelay \
            ./usr/lib/sysctl.d/60-tarnwickrelay.conf ./usr/lib/tarnwickrelay/remove-nat-rules \
            ./usr/share/man/man8/tarnwickrelay.8.gz ./usr/share/man/man1/tarnwick-monitor.1.gz \
            ./usr/share/doc/tarnwickrelay/copyright ./usr/lib/tmpfiles.d/tarnwickrelay.conf \
            ./usr/lib/sysusers.d/tarnwickrelay.conf; do
  grep -q " $path\$" <<<"$contents" || fail "the package lacks $path"
done
grep -qE 'tarnwick-rtsp|gstreamer' <<<"$contents" && fail "the relay's package holds the GStreamer side"
info=$(dpkg-deb -I "$deb")
depends=$(sed -n 's/^ Depends: //p' <<<"$info")
for dependency in ${depends//,/ }; do
  case $dependency in
    libc6|libcjson1|libstdc++6|libgcc-s1|libncursesw6|libtinfo6|\(*|*\)) ;;
    *) fail "unexpected run-time dependency $dependency (all: $depends)" ;;
  esac
done
grep -q libcjson1 <<<"$depends" || fail "no dependency on libcjson1: $depends"
for script in postinst prerm postrm conffiles; do grep -q " $script" <<<"$info" || fail "no $script"; done
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./conffiles | grep -qx /etc/default/tarnwickrelay || fail "defaults not a conffile"
grep -q 'sysctl.d' <<<"$contents" && grep -q 'net.core.rmem_max = 10000000' <(dpkg-deb --fsys-tarfile "$deb" |
  tar -xO ./usr/lib/sysctl.d/60-tarnwickrelay.conf) || fail "the sysctl file does not raise rmem_max"

[ -n "$dev_deb" ] || fail "no libtarnwickclient-dev package given"
[ -n "$python_deb" ] || fail "no python3-tarnwick package given"
[ $failures -eq 0 ] || exit 1
dev_contents=$(dpkg-deb -c "$dev_deb")
multiarch=$(dpkg-architecture -a "$(dpkg-deb -f "$dev_deb" Architecture)" -qDEB_HOST_MULTIARCH 2>/dev/null)
for path in ./usr/include/tarnwickclient.h ./usr/include/tarnwickclient/client.h ./usr/include/tarnwickclient/interface.h \
            "./usr/lib/$multiarch/libtarnwickclient.a" "./usr/lib/$multiarch/pkgconfig/tarnwickclient.pc" \
            ./usr/share/doc/libtarnwickclient-dev/copyright; do
  grep -q " $path\$" <<<"$dev_contents" || fail "libtarnwickclient-dev lacks $path"
done
grep -q 'tarnwickclient' <<<"$contents" && fail "the relay's package holds the client library too"
python_contents=$(dpkg-deb -c "$python_deb")
for path in ./usr/lib/python3/dist-packages/tarnwick.py ./usr/share/doc/python3-tarnwick/copyright; do
  grep -q " $path\$" <<<"$python_contents" || fail "python3-tarnwick lacks $path"
done
[ "$(dpkg-deb -f "$python_deb" Architecture)" = all ] || fail "python3-tarnwick is not Architecture: all"
mkdir "$work/python"
dpkg-deb -x "$python_deb" "$work/python"
PYTHONPATH=$work/python/usr/lib/python3/dist-packages /usr/bin/python3 -c 'import tarnwick' ||
  fail "python3 does not import the installed module"

# The client library as an application developer finds it.
mkdir "$work/dev"
dpkg-deb -x "$dev_deb" "$work/dev"
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
export PKG_CONFIG_PATH; PKG_CONFIG_PATH=$(dirname "$(find "$work/dev" -name tarnwickclient.pc)")
g++ -std=c++17 -o "$work/recorder" "$source_dir/examples/recorder.cpp" $(pkg-config --cflags --libs tarnwickclient) ||
  fail "the example does not build against the installed client library"
gcc -o "$work/c_api_check" "$source_dir/tests/client/c_api_check.c" $(pkg-config --cflags --libs tarnwickclient) ||
  fail "a C program does not build against the installed client library"
"$work/c_api_check" || fail "the C program against the installed library"

# gstreamer1.0-tarnwick: its contents and dependencies, the plugin as GStreamer finds it once installed, the
# RTSP server's options a conffile and its unit not enabled (verified with the relay's below).
if $gstreamer; then
  [ -n "$gst_deb" ] || { fail "no gstreamer1.0-tarnwick package given"; exit 1; }
  gst_contents=$(dpkg-deb -c "$gst_deb")
  for path in ./usr/bin/tarnwick-rtsp ./lib/systemd/system/tarnwick-rtsp.service ./etc/default/tarnwick-rtsp \
              ./usr/share/man/man1/tarnwick-rtsp.1.gz ./usr/share/doc/gstreamer1.0-tarnwick/copyright \
              "./usr/lib/$(gcc -print-multiarch)/gstreamer-1.0/libgsttarnwick.so"; do
    grep -q " $path\$" <<<"$gst_contents" || fail "gstreamer1.0-tarnwick lacks $path"
  done
  gst_depends=$(dpkg-deb -f "$gst_deb" Depends)
  for dependency in ${gst_depends//,/ }; do
    case $dependency in
      libc6|libstdc++6|libgcc-s1|libglib2.0-0|libgstreamer1.0-0|libgstreamer-plugins-base1.0-0|\
      libgstrtspserver-1.0-0|\(*|*\)) ;;
      *) fail "unexpected run-time dependency of gstreamer1.0-tarnwick: $dependency (all: $gst_depends)" ;;
    esac
  done
  dpkg-deb --ctrl-tarfile "$gst_deb" | tar -xO ./conffiles | grep -qx /etc/default/tarnwick-rtsp ||
    fail "the RTSP server's options are not a conffile"
  mkdir -p "$work/relay"
  dpkg-deb -x "$gst_deb" "$work/relay"
  plugins=$(dirname "$(find "$work/relay" -name libgsttarnwick.so)")
  GST_REGISTRY=$work/registry.bin GST_PLUGIN_SYSTEM_PATH=$plugins gst-inspect-1.0 tarnwicksrc >"$work/inspect" 2>&1 ||
    fail "gst-inspect-1.0 does not find tarnwicksrc in the installed plugin: $(cat "$work/inspect")"
  for property in ring-name start wait-for-sps poll-interval parts lost-parts restarts; do
    grep -q "^  $property " "$work/inspect" || fail "gst-inspect-1.0 tarnwicksrc does not describe $property"
  done
  dpkg-deb --ctrl-tarfile "$gst_deb" | tar -t | grep -q postinst &&
    fail "gstreamer1.0-tarnwick has a postinst: tarnwick-rtsp.service stays off until enabled by hand"
fi

if command -v lintian >/dev/null; then
  for package in "$deb" "$dev_deb" "$python_deb" ${gst_deb:+"$gst_deb"}; do
    errors=$(lintian --tag-display-limit 0 "$package" 2>/dev/null | grep -E '^(E|W):' || true)
    [ -z "$errors" ] || fail "lintian: $errors"
  done
else
  fail "lintian is missing: scripts/setup.sh installs it"
fi

# The unit, against the package's own files laid over /usr.
mkdir -p "$work/root"
dpkg-deb -x "$deb" "$work/root"
[ -z "$gst_deb" ] || dpkg-deb -x "$gst_deb" "$work/root"
cp -a "$work/root/lib/." "$work/root/usr/lib/"
if ! unshare -m sh -c "mount -t overlay overlay -o lowerdir=$work/root/usr:/usr /usr &&
                       systemd-analyze verify --man=no /usr/lib/systemd/system/tarnwickrelay.service \
                         \$(ls /usr/lib/systemd/system/tarnwick-rtsp.service 2>/dev/null)" >"$work/verify" 2>&1; then
  fail "systemd-analyze verify: $(cat "$work/verify")"
fi
exposure=$(systemd-analyze security --offline=yes "$work/root/lib/systemd/system/tarnwickrelay.service" 2>&1 |
  sed -n 's/.*Overall exposure level for [^:]*: \([0-9.]*\).*/\1/p')
echo "systemd-analyze security: exposure $exposure"
awk -v e="${exposure:-99}" 'BEGIN { exit !(e <= 4.0) }' || fail "exposure ${exposure:-unknown} above 4.0"

# The daemon under the unit's confinement, in private namespaces.
unit=$work/root/lib/systemd/system/tarnwickrelay.service
bounding=$(sed -n 's/^CapabilityBoundingSet=//p' "$unit" | tr 'A-Z ' 'a-z,' | sed 's/cap_//g; s/^/+/; s/,/,+/g')
grep -q '^NoNewPrivileges=yes' "$unit" || fail "the unit allows new privileges"
export bounding root=$work/root
if ! unshare --net --mount --propagation private bash -s >"$work/confined" 2>&1 <<'INSIDE'
set -eu
mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
ip link set lo up
mkdir -p /run/tarnwickrelay
echo ap0 > /run/tarnwickrelay/ap.iface
"$root/usr/bin/tarnwick-camsim" --port=19004 --no-video > /run/camsim.log 2>&1 < /dev/null &
camsim=$!
setpriv --no-new-privs --bounding-set=-all,$bounding --inh-caps=-all \
  "$root/usr/bin/tarnwickrelay" --host=127.0.0.1 --port=19004 > /run/daemon.log 2>&1 &
daemon=$!
for _ in $(seq 100); do grep -q 'Camera connection found' /run/daemon.log && break; sleep 0.1; done
rules=$(iptables -t nat -S PREROUTING | grep -c 'REDIRECT --to-ports 9004' || true)
kill $daemon $camsim
wait 2>/dev/null || true
"$root/usr/lib/tarnwickrelay/remove-nat-rules"
left=$(iptables -t nat -S PREROUTING | grep -c 'REDIRECT --to-ports 9004' || true)
cat /run/daemon.log
echo "rules while running: $rules, after the clean-up: $left"
grep -q 'Camera connection found' /run/daemon.log && [ "$rules" = 1 ] && [ "$left" = 0 ]
INSIDE
then
  fail "the confined daemon: $(cat "$work/confined")"
fi
[ $failures -eq 0 ] && echo "package checks passed: $(basename "$deb") $(basename "$dev_deb") $(basename "$python_deb")${gst_deb:+ $(basename "$gst_deb")}"
exit $((failures > 0))
