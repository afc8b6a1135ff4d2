#!/usr/bin/env bash
# Installs what the build and the tests need (scripts/setup.sh), then builds
# and runs the whole test suite twice: a normal optimised build, then the same
# tests under AddressSanitizer, UndefinedBehaviorSanitizer (with
# float-cast-overflow) and LeakSanitizer.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh build test
for preset in default sanitize; do
  echo "=== $preset build ==="
  cmake --preset "$preset" > /dev/null
  cmake --build --preset "$preset" -j 2
  echo "=== $preset tests ==="
  ctest --preset "$preset"
done
