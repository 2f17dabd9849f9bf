#!/usr/bin/env bash
# An idle "shred-watch": CPU time used while nothing changes in the watched folders, and peak
# memory. The watcher should sleep in the kernel between events (target: no CPU, under 16 MB).
# Usage: bench/shredder_idle.sh [seconds]   (build first: cmake --build build)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
home=$(mktemp -d)
pid=
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null && wait "$pid" 2>/dev/null
  rm -rf "$home"
}
trap cleanup EXIT
mkdir -p "$home/Downloads" "$home/Desktop"
for i in $(seq 1 200); do head -c 8192 /dev/urandom >"$home/Downloads/file$i.bin"; done
export HOME="$home" KESTREL_LAYOUT=linux
"$here/build/kestrel" shredder on >/dev/null
"$here/build/KestrelAgent" shred-watch >/dev/null &
pid=$!
sleep 3  # the first sweep is over
ticks() { awk '{print $14 + $15}' "/proc/$pid/stat"; }
before=$(ticks)
sleep "$seconds"
after=$(ticks)
echo "idle ${seconds} s: $((after - before)) CPU ticks ($(getconf CLK_TCK) a second); peak RSS $(awk '/VmHWM/ {print $2, $3}' "/proc/$pid/status")"
