#!/usr/bin/env bash
# The shredder's first sweep of a Downloads-like folder against `jdupes -r` on the same folder,
# warm cache, then the second sweep of the unchanged folder (its content bytes read are counted).
# The folder is built once by make-home (--profile downloads); each run sweeps a hard-linked copy
# of it (cp -al: same content, same page cache), since a sweep moves the duplicates it finds into
# the quarantine. Runs alternate which tool goes first; medians are printed.
# Usage: bench/shredder_sweep.sh [files] [size] [runs] [work-folder]   (build first; needs jdupes)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/shredder_sweep"
files=${1:-2000}
size=${2:-4G}
runs=${3:-5}
work=${4:-/tmp/shredder-sweep-bench}
median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
command -v jdupes >/dev/null || { echo "jdupes is not installed (apt-get install -y jdupes)"; exit 1; }

rm -rf "$work"
mkdir -p "$work"
/work/shared/tools/make-home --root "$work/src" --profile downloads --files "$files" --size "$size" --quiet
cat "$work"/src/* >/dev/null  # warm the page cache

ours=() theirs=() second=() secondBytes=()
for run in $(seq "$runs"); do
  rm -rf "$work/run"
  mkdir -p "$work/run/home"
  cp -al "$work/src" "$work/run/home/Downloads"
  sync  # the copy's links and the last run's quarantine are written back before timing
  jd() {
    theirs+=("$(flock /tmp/kestrel-build.lock bash -c 's=$(date +%s.%N); jdupes -r -q "$1" >/dev/null; echo "$(date +%s.%N) - $s" | bc' _ "$work/src")")
  }
  if (( run % 2 )); then jd; fi
  out=$(flock /tmp/kestrel-build.lock "$bin" "$work/run/home")
  if (( run % 2 == 0 )); then jd; fi
  echo "  run $run: $out jdupes=${theirs[-1]}"
  ours+=("$(echo "$out" | sed -E 's/.*first=([0-9.]+).*/\1/')")
  second+=("$(echo "$out" | sed -E 's/.* second=([0-9.]+).*/\1/')")
  secondBytes+=("$(echo "$out" | sed -E 's/.*secondBytesRead=([0-9]+).*/\1/')")
done
m_ours=$(printf '%s\n' "${ours[@]}" | median)
m_theirs=$(printf '%s\n' "${theirs[@]}" | median)
echo "first sweep median ${m_ours}s, jdupes -r median ${m_theirs}s, ratio $(echo "scale=2; $m_ours / $m_theirs" | bc)"
echo "second sweep median $(printf '%s\n' "${second[@]}" | median)s, content bytes read: ${secondBytes[*]}"
rm -rf "$work"
