#!/usr/bin/env bash
# Installs a build into a scratch prefix, builds examples/consumer against it
# with find_package as a user's own project would, and runs it under Wine.
#   consumer.sh BUILD_DIR
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
prefix=$build/consumer/package
project=$build/consumer/build

rm -rf "$build/consumer"
cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S "$root/examples/consumer" -B "$project" -G Ninja \
  --toolchain "$root/cmake/toolchains/mingw-w64.cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$project" >/dev/null
"$root/scripts/wine.sh" "$build/wineprefix" run "$project/consumer.exe"
