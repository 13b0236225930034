#!/usr/bin/env bash
# `pip install` of the Python client as a developer does it with no network: into a fresh virtual environment
# of Debian's python3, built by Debian's setuptools (--no-build-isolation: pip fetches nothing), from a copy of
# clients/python (pip builds in the tree it is given).
#
#   tests/packaging/pip_install.sh <source dir>
set -euo pipefail
source_dir=$1
python=/usr/bin/python3
"$python" -c 'import ensurepip, setuptools, wheel' 2>/dev/null ||
  { echo "needs python3-venv, python3-setuptools and python3-wheel (scripts/setup.sh): skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp -r "$source_dir/clients/python" "$work/source"
"$python" -m venv --system-site-packages "$work/venv"
PIP_FIND_LINKS= PIP_INDEX_URL=http://127.0.0.1:9/ "$work/venv/bin/pip" install --quiet --no-index --no-build-isolation \
  "$work/source"
"$work/venv/bin/python" - "$work/venv" <<'PYTHON'
import sys, tarnwick
assert tarnwick.__file__.startswith(sys.argv[1]), tarnwick.__file__
print("pip installed tarnwick into the virtual environment:", tarnwick.__file__)
PYTHON
