#!/usr/bin/env bash
# The main job: builds the library and analyses a built-in demo capture,
# printing the figures an instrument would display.
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default > /dev/null
cmake --build --preset default -j 2 > /dev/null
./build/default/examples/vantrel_host_example
