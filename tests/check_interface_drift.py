#!/usr/bin/env python3
"""The interface check catches drift: each change below makes one of the files that state the interface disagree
with docs/interface.json (a type, an offset, a size, a meaning, a format, a capacity), in a copy of the tree, and
tests/check_interface.py must fail on every one of them. Run by ctest beside the check itself."""

import os
import shutil
import subprocess
import sys
import tempfile

root = sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
files = ["docs/interface.json", "docs/interface.md", "clients/cpp/include/tarnwickclient.h",
         "clients/cpp/include/tarnwickclient/interface.h", "clients/cpp/src/report.cpp", "clients/python/tarnwick.py",
         "src/state/status_report.cpp", "src/state/camera_state.h"]
drifts = [
    ("docs/interface.md", "| ae | int |", "| ae | text |"),
    ("docs/interface.md", "| 36 | u16 | highest", "| 36 | i16 | highest"),
    ("docs/interface.md", "exactly 1504 bytes", "exactly 1500 bytes"),
    ("clients/cpp/include/tarnwickclient.h", "int32_t wb_temp;   ", "double wb_temp;    "),
    ("clients/cpp/include/tarnwickclient.h", "/* the camera model */", "/* \"Pocket 2\", \"Osmo Pocket\" */"),
    ("clients/cpp/include/tarnwickclient.h", "longest text value is 20", "longest text value is 23"),
    ("clients/cpp/include/tarnwickclient/interface.h", "kZoomMax = 36", "kZoomMax = 35"),
    ("clients/cpp/include/tarnwickclient/interface.h", "kRcSlotFlagOffset = 1412", "kRcSlotFlagOffset = 1410"),
    ("clients/cpp/src/report.cpp", "I32(ae)", "TEXT(ae)"),
    ("clients/python/tarnwick.py", '("wb_temp", int)', '("wb_temp", float)'),
    ("clients/python/tarnwick.py", '"<BBBhhhBBB', '"<BBBhHhBBB'),
    ("clients/python/tarnwick.py", "RC_FLAG_OFFSET = 1412", "RC_FLAG_OFFSET = 1410"),
    ("src/state/status_report.cpp", '"wb_temp=%1.0f,"', '"wb_temp=%.1f,"'),
    ("src/state/status_report.cpp", '"ae=%d,"', '"ae_lock=%d,"'),
    ("src/state/camera_state.h", "kCameraModelCapacity = 21", "kCameraModelCapacity = 24"),
]
caught = 0
for path, old, new in drifts:
    with tempfile.TemporaryDirectory() as tree:
        for f in files:
            os.makedirs(os.path.dirname(os.path.join(tree, f)), exist_ok=True)
            shutil.copy(os.path.join(root, f), os.path.join(tree, f))
        with open(os.path.join(tree, path), encoding="utf-8") as f:
            text = f.read()
        if old not in text:
            print("%s no longer holds %r: update this list" % (path, old))
            sys.exit(1)
        with open(os.path.join(tree, path), "w", encoding="utf-8") as f:
            f.write(text.replace(old, new, 1))
        run = subprocess.run([sys.executable, os.path.join(root, "tests", "check_interface.py"), tree],
                             stdout=subprocess.PIPE, universal_newlines=True)
        first = run.stdout.splitlines()[0] if run.stdout else ""
        print("%s: %s -> %s: %s" % (path, old, new, "caught" if run.returncode == 1 else "NOT CAUGHT"))
        print("    " + first)
        caught += run.returncode == 1
print("%d of %d drifts caught" % (caught, len(drifts)))
sys.exit(0 if caught == len(drifts) else 1)
