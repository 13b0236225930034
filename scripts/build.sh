#!/usr/bin/env bash
# Configures and builds one variant: scripts/build.sh <dir> [address|thread]
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build}
sanitize=${2:-}
cmake -S . -B "$dir" -DSANITIZE="$sanitize" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$dir" -j"$(nproc)"
