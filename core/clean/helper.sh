#!/bin/bash
# orvo Kestrel privileged helper. Runs as root, serves one app session, then exits.
# It accepts a fixed set of operations and validates every path before touching it.
#
# Usage: helper.sh <session folder> <token> <app pid>
# The app passes this text inline to bash (never as a file the user could change while it runs),
# and the body is one function called on the last line, so bash has read everything before it runs.

main() {
  if [ "$1" = "--once" ]; then
    once "${@:2}"
    return
  fi
  local dir="$1" token="$2" app_pid="$3"
  if [ -z "$dir" ] || [ -z "$token" ] || [ -z "$app_pid" ]; then exit 1; fi
  settings
  local IDLE_LIMIT=1800 LIFETIME_LIMIT=7200 POLL=20 MAX_LINE=65536
  local started last now
  # The shell's own clock and kill: no child process, which would inherit the pipes and keep
  # them open for a moment after this shell is gone.
  started=$SECONDS
  last=$started

  # Pin the session folder: root-owned so its entries can no longer be swapped, then work by
  # relative names inside it. Before anything is changed, the folder must really be the app
  # user's own "priv-" folder where the arguments say, not something a link leads to.
  if [ ! -d "$dir" ] || [ -L "$dir" ]; then exit 1; fi
  local expected owner app_uid
  expected=$(cd -P -- "${dir%/*}" 2>/dev/null && here) || exit 1
  expected="$expected/${dir##*/}"
  cd -P -- "$dir" || exit 1
  [ "$(here)" = "$expected" ] || exit 1
  [[ "${expected##*/}" == priv-* ]] || exit 1
  # Numeric owner of the folder; ls -n is the form both systems share.
  # shellcheck disable=SC2012
  owner=$(ls -ldn . | awk '{print $3}')
  app_uid=$(ps -o uid= -p "$app_pid" 2>/dev/null | tr -d ' ')
  [ -n "$owner" ] && [ "$owner" = "$app_uid" ] || exit 1
  if [ "$(id -u)" = 0 ]; then
    chown 0:0 . || exit 1
    chmod 0711 . || exit 1
  fi
  if ! { [ -p cmd ] && [ ! -L cmd ] && [ -p out ] && [ ! -L out ]; }; then
    cleanup
    exit 1
  fi
  # One descriptor for every reply: reopening by name could follow a swapped link. It is opened
  # first, so once the app can open "cmd" a reply always has a writer to come from.
  exec 4<>out || { cleanup; exit 1; }
  exec 3<>cmd || { cleanup; exit 1; }

  local line rest
  while :; do
    kill -0 "$app_pid" 2>/dev/null || break
    now=$SECONDS
    [ $((now - last)) -ge "$IDLE_LIMIT" ] && break
    [ $((now - started)) -ge "$LIFETIME_LIMIT" ] && break
    line=""
    if ! IFS= read -r -t "$POLL" -n $((MAX_LINE + 1)) line <&3; then
      # Time-out: go round and re-check the app and the limits. A partial line is dropped; its
      # remainder then fails the token check.
      continue
    fi
    if [ "${#line}" -gt "$MAX_LINE" ]; then
      # Too long: discard the rest of the line without holding it.
      while IFS= read -r -t 1 -n "$MAX_LINE" rest <&3 && [ "${#rest}" -ge "$MAX_LINE" ]; do :; done
      reply "ERR unknown-op"
      continue
    fi
    [ -z "$line" ] && continue
    last=$SECONDS
    handle "$line" || break
  done
  cleanup
}

# One operation without a session (the fallback when no session can be started): the same
# checks, the reply on standard output, success when it begins with "OK".
once() {
  settings
  local token=once
  exec 4>&1
  handle "once $*"
}

settings() {
  export LC_ALL=C
  export PATH=/usr/bin:/bin:/usr/sbin:/sbin
  umask 077
  MAX_PATH=1024
  ALLOWED_ROOTS=("/Library/Caches/" "/Library/Logs/" "/private/var/log/" "/private/var/folders/"
    "/Library/LaunchDaemons/" "/Library/LaunchAgents/" "/Library/Application Support/"
    "/Library/Containers/" "/Applications/" "/var/crash/")
}

reply() {
  # Replies are always one line.
  local text="${1//[$'\n\r']/ }"
  printf '%s\n' "$text" >&4
}

# Decodes Base64 into the global DECODED; fails on bad input, NUL bytes, control bytes or a
# trailing newline (anything that would make the checked text differ from what is acted on).
decode() {
  local b64="$1" bytes
  DECODED=""
  [[ "$b64" =~ ^[A-Za-z0-9+/]+={0,2}$ ]] || return 1
  DECODED=$(printf '%s' "$b64" | base64 -d 2>/dev/null && printf x) || return 1
  DECODED=${DECODED%x}
  bytes=$(printf '%s' "$b64" | base64 -d 2>/dev/null | wc -c) || return 1
  [ "$bytes" -eq "${#DECODED}" ] || return 1
  [[ "$DECODED" == *[[:cntrl:]]* ]] && return 1
  return 0
}

