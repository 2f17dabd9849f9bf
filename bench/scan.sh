#!/usr/bin/env bash
# Compares `KestrelAgent scan` with `du -s` over the folders the scanners visit, side by side on a
# warm cache, and reports the agent's peak memory. Usage: bench/scan.sh HOME [RUNS] [AGENT]
# LAYOUT=linux for a Linux-shaped home (make-home --profile linux); macOS-shaped by default.
set -euo pipefail
home=${1:?usage: bench/scan.sh HOME [RUNS] [AGENT]}
runs=${2:-5}
agent=${3:-"$(dirname "$0")/../build/KestrelAgent"}
export KESTREL_LAYOUT=${LAYOUT:-macos}

# Every folder a default-scan scanner lists or measures (the package caches that exist).
folders=()
if [ "$KESTREL_LAYOUT" = linux ]; then
  rels=(".cache" ".var/app" "snap" ".local/state" ".local/share/Trash" ".local/share/xorg" "Downloads" "Desktop"
    ".local/share/pnpm/store" ".npm/_cacache" ".yarn/berry/cache" ".pnpm-store" ".bun/install/cache"
    ".cargo/registry/cache" ".cargo/git/checkouts" "go/pkg/mod/cache/download" ".gradle/caches"
    ".gradle/wrapper/dists" ".m2/repository" ".android/cache" ".expo" ".conda/pkgs" ".nuget/packages")
  for app in "$home"/.config/*/; do
    for sub in "Cache" "Code Cache" "GPUCache" "Service Worker/CacheStorage" "Crashpad/completed"; do
      [ -d "$app$sub" ] && rels+=("${app#"$home"/}$sub")
    done
  done
else
  rels=("Library/Caches" "Library/Logs" ".Trash" "Library/Saved Application State"
    "Library/Containers/com.apple.mail/Data/Library/Mail Downloads"
    ".npm/_cacache" ".yarn/berry/cache" "Library/pnpm/store" ".pnpm-store" ".bun/install/cache"
    ".cache/pip" ".cache/uv" ".cargo/registry/cache" ".cargo/git/checkouts" "go/pkg/mod/cache/download"
    ".gradle/caches" ".gradle/wrapper/dists" ".m2/repository" ".cache/huggingface" ".android/cache" ".expo")
fi
for rel in "${rels[@]}"; do
  [ -d "$home/$rel" ] && [ ! -L "$home/$rel" ] && folders+=("$home/$rel")
done

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
now() { date +%s.%N; }

# Warm the cache with one run of each.
HOME="$home" "$agent" scan >/dev/null
du -s "${folders[@]}" >/dev/null 2>&1 || true

ours=() theirs=()
for ((i = 0; i < runs; i++)); do
  t0=$(now); HOME="$home" "$agent" scan >/dev/null; t1=$(now)
  du -s "${folders[@]}" >/dev/null 2>&1 || true; t2=$(now)
  ours+=("$(echo "$t1 - $t0" | bc -l)")
  theirs+=("$(echo "$t2 - $t1" | bc -l)")
done
a=$(printf '%s\n' "${ours[@]}" | median)
b=$(printf '%s\n' "${theirs[@]}" | median)
rss=$( { HOME="$home" /usr/bin/time -v "$agent" scan >/dev/null; } 2>&1 | awk -F': ' '/Maximum resident/ {print $2}')
printf 'scan   median %.3f s  (runs: %s)\n' "$a" "${ours[*]}"
printf 'du -s  median %.3f s  (runs: %s)\n' "$b" "${theirs[*]}"
printf 'ratio  %.2f\n' "$(echo "$a / $b" | bc -l)"
printf 'peak RSS %s KB\n' "$rss"
