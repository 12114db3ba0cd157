#!/usr/bin/env bash
# Runs the record loaders' mutation fuzzer for a long run under Wine in the
# x86_64 build's prefix and prints its figures: cases, failures, slowest case.
#   fuzz.sh [CASES]   (default 100000; the x64 build must exist)
set -euo pipefail
cd "$(dirname "$0")/.."

cases=${1:-100000}
prefix=$PWD/build/x64/wineprefix
scripts/wine.sh "$prefix" start
trap 'scripts/wine.sh "$prefix" stop' EXIT
scripts/wine.sh "$prefix" run build/x64/bin/persist_fuzz.exe \
  --gtest_filter='*EveryLoader*' --cases="$cases"
