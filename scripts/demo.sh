#!/usr/bin/env bash
# The main job: installs what the build needs (scripts/setup.sh), builds the
# library and its tools without the test suite, then analyses the built-in
# demo capture (generated deterministically) and prints the figures an
# instrument would display, with the decisions checked against the truth.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
cmake --preset demo > /dev/null
cmake --build --preset demo -j 2 > /dev/null
./build/demo/tools/analyzer/vantrel-analyze --demo
