#!/usr/bin/env bash
# Installs the Debian packages a job needs, and only those that are missing.
#
#   bash scripts/setup.sh build        # library, tools, demo
#   bash scripts/setup.sh build test   # ... and the test suite
#
# Each name is a list in scripts/packages/NAME.txt, one package a line (text
# after '#' is a comment), so adding a package is adding a line. Nothing is
# done when every package is installed; otherwise, as root, apt-get update and
# a quiet apt-get install of the missing ones. Not root and something missing:
# the command to run is printed and the script fails.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
[ $# -gt 0 ] || set -- build

wanted=()
for list in "$@"; do
  file=$here/packages/$list.txt
  if [ ! -f "$file" ]; then
    echo "setup: no package list '$list' (expected $file)" >&2
    exit 2
  fi
  while read -r pkg _; do
    [ -n "$pkg" ] && wanted+=("$pkg")
  done < <(sed 's/#.*//' "$file")
done

if ! command -v dpkg-query > /dev/null; then
  echo "setup: not a Debian system; make sure these (or their equivalents) are installed: ${wanted[*]}" >&2
  exit 0
fi

missing=()
for pkg in "${wanted[@]}"; do
  # Installed means dpkg reports the package fully installed, not merely known.
  status=$(dpkg-query -W -f='${db:Status-Status}' "$pkg" 2>/dev/null || true)
  [ "$status" = installed ] || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing Debian packages: ${missing[*]}" >&2
  echo "setup: install them as root, then run this command again:" >&2
  echo "  sudo apt-get install ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]} (apt-get, a minute or two on a fresh machine)"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
if ! { apt-get update -qq && apt-get install -y -qq --no-install-recommends "${missing[@]}"; } \
     > "$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  echo "setup: apt-get failed; see the messages above" >&2
  exit 1
fi
rm -f "$log"
