#!/usr/bin/env bash
# Sets up this machine, builds the x86_64 target and runs the store and
# marshalling benchmarks under Wine. Not part of ctest. It uses a Wine prefix
# of its own, so it never disturbs the server of a test run in progress.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset x64 >/dev/null
cmake --build --preset x64 --target store_bench marshal_bench XKComBsD

prefix=$PWD/build/x64/benchprefix
scripts/wine.sh "$prefix" start
trap 'scripts/wine.sh "$prefix" stop' EXIT
scripts/wine.sh "$prefix" run build/x64/bin/store_bench.exe "$@"
scripts/wine.sh "$prefix" run build/x64/bin/marshal_bench.exe
