#!/bin/sh
# Writes the man pages and shell completions from the built programs' own help (run by the build),
# so they always say what the programs accept.
# Usage: scripts/generate-docs.sh KESTREL KESTREL_AGENT VERSION OUTPUT_FOLDER
set -eu
kestrel=$1 agent=$2 version=$3 out=$4
mkdir -p "$out"
"$kestrel" manual >"$out/kestrel.1"
"$kestrel" completion bash >"$out/kestrel.bash"
"$kestrel" completion zsh >"$out/_kestrel"
"$kestrel" completion fish >"$out/kestrel.fish"
# The agent's own usage text is its synopsis; every line of it a command group.
{
  printf '.TH KESTRELAGENT 1 "" "KestrelAgent %s" "User Commands"\n' "$version"
  printf '.SH NAME\nKestrelAgent \\- the background and command-line agent of orvo Kestrel\n'
  printf '.SH SYNOPSIS\n.nf\n'
  "$agent" help | tail -n +2 | sed -e 's/\\/\\e/g' -e 's/^ *//' -e 's/-/\\-/g' -e 's/^/KestrelAgent /' -e 's/ | /\nKestrelAgent /g'
  printf '.fi\n.SH DESCRIPTION\n'
  printf 'The commands the background services run (run\\-scheduled every 15 minutes, shred\\-watch kept alive)\n'
  printf 'and the exact lines they log. For use by people, see\n.BR kestrel (1).\n'
  printf '.SH EXIT STATUS\n0 done or nothing to do; 1 a rule that matches nothing or damaged settings; 2 a usage error.\n'
  printf '.SH SEE ALSO\n.BR kestrel (1)\n'
} >"$out/KestrelAgent.1"
