#!/usr/bin/env bash
# Runs Windows programs under Wine in a private prefix, with one wineserver kept
# up between 'start' and 'stop' so that every test of a run shares it.
#   wine.sh PREFIX start        create or update the prefix, keep its server up
#   wine.sh PREFIX run EXE ...  run one program in the prefix
#   wine.sh PREFIX stop         end the prefix's server and everything in it
set -euo pipefail

prefix=$1
action=$2
shift 2

export WINEPREFIX=$prefix
export WINEARCH=win64
export WINEDEBUG=${WINEDEBUG:--all}
# No .NET or HTML engine: the prefix must never try to download one.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY

case $action in
  start)
    mkdir -p "$WINEPREFIX"
    # A server left over from an interrupted run is replaced by a fresh one.
    wineserver -k 2>/dev/null || true
    wineserver -p </dev/null >/dev/null 2>&1
    # wineboot creates the prefix when it is new and starts the prefix's
    # services; started here, they hold no test's output open.
    wine wineboot </dev/null >/dev/null 2>&1
    ;;
  run)
    # Now and then Wine fails to start a program at all: it fails at once having
    # printed nothing. Such a start is tried once more; a program that printed
    # anything, or succeeded, keeps its own result.
    printed=$(mktemp)
    trap 'rm -f "$printed"' EXIT
    for attempt in 1 2; do
      set +e
      wine "$@" 2>&1 | tee "$printed"
      status=${PIPESTATUS[0]}
      set -e
      if [[ $status == 0 || -s $printed || $attempt == 2 ]]; then exit "$status"; fi
      echo "wine.sh: $1 printed nothing (exit $status); starting it again" >&2
    done
    ;;
  stop)
    wineserver -k 2>/dev/null || true
    ;;
  *)
    echo "usage: wine.sh PREFIX start|run|stop ..." >&2
    exit 2
    ;;
esac
