#!/usr/bin/env bash
# The main job: builds the library and its tools, then analyses the built-in
# demo capture (generated deterministically) and prints the figures an
# instrument would display, with the decisions checked against the truth.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default > /dev/null
cmake --build --preset default -j 2 > /dev/null
./build/default/tools/analyzer/vantrel-analyze --demo
