#!/usr/bin/env bash
# Times GrowthTracker.takeSnapshot against du -s over the same folders on the shared scale-20 home.
# The home is read only; snapshots are written to a scratch folder beside it.
set -euo pipefail
repo="$(cd "$(dirname "$0")/.." && pwd)"
home="${1:-/work/benchdata/scale20}"
runs="${2:-5}"
[[ -f "$home.done" ]] || { echo "no finished home at $home (missing $home.done)" >&2; exit 1; }
store="$(mktemp -d /work/benchdata/growth-bench.XXXXXX)"
trap 'rm -rf -- "$store"' EXIT
sync
sleep 5
flock /tmp/kestrel-build.lock "$repo/build/growth_snapshot" "$home" "$store" "$runs"
