#!/usr/bin/env bash
# Sets up this machine, builds the library and runs the demo client under Wine.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset x64 >/dev/null
cmake --build --preset x64 --target demo

prefix=$PWD/build/x64/wineprefix
scripts/wine.sh "$prefix" start
trap 'scripts/wine.sh "$prefix" stop' EXIT
scripts/wine.sh "$prefix" run build/x64/bin/demo.exe
