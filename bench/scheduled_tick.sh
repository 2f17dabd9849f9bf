#!/usr/bin/env bash
# One scheduled tick with no rule due and the growth snapshot not due ("KestrelAgent run-scheduled"
# on a make-home --scale 1 home): median wall time and peak RSS over several runs.
# The four default rules are stored as having just run, and the agent state says a snapshot was
# just taken, so the tick does its fixed work only: lock, space sample, probe, quarantine expiry,
# rule evaluation and save, background items, forecast, state.
# Usage: bench/scheduled_tick.sh [runs] [home]   (build first: cmake --build build)
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
agent="$here/build/KestrelAgent"
runs=${1:-11}
home=${2:-/work/benchdata/scale1-tick}
# The home is macOS-shaped, so the agent follows the macOS table (its files in the support folder).
export KESTREL_LAYOUT=macos

if [ ! -e "$home.done" ]; then
  rm -rf "$home"
  "$here/../shared/tools/make-home" --root "$home" --scale 1 --quiet
  touch "$home.done"
fi

support="$home/Library/Application Support/orvo Kestrel"
mkdir -p "$support"
rm -f "$support/rules.json" "$support/agent-state.json"
HOME="$home" "$agent" rules >/dev/null  # no file yet: prints the defaults, writes nothing
stamp=$(date -u +%Y-%m-%dT%H:%M:%SZ)
# The defaults as the first tick saves them, then marked as run now.
HOME="$home" "$agent" run-rule "Stay ahead of a full disk" >/dev/null
python3 - "$support/rules.json" "$stamp" <<'PY'
import json, sys
path, stamp = sys.argv[1], sys.argv[2]
rules = json.load(open(path))
for r in rules:
    r["lastRun"] = stamp
    r["lastResult"] = "Nothing to clean"
open(path, "w").write(json.dumps(rules, indent=2))
PY
printf '{"lastGrowthSnapshot": "%s", "lastForecastAlert": "%s"}' "$stamp" "$stamp" >"$support/agent-state.json"

median() { sort -n | awk '{a[NR]=$1} END {print (NR%2) ? a[(NR+1)/2] : (a[NR/2]+a[NR/2+1])/2}'; }
HOME="$home" "$agent" run-scheduled >/dev/null  # warm the cache
times=() rss=()
for ((i = 0; i < runs; i++)); do
  t0=$(date +%s.%N)
  HOME="$home" "$agent" run-scheduled >/dev/null
  t1=$(date +%s.%N)
  times+=("$(echo "$t1 - $t0" | bc -l)")
  rss+=("$( { HOME="$home" /usr/bin/time -f '%M' "$agent" run-scheduled >/dev/null; } 2>&1 | tail -1)")
done
if HOME="$home" "$agent" rules | grep -q 'now: run'; then echo "warning: a rule is due" >&2; fi
echo "wall median: $(printf '%s\n' "${times[@]}" | median) s over $runs runs"
echo "peak RSS: $(printf '%s\n' "${rss[@]}" | sort -n | tail -1) KB (largest run)"
