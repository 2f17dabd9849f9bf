#!/usr/bin/env bash
# Compares FS::allocatedSize with GNU `du -s` on the same tree, side by side, warm cache.
# Usage: bench/allocated_size.sh <folder> [runs]   (build first: cmake --build build)
set -euo pipefail
dir=${1:?folder}
runs=${2:-5}
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/allocated_size"
sync
sleep 5
du -s "$dir" >/dev/null   # warm the cache
"$bin" "$dir" 1 >/dev/null
times=()
for _ in $(seq "$runs"); do
  s=$(date +%s.%N); du -s "$dir" >/dev/null; e=$(date +%s.%N)
  times+=("$(awk -v a="$e" -v b="$s" 'BEGIN{printf "%.3f", a-b}')")
done
du_median=$(printf '%s\n' "${times[@]}" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
ours=$("$bin" "$dir" "$runs")
ours_median=$(echo "$ours" | sed -E 's/.*median_s=([0-9.]+).*/\1/')
echo "du -s median_s=$du_median"
echo "$ours"
echo "ratio=$(awk -v a="$ours_median" -v b="$du_median" 'BEGIN{printf "%.2f", a/b}')"
