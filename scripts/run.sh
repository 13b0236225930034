#!/usr/bin/env bash
# Builds tarnwickrelay (the daemon and its tools, not the tests) and runs it.
# With a camera on the Wi-Fi (an interface with an address in 192.168.2.0/24)
# it talks to the camera; otherwise it starts the bundled camera simulator on
# loopback, on a free port of its own, and runs against that. Extra arguments
# go to the daemon (e.g. --verbose).
#
# Run it as root for the whole service (the NAT rule for the phone, the files
# under /run/tarnwickrelay); as a user it asks for sudo only to install what
# is missing, and the daemon runs without those two (the simulator needs
# neither). Ctrl-C (or SIGTERM) stops the daemon and the simulator and removes
# what the run made: its shared-memory objects, its /run files, its
# temporary folder.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh run

programs=(tarnwickrelay tarnwick-camsim tarnwick-monitor tarnwick-ringreader tarnwick-rcwriter)
[ -x build/tarnwickrelay ] || echo "Building the daemon and its tools (the first build takes a minute or two) ..."
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target "${programs[@]}" >/dev/null

run_files=(/run/tarnwickrelay/board_supported /run/tarnwickrelay/video_width /run/tarnwickrelay/video_height)
shared_objects=(tarnwickrelay_framebuffer tarnwickrelay_framebuffer_transcoding shared_camstate shared_rc_raw)
made=()   # what did not exist before this run, removed when it ends
for object in "${shared_objects[@]}"; do [ -e "/dev/shm/$object" ] || made+=("/dev/shm/$object"); done
for file in "${run_files[@]}"; do [ -e "$file" ] || made+=("$file"); done
if [ "$(id -u)" -eq 0 ] && [ ! -d /run/tarnwickrelay ]; then
  mkdir -p /run/tarnwickrelay
  made+=(/run/tarnwickrelay)
fi
work=$(mktemp -d "${TMPDIR:-/tmp}/tarnwick-run.XXXXXX")
made+=("$work")

children=()
stop() {
  trap - INT TERM EXIT
  for pid in "${children[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  for ((i = ${#made[@]} - 1; i >= 0; i--)); do rm -rf "${made[$i]}"; done
}
trap stop EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

if ip -4 addr show 2>/dev/null | grep -q 'inet 192\.168\.2\.'; then
  build/tarnwickrelay "$@" &
  children+=($!)
  wait "${children[0]}"
  exit $?
fi

# A free UDP port for the simulator, so that two runs (or a test) never meet.
port=
for _ in $(seq 50); do
  candidate=$((20000 + RANDOM % 20000))
  ss -uln 2>/dev/null | grep -q ":$candidate " || { port=$candidate; break; }
done
[ -n "$port" ] || { echo "no free UDP port found for the camera simulator" >&2; exit 1; }
video=()
[ -f tools/camsim/sample.h264 ] && video=(--video=tools/camsim/sample.h264)
control=$work/camsim.control   # lines written here reach the simulator ("set iso_set 400", "silent")
log=$work/camsim.log
mkfifo "$control"
build/tarnwick-camsim --port="$port" "${video[@]}" <"$control" >"$log" 2>&1 &
children+=($!)
exec 3>"$control"   # held open, so the simulator's input never ends between writes
echo "No camera network found: running against the camera simulator on 127.0.0.1:$port"
echo "  its log:           $log"
echo "  change its camera: echo 'set iso_set 400' > $control"
echo "  watch the status:  build/tarnwick-monitor     the video: build/tarnwick-ringreader | ffplay -f h264 -"
build/tarnwickrelay --host 127.0.0.1 --port "$port" "$@" &
children+=($!)
wait "${children[1]}"
