#!/usr/bin/env bash
# Builds and runs every test three times: plain, under AddressSanitizer +
# UndefinedBehaviorSanitizer, and under ThreadSanitizer; then the fuzz targets
# in their instrumented build: the committed corpus replayed through each, and
# each fuzzed for a short while; then the arm64 and armhf cross builds
# (scripts/cross.sh); last, the arm64 package on an arm64 kernel
# (tests/boot/arm64_boot.sh: Debian arm64 under qemu-system-aarch64).
# Any failure, crash or sanitizer report fails the run. System tests need root
# (they put the daemon in private network and mount namespaces) and skip
# elsewhere.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup.sh

export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:exitcode=66

# ThreadSanitizer cannot map its shadow memory with the high address-space
# randomisation of recent kernels; run its tests with randomisation off.
no_aslr=()
setarch "$(uname -m)" -R true 2>/dev/null && no_aslr=(setarch "$(uname -m)" -R)

status=0
for variant in build: build-asan:address build-tsan:thread; do
  dir=${variant%%:*}
  sanitize=${variant#*:}
  echo "=== $dir ${sanitize:+($sanitize)}"
  scripts/build.sh "$dir" "$sanitize"
  # The GStreamer side is optional at configure time, not here: the plain build must have made it.
  if [ -z "$sanitize" ] && { [ ! -f "$dir/gst/libgsttarnwick.so" ] || [ ! -x "$dir/tarnwick-rtsp" ]; }; then
    echo "FAIL: $dir has no GStreamer plugin or tarnwick-rtsp (see the configure messages)"; status=1
  fi
  runner=()
  [ "$sanitize" = thread ] && runner=("${no_aslr[@]}")
  "${runner[@]}" ctest --test-dir "$dir" --output-on-failure -j4 --timeout 300 || status=1
done
echo "=== build-fuzz (libFuzzer, ASan + UBSan)"
scripts/fuzz.sh all "${TARNWICK_FUZZ_SECONDS:-30}" --ci || status=1
# The boards' builds (64-bit and 32-bit): cross-compiled, unit tests under qemu-user, their packages.
scripts/cross.sh arm64 || status=1
scripts/cross.sh armhf || status=1
# The arm64 package and the threaded unit tests that qemu-user cannot run, on an arm64 kernel (skipped, exit 77,
# where it cannot run: no mirror for its root file system).
echo "=== arm64 on qemu-system-aarch64"
scripts/setup.sh board
arm64=0
tests/boot/arm64_boot.sh build-arm64 || arm64=$?
[ $arm64 -eq 0 ] || [ $arm64 -eq 77 ] || status=1
exit $status
