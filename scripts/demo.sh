#!/usr/bin/env bash
# The main job: installs what the build needs (scripts/setup.sh), builds the
# library and its tools without the test suite, then analyses the built-in
# demo capture (generated deterministically) and prints the figures an
# instrument would display, with the decisions checked against the truth.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
mkdir -p build
log=build/demo-build.log
[ -x build/demo/tools/analyzer/vantrel-analyze ] || echo "building the library and tools (a few minutes the first time)..."
if ! { cmake --preset demo && cmake --build --preset demo -j 2; } > "$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "demo: the build failed; the whole log is $log" >&2
  exit 1
fi
./build/demo/tools/analyzer/vantrel-analyze --demo
