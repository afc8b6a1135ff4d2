#!/usr/bin/env bash
# End-to-end check of vantrel-siggen: usage "vantrel-siggen BINARY WORKDIR".
set -euo pipefail
gen=$1
work=$2
rm -rf "$work" && mkdir -p "$work" && cd "$work"
fail() { echo "FAIL: $*" >&2; exit 1; }

"$gen" --help | grep -q -- "--esno" || fail "--help does not document --esno"

"$gen" --mode QPSK --sps 8 --esno 30 --out demo --sigmf --quiet
[ "$(stat -c %s demo.bin)" -eq $((32000 * 4)) ] || fail "demo.bin is not 32000 I,Q pairs"
cmp -s demo.bin demo.sigmf-data || fail "SigMF data differs from the raw capture"
grep -q '"esn0_db": 30.0' demo.json || fail "sidecar lacks the Es/N0"
grep -q '"symbols": \[' demo.json || fail "sidecar lacks the symbols"
grep -q '"core:datatype": "ci16_le"' demo.sigmf-meta || fail "SigMF metadata lacks ci16_le"

# Same seed, same bytes; numeric codes and names are the same mode.
"$gen" --mode 5 --sps 8 --esno 30 --out again --quiet
cmp -s demo.bin again.bin || fail "two runs with one seed differ"

set +e
"$gen" --mode 16QAM --rms 30000 --out clip --quiet 2> clip.err
status=$?
set -e
[ "$status" -eq 2 ] || fail "clipping exited with $status, expected 2"
grep -q "clip" clip.err || fail "clipping message missing"
[ ! -e clip.bin ] || fail "a clipped capture was written"

set +e
"$gen" --mode QPSK --out bad --sps 100 2> /dev/null
status=$?
set -e
[ "$status" -eq 1 ] || fail "bad argument exited with $status, expected 1"
echo "vantrel-siggen: all checks passed"
