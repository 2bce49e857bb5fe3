#!/bin/sh
# The installed service's exposure as systemd rates it (0 safe .. 10 unsafe) must stay
# at most the limit. Exits 77 (skipped) without systemd-analyze.
# Usage: unit-security.sh <build dir> [limit]
set -eu
build=$1
limit=${2:-3.5}
if ! command -v systemd-analyze > /dev/null; then
  echo "skipped: no systemd-analyze on this machine"
  exit 77
fi
prefix=$(mktemp -d)
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" > /dev/null
unit="$prefix/lib/systemd/system/mixerd.service"
report=$(systemd-analyze security --offline=yes --no-pager "$unit" 2>&1 || true)
level=$(printf '%s\n' "$report" | sed -n 's/.*Overall exposure level for mixerd.service: \([0-9.]*\).*/\1/p')
if [ -z "$level" ]; then
  printf '%s\n' "$report"
  echo "no exposure level in the report"
  exit 1
fi
printf '%s\n' "$report" | grep '^✗' || true
echo "exposure $level (limit $limit)"
awk -v l="$level" -v m="$limit" 'BEGIN { exit !(l + 0 <= m + 0) }'
