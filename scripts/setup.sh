#!/usr/bin/env bash
# Installs the cross toolchain, Wine and the test framework sources from Debian's
# packages. Safe to run again: it only calls apt-get when something is missing.
set -euo pipefail

packages=(
  g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix
  gcc-mingw-w64-x86-64-posix gcc-mingw-w64-i686-posix
  binutils-mingw-w64-x86-64 binutils-mingw-w64-i686
  mingw-w64-tools
  wine wine64 libwine-dev clang llvm
  cmake ninja-build googletest python3
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
