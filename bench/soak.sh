#!/usr/bin/env bash
# A long run of the whole relay as it is used in the field:
#
#   bench/soak.sh [--minutes=30] [--mbit=20] [--build=build]      (as root)
#
# In private network and mount namespaces (its own loopback, /dev/shm and /run) it
# plays a camera with the simulator, streaming an H.264 file of about --mbit Mbit/s
# made here with x264 (its own telemetry beside it), runs the daemon against it under
# a restart loop, and drives every other peer at once: the ring reader follows the
# video, the monitor sends one command a second (settings in turn), the
# remote-control writer moves a stick and a rocker every few seconds, and a phone
# talks to the bridge port for 20 s of every minute (so the relay hands its
# acknowledgements to the phone and takes them back again).
#
# At the end it prints: minutes run, the video rate, parts read and parts lost by
# the ring reader, the daemon's resident memory one minute in and at the end, its
# restarts, and the commands the simulator applied. Nothing is left behind.
set -euo pipefail

minutes=30
mbit=20
build=build
for argument in "$@"; do
  case $argument in
    --minutes=*) minutes=${argument#*=} ;;
    --mbit=*) mbit=${argument#*=} ;;
    --build=*) build=${argument#*=} ;;
    *) echo "usage: bench/soak.sh [--minutes=N] [--mbit=N] [--build=DIR]" >&2; exit 2 ;;
  esac
done
cd "$(dirname "$0")/.."
build=$(realpath "$build")
[ "$(id -u)" -eq 0 ] || { echo "bench/soak.sh needs root (private namespaces)" >&2; exit 2; }
for program in tarnwickrelay tarnwick-camsim tarnwick-ringreader tarnwick-monitor tarnwick-rcwriter; do
  [ -x "$build/$program" ] || { echo "missing $build/$program: build first (scripts/build.sh)" >&2; exit 2; }
done

if [ -z "${TARNWICK_SOAK_INSIDE:-}" ]; then
  TARNWICK_SOAK_INSIDE=1 exec unshare --net --mount --propagation private "$0" "$@"
fi

mount -t tmpfs tmpfs /dev/shm
mount -t tmpfs tmpfs /run
ip link set lo up
mkdir -p /run/tarnwickrelay
work=$(mktemp -d /tmp/tarnwick-soak.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ -n "${TARNWICK_SOAK_KEEP:-}" ] && cp -r "$work" /tmp/soak-kept
  rm -rf "$work"
}
trap cleanup EXIT

# Video of the asked rate: noise keeps x264 from compressing it below the target.
echo "making ${mbit} Mbit/s of H.264 ..." >&2
ffmpeg -loglevel error -f lavfi -i "testsrc2=size=1280x720:rate=30" -t 20 \
  -vf "noise=alls=30:allf=t" -c:v libx264 -preset ultrafast -pix_fmt yuv420p \
  -b:v "${mbit}M" -maxrate "${mbit}M" -minrate "${mbit}M" -bufsize "$((mbit / 2))M" -x264-params nal-hrd=cbr \
  -f h264 "$work/video.h264"
video_mbit=$(awk -v bytes="$(stat -c %s "$work/video.h264")" 'BEGIN { printf "%.1f", bytes * 8 / 20 / 1e6 }')

camera_port=19004
mkfifo "$work/camsim.in"
"$build/tarnwick-camsim" --port=$camera_port --video="$work/video.h264" <"$work/camsim.in" >"$work/camsim.log" 2>&1 &
pids+=($!)
exec 7>"$work/camsim.in"   # keeps the simulator's input open

# The daemon, restarted as a supervisor would; every restart is counted.
(
  while :; do
    "$build/tarnwickrelay" --host 127.0.0.1 --port $camera_port >>"$work/daemon.log" 2>&1 || true
    echo restart >>"$work/restarts"
    sleep 2
  done
) &
pids+=($!)
: >"$work/restarts"

daemon_pid() { pgrep -x -n tarnwickrelay || true; }
for _ in $(seq 50); do [ -n "$(daemon_pid)" ] && break; sleep 0.1; done

