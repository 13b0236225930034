#!/usr/bin/env bash
# Makes tools/camsim/sample.h264, the clip that scripts/run.sh has the camera
# simulator stream when no camera is around: four seconds of ffmpeg's moving
# test picture, 640x360 at 25 pictures a second (written into the stream's
# timing, which sets the simulator's pace), a key picture with its parameter
# sets every second, small enough to commit (x264, Debian package).
set -euo pipefail
cd "$(dirname "$0")"
ffmpeg -v error -f lavfi -i "testsrc2=size=640x360:rate=25" -frames:v 100 -pix_fmt yuv420p -f yuv4mpegpipe - |
  x264 --quiet --demuxer y4m --profile main --keyint 25 --fps 25 --crf 28 -o sample.h264 - 2>/dev/null
ls -l sample.h264
