#!/usr/bin/env bash
# Installs what building and testing tarnel_util needs, from Debian's
# packages, unless it is already there. Safe to run again.
set -euo pipefail

packages=(
  g++ gcc make cmake ninja-build pkg-config binutils
  libgtest-dev libgmock-dev libbenchmark-dev libuv1-dev liburiparser-dev libhttp-parser-dev
  libxml2-dev libexpat1-dev
  curl nginx-light wrk libmicrohttpd-dev libcurl4-openssl-dev
)
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null 2>&1; then
  sudo=(sudo)
else
  echo "setup: missing packages ${missing[*]}; run as root or install them" >&2
  exit 1
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
