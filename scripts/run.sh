#!/usr/bin/env bash
# Builds tarnwickrelay and runs it. With a camera on the Wi-Fi (an interface
# with an address in 192.168.2.0/24) it talks to the camera; otherwise it
# starts the bundled camera simulator on loopback and runs against that.
# Extra arguments go to the daemon (e.g. --verbose).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh
scripts/build.sh build

mkdir -p /run/tarnwickrelay 2>/dev/null || true
if ip -4 addr show 2>/dev/null | grep -q 'inet 192\.168\.2\.'; then
  exec build/tarnwickrelay "$@"
fi

sim_port=19004
video=()
[ -f tools/camsim/sample.h264 ] && video=(--video=tools/camsim/sample.h264)
# Lines appended to this file reach the simulator ("set iso_set 400", "silent").
control=${TMPDIR:-/tmp}/tarnwick-camsim.ctl
: > "$control"
echo "No camera network found: running against the camera simulator on 127.0.0.1:$sim_port"
echo "Change the simulated camera with: echo 'set iso_set 400' >> $control"
echo "Watch the status with: build/tarnwick-monitor     Watch the video with: build/tarnwick-ringreader | ffplay -"
tail -n 0 -F "$control" 2>/dev/null | build/tarnwick-camsim --port=$sim_port "${video[@]}" > "${TMPDIR:-/tmp}/tarnwick-camsim.log" &
sim_pid=$!
trap 'kill $sim_pid 2>/dev/null; pkill -f "tail -n 0 -F $control" 2>/dev/null || true' EXIT
build/tarnwickrelay --host 127.0.0.1 --port $sim_port "$@"
