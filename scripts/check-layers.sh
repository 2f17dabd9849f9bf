#!/usr/bin/env bash
# Fails when a source file includes from a layer above its own, or includes a project header any
# other way than from the repository root in quotes ("../x.h", "./x.h", <core/x.h>), and prints
# each such include. Layers, lowest first; folders on one line share a layer and may include each
# other; a layer's subfolders belong to it.
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
layers=(
  "core/base"
  "core/system"
  "core/model"
  "core/store"
  "core/safety"
  "core/scan"
  "core/clean"
  "core/insights"
  "core/schedule core/shredder core/uninstall"
  "agent host"
)

rank_of() {  # prints the layer rank of a repo-relative path, or nothing when it is in no layer
  local path=$1 i folder
  for i in "${!layers[@]}"; do
    for folder in ${layers[$i]}; do
      if [[ $path == "$folder"/* ]]; then echo "$i"; return; fi
    done
  done
}

status=0
cd "$root"
while IFS= read -r file; do
  own=$(rank_of "$file")
  if [[ -z $own ]]; then
    echo "not in any layer: $file"
    status=1
    continue
  fi
  while IFS= read -r line; do
    inc=${line#*\"}; inc=${inc%%\"*}
    target=$(rank_of "$inc")
    [[ -z $target ]] && continue  # generated files and the system's own headers
    if (( target > own )); then
      echo "$file includes $inc from a higher layer: $line"
      status=1
    fi
  done < <(grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]+"' "$file" || true)
done < <(find core agent host -type f \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort)

# One way to name a project header, so the layer check above sees every include.
while IFS= read -r hit; do
  echo "not from the repository root in quotes: $hit"
  status=1
done < <(find core agent host tests bench fuzz -type f \( -name '*.h' -o -name '*.cpp' \) 2>/dev/null | sort |
  xargs -r grep -nHE '^[[:space:]]*#[[:space:]]*include[[:space:]]*("\.\.?/|<(core|agent|host|tests)/)' || true)
exit $status
