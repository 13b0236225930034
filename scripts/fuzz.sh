#!/usr/bin/env bash
# Runs the fuzz targets (as root: each enters private namespaces of its own).
#
#   scripts/fuzz.sh [target|all] [seconds per target] [--ci]
#
# Builds build-fuzz (clang, FUZZ=ON: the whole library instrumented for
# libFuzzer, with ASan and UBSan), replays the committed corpus
# fuzz/corpus/<target> through each target, then fuzzes it for the given time
# (default 60 s) on a working corpus under build-fuzz/work/<target>, seeded
# from the committed one; crash inputs land in build-fuzz/work/<target>/.
# Nothing is written into the source tree. Per target it prints executions,
# edges, and the line coverage of the source files that target is for,
# measured by replaying the working corpus through a second build with
# source-based coverage (build-fuzz-cov). --ci skips the coverage figures.
# Any crash fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."

targets=(camera_datagram telemetry_report app_datagram parameter_set video_ring remote_control)
wanted=${1:-all}
seconds=${2:-60}
ci=false
[ "${3:-}" = --ci ] && ci=true
[ "$wanted" = all ] || targets=("$wanted")

# The source files each target is for (coverage is reported over these).
sources_of() {
  case $1 in
    camera_datagram) echo src/camera/reassembly.cpp src/camera/camera_link.cpp src/video/frame_buffer.cpp ;;
    telemetry_report) echo src/state/telemetry_decoder.cpp src/state/report_texts.cpp ;;
    app_datagram) echo src/control/app_commands.cpp src/control/setting_commands.cpp src/control/camera_commands.cpp ;;
    parameter_set) echo src/video/h264parse.cpp ;;
    video_ring) echo src/video/frame_buffer.cpp clients/cpp/src/ring_reader.cpp ;;
    remote_control) echo src/control/remote_control.cpp ;;
  esac
}

llvm_bin=/usr/lib/llvm-14/bin
build() {  # build <dir> [cmake options]
  local dir=$1
  shift
  [ -f "$dir/CMakeCache.txt" ] ||
    cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DFUZZ=ON \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j"$(nproc)" >/dev/null
}

echo "building build-fuzz (clang, libFuzzer, ASan + UBSan) ..."
build build-fuzz
$ci || { echo "building build-fuzz-cov (source-based coverage) ..."; build build-fuzz-cov -DFUZZ_COVERAGE=ON; }

status=0
for target in "${targets[@]}"; do
  program=build-fuzz/fuzz/${target}_fuzz
  work=build-fuzz/work/$target
  mkdir -p "$work/corpus"
  dictionary=()
  [ -f "fuzz/$target.dict" ] && dictionary=(-dict="fuzz/$target.dict")
  echo "=== $target"
  # The committed corpus first: every input once.
  if ! "$program" -close_fd_mask=2 -runs=0 "fuzz/corpus/$target" >"$work/replay.log" 2>&1; then
    echo "replaying fuzz/corpus/$target failed:"; tail -n 30 "$work/replay.log"; status=1; continue
  fi
  if ! "$program" -close_fd_mask=2 -max_total_time="$seconds" -print_final_stats=1 -max_len=20000 \
      -artifact_prefix="$work/" "${dictionary[@]}" "$work/corpus" "fuzz/corpus/$target" >"$work/fuzz.log" 2>&1; then
    echo "a crash: input and report in $work/"; grep -A 30 -m 1 'ERROR\|deadly\|SUMMARY' "$work/fuzz.log" || tail -n 30 "$work/fuzz.log"
    status=1
    continue
  fi
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$work/fuzz.log")
  edges=$(grep -o 'cov: [0-9]*' "$work/fuzz.log" | tail -n 1 | cut -d' ' -f2)
  inputs=$(ls "$work/corpus" | wc -l)
  printf '%-18s executions %s, edges %s, working corpus %s inputs\n' "$target" "$executions" "$edges" "$inputs"
  $ci && continue
  rm -f "$work"/*.profraw
  LLVM_PROFILE_FILE="$work/%p.profraw" build-fuzz-cov/fuzz/${target}_fuzz -close_fd_mask=2 -runs=0 \
    "$work/corpus" "fuzz/corpus/$target" >/dev/null 2>&1 || true
  "$llvm_bin/llvm-profdata" merge -sparse "$work"/*.profraw -o "$work/coverage.profdata"
  # shellcheck disable=SC2046
  "$llvm_bin/llvm-cov" report "build-fuzz-cov/fuzz/${target}_fuzz" -instr-profile="$work/coverage.profdata" \
    $(sources_of "$target") | awk '/\.cpp|^TOTAL/ { sub(".*/src/", "src/", $1); printf "    %-40s lines %s of %s missed, %s covered\n", $1, $9, $8, $10 }'
done
exit $status
