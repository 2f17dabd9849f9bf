#!/usr/bin/env bash
# Deleting a synthetic home's removable folders: Cleaner::clean against rm -rf on an identical copy.
# Each run copies the source home twice (cp -a), syncs, lets writeback settle, then times both on
# the same item list, alternating which goes first. Prints per-run times, the medians and the ratio.
# The copies are made outside the shared build lock; settling and timing hold it.
# Usage: bench/clean_delete.sh [source-home] [runs] [work-folder]   (build first: cmake --build build)
# The source defaults to a make-home --scale 5 home, built once under /work/benchdata.
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/clean_delete"
src=${1:-/work/benchdata/scale5-src}
runs=${2:-5}
work=${3:-/work/benchdata/clean-delete-work}

if [ "$src" = /work/benchdata/scale5-src ] && [ ! -e /work/benchdata/scale5.done ]; then
  rm -rf "$src"
  /work/shared/tools/make-home --root "$src" --scale 5 --quiet
  touch /work/benchdata/scale5.done
fi

settle() { sync; sleep "${SETTLE_SECONDS:-8}"; }
seconds() { awk -v a="$2" -v b="$1" 'BEGIN{printf "%.3f", a-b}'; }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

ours=() theirs=()
for run in $(seq "$runs"); do
  rm -rf "$work"
  mkdir -p "$work"
  cp -a "$src" "$work/ours"
  cp -a "$src" "$work/rm"
  "$bin" list "$work/ours" "$work/list" >/dev/null
  # rm -rf runs from inside the copy: every entry must stay below it, whatever links it holds.
  if tr '\0' '\n' <"$work/list" | grep -Eq '^/|(^|/)\.\.?(/|$)'; then
    echo "refusing: the item list leaves the copy" >&2
    exit 1
  fi
  files=$(find "$work/ours" | wc -l)
  time_rm() {
    local s e
    s=$(date +%s.%N)
    (cd "$work/rm" && xargs -0 rm -rf -- <"$work/list")
    e=$(date +%s.%N)
    theirs+=("$(seconds "$s" "$e")")
  }
  time_ours() {
    local out
    out=$("$bin" clean "$work/ours" "$work/list")
    ours+=("$(echo "$out" | sed -E 's/.*seconds=([0-9.]+).*/\1/')")
    echo "  $out"
  }
  exec 9>"${KESTREL_LOCK:-/tmp/kestrel-build.lock}"
  flock 9
  settle
  if [ $((run % 2)) -eq 1 ]; then time_ours; settle; time_rm; else time_rm; settle; time_ours; fi
  flock -u 9
  # Both copies must be left the same: only what the policy refused is still there.
  left_ours=$(cd "$work/ours" && find . ! -path './Library/Application Support/orvo Kestrel*' | wc -l)
  left_rm=$(cd "$work/rm" && find . | wc -l)
  echo "run $run: entries=$files ours=${ours[-1]}s rm=${theirs[-1]}s left ours=$left_ours rm=$left_rm"
done
rm -rf "$work"
om=$(printf '%s\n' "${ours[@]}" | median)
rm_m=$(printf '%s\n' "${theirs[@]}" | median)
echo "Cleaner.clean median_s=$om"
echo "rm -rf median_s=$rm_m"
echo "ratio=$(awk -v a="$om" -v b="$rm_m" 'BEGIN{printf "%.2f", a/b}')"
