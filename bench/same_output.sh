#!/usr/bin/env bash
# Runs every read-only command (and a dry-run clean of every category) of two builds of the
# agent on the same synthetic home and compares their output byte for byte: the proof that a
# change meant to alter no behaviour (a re-layering) altered none.
# Usage: bench/same_output.sh BEFORE AFTER [scale]   (commits; each is built into a scratch worktree
# unless AGENT_BEFORE and AGENT_AFTER name agents built from them)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
before=${1:?before commit}
after=${2:?after commit}
scale=${3:-0.05}
work=$(mktemp -d)
trap 'git -C "$here" worktree remove --force "$work/before" >/dev/null 2>&1 || true;
      git -C "$here" worktree remove --force "$work/after" >/dev/null 2>&1 || true; rm -rf "$work"' EXIT

build() {
  git -C "$here" worktree add --detach "$work/$1" "$2" >/dev/null
  cmake -S "$work/$1" -B "$work/$1/build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKESTREL_TESTS=OFF \
    -DKESTREL_BENCH=OFF >/dev/null
  cmake --build "$work/$1/build" --target KestrelAgent >/dev/null
}
# AGENT_BEFORE / AGENT_AFTER: agents built already from those commits (nothing is built then).
if [ -n "${AGENT_BEFORE:-}" ] && [ -n "${AGENT_AFTER:-}" ]; then
  mkdir -p "$work/before/build" "$work/after/build"
  ln -s "$AGENT_BEFORE" "$work/before/build/KestrelAgent"
  ln -s "$AGENT_AFTER" "$work/after/build/KestrelAgent"
else
  build before "$before"
  build after "$after"
fi

# Each run gets a home of its own, built afresh with one reference time: a copy would carry the
# access times the previous copy's reading left, which the "last used" filters read.
now=$(date +%s)
fresh_home() {
  rm -rf "$1"
  "$here/../shared/tools/make-home" --root "$1" --scale "$scale" --big 0.01 --small-bytes 0.1 --now "$now" --quiet >/dev/null
}
fresh_home "$work/home"
# "clean" without a category prints the category list and exits with the usage status.
usage=$(HOME="$work/home" "$work/after/build/KestrelAgent" clean 2>/dev/null || true)
categories=$(printf '%s\n' "$usage" | sed -n 's/^Categories: //p' | sed 's/, / /g')
commands=("scan" "scan --json" "forecast" "quarantine list" "rules" "help")
for c in $categories; do commands+=("clean --category $c --max-risk caution --dry-run"); done

same=0 differ=0
for cmd in "${commands[@]}"; do
  for side in before after; do
    # One home path for both sides: the JSON forms print absolute paths.
    fresh_home "$work/home"
    # shellcheck disable=SC2086 # the command's words are meant to split
    HOME="$work/home" KESTREL_LAYOUT=macos "$work/$side/build/KestrelAgent" $cmd >"$work/out-$side" 2>&1 || true
  done
  if cmp -s "$work/out-before" "$work/out-after"; then
    same=$((same + 1))
  else
    differ=$((differ + 1))
    echo "differs: $cmd"
    diff "$work/out-before" "$work/out-after" | head -5 || true
  fi
done
echo "$same of $((same + differ)) commands byte-identical ($(wc -l <"$work/out-after") lines in the last)"
[ "$differ" -eq 0 ]