# The path's text shape: absolute, short, no empty, "." or ".." components, no trailing slash,
# strictly below one of the allowed roots.
shape_ok() {
  local p="$1" root
  [ "${#p}" -le "$MAX_PATH" ] || return 1
  [[ "$p" == /* ]] || return 1
  [[ "$p" == */ || "$p" == *//* || "$p" == */./* || "$p" == */. || "$p" == */../* || "$p" == */.. ]] && return 1
  for root in "${ALLOWED_ROOTS[@]}"; do
    if [[ "$p" == "$root"?* ]]; then return 0; fi
  done
  return 1
}

# The folder this shell is really in, as the kernel knows it. The shell's own "pwd -P" resolves
# the name "cd" was given once more, link by link, so a link swapped in between could make it
# name an allowed folder while the shell stands somewhere else.
here() {
  /bin/pwd -P
}

# True when the physical folder path "$1/" lies at or below an allowed root.
root_ok() {
  local root
  for root in "${ALLOWED_ROOTS[@]}"; do
    if [[ "$1" == "$root"* ]]; then return 0; fi
  done
  return 1
}

# Checks and removes inside one pinned working folder: the parent is entered once, its physical
# path checked, and "./name" removed there, so no link swapped in between can redirect it.
remove_one() {
  local p="$1" name="${1##*/}"
  shape_ok "$p" || return 1
  (
    cd -P -- "${p%/*}" 2>/dev/null || exit 1
    root_ok "$(here)/" || exit 1
    /bin/rm -rf -- "./$name" || exit 1
    [ ! -e "./$name" ] && [ ! -L "./$name" ]
  )
}

handle() {
  local words=() op
  read -r -a words <<<"$1"
  if [ "${words[0]}" != "$token" ]; then
    reply "ERR bad-token"
    return 0
  fi
  op="${words[1]}"
  case "$op" in
    PING) reply "OK" ;;
    QUIT) reply "OK"; return 1 ;;
    PURGE)
      local out
      if out=$(/usr/sbin/purge 2>&1); then reply "OK $out"; else reply "ERR $out"; fi
      ;;
    KILL)
      local sig="${words[2]}" pid="${words[3]}" out pgid
      if ! [[ "$sig" =~ ^[0-9]{1,3}$ && "$pid" =~ ^[0-9]{1,10}$ ]] || [ "${#words[@]}" -ne 4 ]; then
        reply "ERR bad-args"; return 0
      fi
      pgid=$(ps -o pgid= -p $$ 2>/dev/null | tr -d ' ')
      case "$sig" in 1|2|3|9|15) ;; *) reply "ERR bad-args"; return 0 ;; esac
      if [ $((10#$pid)) -le 1 ] || [ "$((10#$pid))" = "$$" ] || [ "$((10#$pid))" = "$pgid" ]; then
        reply "ERR bad-args"; return 0
      fi
      if out=$(/bin/kill "-$sig" "$((10#$pid))" 2>&1); then reply "OK"; else reply "ERR $out"; fi
      ;;
    BOOTOUT)
      local b64="${words[2]}" out name
      if [ "${#words[@]}" -ne 3 ] || ! decode "$b64"; then reply "ERR refused $b64"; return 0; fi
      name="${DECODED##*/}"
      if shape_ok "$DECODED" && [[ "$DECODED" == /Library/LaunchDaemons/*.plist ]] &&
         [ "${DECODED%/*}" = "/Library/LaunchDaemons" ] &&
         out=$(
           cd -P -- /Library/LaunchDaemons 2>/dev/null || exit 1
           if [ "$(here)" != "/Library/LaunchDaemons" ] || [ ! -f "./$name" ] || [ -L "./$name" ]; then
             exit 1
           fi
           /bin/launchctl bootout system "/Library/LaunchDaemons/$name" 2>&1
           exit 0
         ); then
        reply "OK $out"
      else
        reply "ERR refused $DECODED"
      fi
      ;;
    RM)
      local i count=0 failed=""
      for ((i = 2; i < ${#words[@]}; i++)); do
        if decode "${words[$i]}"; then
          if remove_one "$DECODED"; then count=$((count + 1)); else failed+=" $DECODED"; fi
        else
          failed+=" ${words[$i]}"
        fi
      done
      if [ -z "$failed" ]; then reply "OK removed $count"; else reply "ERR refused$failed"; fi
      ;;
    SCRIPT)
      local out
      case "${words[2]}" in
        periodic-daily) out=$(/usr/sbin/periodic daily 2>&1) ;;
        periodic-weekly) out=$(/usr/sbin/periodic weekly 2>&1) ;;
        periodic-monthly) out=$(/usr/sbin/periodic monthly 2>&1) ;;
        rebuild-spotlight) out=$(/usr/bin/mdutil -E / 2>&1) ;;
        flush-dns) out=$( { /usr/bin/dscacheutil -flushcache; /usr/bin/killall -HUP mDNSResponder; } 2>&1) ;;
        *) reply "ERR unknown-script"; return 0 ;;
      esac
      reply "OK $out"
      ;;
    *) reply "ERR unknown-op" ;;
  esac
  return 0
}

# Removes only the known entries of the pinned folder, then the folder itself by name from its
# physical parent.
cleanup() {
  exec 3<&- 4<&- 2>/dev/null
  local folder
  folder=$(here)
  rm -f -- cmd out helper.sh
  cd -P .. && rmdir -- "./${folder##*/}" 2>/dev/null
}

main "$@"; exit
