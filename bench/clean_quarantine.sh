#!/usr/bin/env bash
# Quarantining small log folders against deleting them: the same Cleaner::clean of the logs
# category on two identical copies of a home, one whose config.json sends logs to the quarantine,
# one whose config.json deletes them. Each run copies the source home twice (cp -a), syncs, lets
# writeback settle, then times both, alternating which goes first. Prints per-run times, the
# medians and the ratio, then the bytes the quarantine writes to its manifest and journal for
# 1,000, 2,000 and 4,000 items (they must grow linearly).
# The copies are made outside the shared build lock; settling and timing hold it.
# Usage: bench/clean_quarantine.sh [items] [runs] [work-folder]   (build first: cmake --build build)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/clean_quarantine"
items=${1:-4000}
runs=${2:-7}
work=${3:-/work/benchdata/clean-quarantine-work}

settle() { sync; sleep "${SETTLE_SECONDS:-8}"; }
median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
support="Library/Application Support/orvo Kestrel"

rm -rf "$work"
mkdir -p "$work"
"$bin" make "$work/src" "$items"

copy() {  # copy NAME DISPOSAL
  rm -rf "${work:?}/$1"
  cp -a "$work/src" "$work/$1"
  mkdir -p "$work/$1/$support"
  printf '{"disposalOverrides": {"logs": "%s"}}\n' "$2" >"$work/$1/$support/config.json"
}

ours=() theirs=()
for run in $(seq "$runs"); do
  copy quarantine quarantine
  copy delete delete
  time_ours() {
    local out
    out=$("$bin" clean "$work/quarantine")
    ours+=("$(echo "$out" | sed -E 's/.*seconds=([0-9.]+).*/\1/')")
    echo "  $out"
  }
  time_delete() {
    local out
    out=$("$bin" clean "$work/delete")
    theirs+=("$(echo "$out" | sed -E 's/.*seconds=([0-9.]+).*/\1/')")
    echo "  $out"
  }
  exec 9>"${KESTREL_LOCK:-/tmp/kestrel-build.lock}"
  flock 9
  settle
  if [ $((run % 2)) -eq 1 ]; then time_ours; settle; time_delete; else time_delete; settle; time_ours; fi
  flock -u 9
  # Both cleans must have taken every log folder.
  left_q=$(find "$work/quarantine/Library/Logs" -mindepth 1 | wc -l)
  left_d=$(find "$work/delete/Library/Logs" -mindepth 1 | wc -l)
  stored=$(find "$work/quarantine/$support/Quarantine" -mindepth 3 -maxdepth 3 -path '*/items/*' | wc -l)
  echo "run $run: quarantine=${ours[-1]}s delete=${theirs[-1]}s left quarantine=$left_q delete=$left_d stored=$stored"
  if [ "$left_q" -ne 0 ] || [ "$left_d" -ne 0 ] || [ "$stored" -ne "$items" ]; then
    echo "a clean left items behind" >&2
    exit 1
  fi
done
om=$(printf '%s\n' "${ours[@]}" | median)
dm=$(printf '%s\n' "${theirs[@]}" | median)
echo "quarantine median_s=$om"
echo "delete median_s=$dm"
echo "ratio=$(awk -v a="$om" -v b="$dm" 'BEGIN{printf "%.2f", a/b}')"

for n in 1000 2000 4000; do
  "$bin" bytes "$work/bytes-$n" "$n"
done
rm -rf "$work"
