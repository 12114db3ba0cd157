#!/usr/bin/env bash
# Runs the export check against the built DLL with its expected table as it is
# (must pass) and with one row changed at a time (each must fail).
set -uo pipefail
dll=$1 expected=$2 check=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run_check() { "$PYTHON" "$check" --objdump "$OBJDUMP" --dll "$dll" --expected "$1" 2>/dev/null; }

run_check "$expected" || { echo "the unchanged table does not pass"; exit 1; }

mutations=(
  's/^export 5   DllGetVersion$/export 9   DllGetVersion/'         # named export moved
  's/^export 6   QvDllGetVersion$/export 6   QvDllGetVersionX/'    # name changed
  's/^\(export 91  LB_RegCloseKey *\) NONAME$/\1/'                  # ordinal-only row named
  '/^export 120 /d'                                                # row removed
  '$a export 121 VARIANT_InitBSTRA NONAME'                         # row added
  's/^import XKCmnBaD.dll ordinals 16 17 18 19 329$/import XKCmnBaD.dll ordinals 17 18 19 329/'  # an import no longer allowed
)
failed=0
for m in "${mutations[@]}"; do
  sed "$m" "$expected" > "$work/changed"
  if cmp -s "$expected" "$work/changed"; then
    echo "mutation '$m' changed nothing"; failed=1
  elif run_check "$work/changed"; then
    echo "mutation '$m' was not noticed"; failed=1
  fi
done
[ $failed -eq 0 ] && echo "${#mutations[@]} changed rows noticed, 0 missed"
exit $failed
