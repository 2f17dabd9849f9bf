#!/usr/bin/env bash
# Installs what the build and the tests need, only when something is missing.
# Debian/Ubuntu: apt packages. macOS: Homebrew formulae (named below).
set -euo pipefail

debian_packages=(
  cmake ninja-build g++ clang pkg-config
  nlohmann-json3-dev libhowardhinnant-date-dev libdate-tz3 libxxhash-dev
  libplist++-dev libplist-dev libuv1-dev libcli11-dev googletest libgtest-dev libgmock-dev libbenchmark-dev
  python3 shellcheck util-linux libclang-rt-14-dev procps universal-ctags
  trash-cli python3-jsonschema jq prometheus-node-exporter man-db
)
brew_formulae=(cmake ninja nlohmann-json howard-hinnant-date xxhash libplist libuv cli11 googletest google-benchmark shellcheck universal-ctags)

if [ "$(uname -s)" = "Darwin" ]; then
  missing=()
  for f in "${brew_formulae[@]}"; do brew list --formula "$f" >/dev/null 2>&1 || missing+=("$f"); done
  if [ ${#missing[@]} -gt 0 ]; then brew install "${missing[@]}"; fi
  exit 0
fi

missing=()
for p in "${debian_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  echo "Installing: ${missing[*]}"
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
