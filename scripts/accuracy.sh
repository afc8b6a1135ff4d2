#!/usr/bin/env bash
# Regenerates docs/accuracy.md: builds the library and its tools (no test
# framework needed), then runs vantrel-accuracy over every digital code,
# samples-per-symbol ratio and noise level (several minutes on two cores).
# Extra arguments go to the tool, e.g. --codes QPSK --out -.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build
mkdir -p build
log=build/accuracy-build.log
if ! { cmake --preset demo && cmake --build --preset demo -j 2 --target vantrel-accuracy; } > "$log" 2>&1; then
  tail -n 40 "$log" >&2
  echo "accuracy: the build failed; the whole log is $log" >&2
  exit 1
fi
if [ "$#" -eq 0 ]; then set -- --out docs/accuracy.md; fi
./build/demo/tools/accuracy/vantrel-accuracy "$@"
