#!/usr/bin/env bash
# Times `kestrel scan` against `KestrelAgent scan` on the same home, alternating, on a warm cache:
# the front door's table, held-back counts and scan summary must cost next to nothing over the
# agent's scan. Usage: bench/kestrel_scan.sh HOME [RUNS]   (LAYOUT=linux for a Linux-shaped home)
# Time a home through a noatime bind mount (as root: mount --bind HOME M; mount -o remount,bind,noatime M),
# since the scans read access times and every run would otherwise change them.
set -euo pipefail
home=${1:?usage: bench/kestrel_scan.sh HOME [RUNS]}
runs=${2:-5}
build="$(dirname "$0")/../build"
export KESTREL_LAYOUT=${LAYOUT:-linux}

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
now() { date +%s.%N; }

sync
HOME="$home" "$build/KestrelAgent" scan >/dev/null
HOME="$home" "$build/kestrel" scan >/dev/null
agent=() host=()
for ((i = 0; i < runs; i++)); do
  t0=$(now); HOME="$home" "$build/KestrelAgent" scan >/dev/null; t1=$(now)
  HOME="$home" "$build/kestrel" scan >/dev/null; t2=$(now)
  agent+=("$(echo "$t1 - $t0" | bc -l)")
  host+=("$(echo "$t2 - $t1" | bc -l)")
done
a=$(printf '%s\n' "${agent[@]}" | median)
b=$(printf '%s\n' "${host[@]}" | median)
printf 'KestrelAgent scan  median %.3f s  (runs: %s)\n' "$a" "${agent[*]}"
printf 'kestrel scan       median %.3f s  (runs: %s)\n' "$b" "${host[*]}"
printf 'ratio  %.3f\n' "$(echo "$b / $a" | bc -l)"
