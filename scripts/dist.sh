#!/usr/bin/env bash
# Release archives of both targets, from their builds (run scripts/test.sh or
# build both presets first): dist/XKComBsD-<file version>-<arch>.zip, each the
# installed package (bin, lib, include, lib/cmake).
set -euo pipefail
cd "$(dirname "$0")/.."

version=$(sed -n 's/^project(XKComBsD VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
rm -rf dist
for pair in x64:x86_64 x86:i686; do
  preset=${pair%%:*}
  name=XKComBsD-$version-${pair##*:}
  cmake --install "build/$preset" --prefix "dist/$name" >/dev/null
  (cd dist && cmake -E tar cf "$name.zip" --format=zip "$name" && rm -rf "$name")
  echo "dist/$name.zip"
done
