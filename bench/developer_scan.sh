#!/usr/bin/env bash
# Compares the developer scanners with `du -s` over the folders they search, and the project search
# alone with `find <roots> -name node_modules -prune`, side by side on a warm cache (medians).
# A fake docker answering with captured output stands first on PATH: the benchmark never asks a
# real engine. Usage: bench/developer_scan.sh HOME [RUNS]
set -euo pipefail
home=${1:?usage: bench/developer_scan.sh HOME [RUNS]}
runs=${2:-5}
bin="$(dirname "$0")/../build/developer_scan"

fake="$(mktemp -d)"
trap 'rm -rf -- "$fake"' EXIT
cat >"$fake/docker" <<'EOF'
#!/bin/sh
case "$1" in
  system) echo '{"Type":"Images","Reclaimable":"1.2GB (50%)"}'; echo '{"Type":"Build Cache","Reclaimable":"300MB"}' ;;
  image) echo '{"Size":"150MB"}' ;;
esac
EOF
chmod +x "$fake/docker"
export PATH="$fake:$PATH"

roots=()
for rel in Developer Projects projects src code Code git repos work workspace Documents/GitHub; do
  [ -d "$home/$rel" ] && [ ! -L "$home/$rel" ] && roots+=("$home/$rel")
done
folders=("${roots[@]}")
for rel in "Library/Developer/Xcode/DerivedData" "Library/Developer/Xcode/Archives" \
  "Library/Developer/Xcode/iOS DeviceSupport" "Library/Developer/Xcode/watchOS DeviceSupport" \
  "Library/Caches/com.apple.dt.Xcode" "Library/Developer/CoreSimulator/Devices" \
  "Library/Developer/CoreSimulator/Caches"; do
  [ -d "$home/$rel" ] && [ ! -L "$home/$rel" ] && folders+=("$home/$rel")
done

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
now() { date +%s.%N; }

# Warm the cache with one run of each.
"$bin" "$home" all >/dev/null
du -s "${folders[@]}" >/dev/null 2>&1 || true
find "${roots[@]}" -name node_modules -prune >/dev/null 2>&1 || true

scan=() du=() projects=() finds=() stale=()
for ((i = 0; i < runs; i++)); do
  read -r s items bytes < <("$bin" "$home" all); scan+=("$s")
  t0=$(now); du -s "${folders[@]}" >/dev/null 2>&1 || true; t1=$(now); du+=("$(echo "$t1 - $t0" | bc -l)")
  read -r p _ _ < <("$bin" "$home" projects); projects+=("$p")
  read -r w staleItems staleBytes < <("$bin" "$home" all-stale); stale+=("$w")
  t0=$(now); find "${roots[@]}" -name node_modules -prune >/dev/null 2>&1 || true; t1=$(now)
  finds+=("$(echo "$t1 - $t0" | bc -l)")
done
a=$(printf '%s\n' "${scan[@]}" | median); b=$(printf '%s\n' "${du[@]}" | median)
c=$(printf '%s\n' "${projects[@]}" | median); d=$(printf '%s\n' "${finds[@]}" | median)
printf 'developer scan  median %.3f s (%s items, %s bytes; runs: %s)\n' "$a" "$items" "$bytes" "${scan[*]}"
printf 'du -s           median %.3f s (runs: %s)\n' "$b" "${du[*]}"
printf 'ratio           %.2f\n' "$(echo "$a / $b" | bc -l)"
e=$(printf '%s\n' "${stale[@]}" | median)
printf 'every project stale: median %.3f s (%s items, %s bytes; ratio to du -s %.2f)\n' "$e" "$staleItems" "$staleBytes" \
  "$(echo "$e / $b" | bc -l)"
printf 'project search  median %.3f s (runs: %s)\n' "$c" "${projects[*]}"
printf 'find -prune     median %.3f s (runs: %s)\n' "$d" "${finds[*]}"
printf 'ratio           %.2f\n' "$(echo "$c / $d" | bc -l)"
