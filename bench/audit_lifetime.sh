#!/usr/bin/env bash
# lifetimeFreed over a 1,000,000-record audit log: the streaming reader against decoding every
# line of the whole file (the baseline). Prints the median of five runs of each, and peak RSS.
set -euo pipefail
cd "$(dirname "$0")/.."
BIN=build/audit_lifetime
HOME_DIR=${1:-/work/benchdata/audit-home}
RECORDS=${RECORDS:-1000000}
if [ ! -s "$HOME_DIR/Library/Application Support/orvo Kestrel/audit.jsonl" ]; then
  mkdir -p "$HOME_DIR"
  "$BIN" generate "$HOME_DIR" "$RECORDS"
  sync
  sleep 2
fi
ls -l "$HOME_DIR/Library/Application Support/orvo Kestrel/audit.jsonl"
for mode in stream naive; do
  for i in 1 2 3 4 5; do "$BIN" "$mode" "$HOME_DIR"; done | sort -t= -k3 -n | sed -n 3p | sed "s/^/median: /"
done
