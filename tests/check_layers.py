#!/usr/bin/env python3
"""The daemon's floors (docs/architecture.md) as a check: a file in src/ includes only its own folder, folders on
lower floors, and the interface header; two folders never include each other; and no two files include each
other's headers (they would call each other). Prints every breach; exits 1 when there is one."""
import os
import re
import sys

FLOORS = {"net": 1, "camera": 2, "video": 3, "state": 3, "control": 4, "bridge": 5, "app": 6}
SHARED = ("tarnwickclient/",)  # header-only interface facts, below every floor

def main(root):
    src = os.path.join(root, "src")
    includes = {}  # "folder/file" -> set of included "folder/file.h"
    for folder in FLOORS:
        for base, _, names in os.walk(os.path.join(src, folder)):
            for name in names:
                if not name.endswith((".cpp", ".h")):
                    continue
                path = os.path.join(base, name)
                key = os.path.relpath(path, src)
                with open(path, encoding="utf-8") as text:
                    includes[key] = set(re.findall(r'^#include "([^"]+)"', text.read(), re.M))
    breaches = []
    folder_edges = set()
    for key, targets in sorted(includes.items()):
        folder = key.split("/")[0]
        for target in sorted(targets):
            if target.startswith(SHARED):
                continue
            other = target.split("/")[0]
            if other not in FLOORS:
                breaches.append(f"{key}: includes {target}, outside the daemon's floors")
                continue
            if other == folder:
                continue
            folder_edges.add((folder, other))
            if FLOORS[other] >= FLOORS[folder]:
                breaches.append(f"{key}: includes {target}, on floor {FLOORS[other]} (it stands on {FLOORS[folder]})")
    for a, b in sorted(folder_edges):
        if (b, a) in folder_edges and a < b:
            breaches.append(f"folders {a}/ and {b}/ include each other")
    # Files that call each other: a.cpp includes b.h while b.cpp includes a.h.
    for key, targets in includes.items():
        if not key.endswith(".cpp"):
            continue
        own_header = key[:-4] + ".h"
        for target in targets:
            partner = target[:-2] + ".cpp"
            if target != own_header and own_header in includes.get(partner, ()) and key < partner:
                breaches.append(f"{key} and {partner} include each other's headers")
    for breach in breaches:
        print(breach)
    print(f"{len(includes)} files, {len(breaches)} breaches")
    return 1 if breaches else 0

if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else os.path.join(os.path.dirname(__file__), "..")))