# The reader stands for a main application that keeps up: real-time priority, so
# that parts it loses are the relay's, not the scheduler's (200 slots of 1400-byte
# parts hold about 0.1 s of video).
chrt -f 10 "$build/tarnwick-ringreader" --wait --out=/dev/null 2>"$work/ringreader.log" &
reader=$!
pids+=($reader)

mkfifo "$work/monitor.in"
"$build/tarnwick-monitor" <"$work/monitor.in" >"$work/monitor.log" 2>&1 &
pids+=($!)
exec 8>"$work/monitor.in"
mkfifo "$work/rc.in"
"$build/tarnwick-rcwriter" - <"$work/rc.in" >"$work/rc.log" 2>&1 &
pids+=($!)
exec 9>"$work/rc.in"

# The phone: a datagram every 100 ms to the bridge port for the first 20 s of each minute.
python3 - >"$work/phone.log" 2>&1 <<'EOF' &
import socket, time
phone = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
phone.setblocking(False)
start = time.monotonic()
while True:
    if (time.monotonic() - start) % 60 < 20:
        phone.sendto(bytes(34), ("127.0.0.1", 9004))
    try:
        while phone.recv(65536):
            pass
    except BlockingIOError:
        pass
    time.sleep(0.1)
EOF
pids+=($!)

rss_kb() { awk '/^VmRSS/ { found = $2 } END { print found + 0 }' "/proc/$1/status" 2>/dev/null || echo 0; }
settings=("iso 400" "iso 800" "ev +0.7" "ev -0.7" "wb auto" "iso auto")
rss_start=0
rss_peak=0
start=$(date +%s)
end=$((start + minutes * 60))
second=0
echo "set movement abs" >&8
while [ "$(date +%s)" -lt "$end" ]; do
  sleep 1
  second=$((second + 1))
  echo "${settings[$((second % ${#settings[@]}))]}" >&8
  if [ $((second % 5)) -eq 0 ]; then
    echo "stick $((second % 10 == 0 ? 1 : -1)).0 0 0" >&9 || true
    echo "press iso-next" >&9 || true
  fi
  pid=$(daemon_pid)
  if [ -n "$pid" ]; then
    rss=$(rss_kb "$pid")
    [ "$second" -eq 60 ] && rss_start=$rss
    [ "$rss" -gt "$rss_peak" ] && rss_peak=$rss
  fi
  [ $((second % 300)) -eq 0 ] && echo "soak: ${second} s, rss ${rss:-?} kB" >&2
done
rss_end=$(rss_kb "$(daemon_pid)")
[ "$rss_start" -eq 0 ] && rss_start=$rss_end

kill -INT $reader
wait $reader 2>/dev/null || true
summary=$(tail -n 1 "$work/ringreader.log")
parts=$(echo "$summary" | awk '{ print $1 }')
lost=$(echo "$summary" | awk '{ print $5 }')
gaps=$(grep -c 'lost' "$work/ringreader.log" | awk '{ print $1 - 1 }')
restarts=$(wc -l <"$work/restarts")
applied=$(grep -c 'applied' "$work/camsim.log" || true)
found=$(grep -c 'DJI MIMO connection found' "$work/daemon.log" || true)

printf 'minutes              %s\n' "$minutes"
printf 'video                %s Mbit/s file, looped\n' "$video_mbit"
printf 'parts read           %s (%s/s)\n' "$parts" "$((parts / (minutes * 60)))"
printf 'parts lost           %s (in %s gaps)\n' "$lost" "$gaps"
printf 'resident memory      %s kB at 1 min, %s kB at the end, peak %s kB\n' "$rss_start" "$rss_end" "$rss_peak"
printf 'restarts             %s\n' "$restarts"
printf 'commands applied     %s (simulator)\n' "$applied"
printf 'phone sessions       %s\n' "$found"
[ "$lost" = 0 ] && [ "$restarts" -eq 0 ]
