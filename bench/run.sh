#!/usr/bin/env bash
# Runs every benchmark section script bench/*.sh with the built brixcmd.
# Usage: bash bench/run.sh build/brixcmd
set -uo pipefail

here=$(cd "$(dirname "$0")" && pwd)
brixcmd=${1:?usage: bench/run.sh path/to/brixcmd}
status=0
for section in "$here"/*.sh; do
  [ "$(basename "$section")" = run.sh ] && continue
  echo "== $(basename "$section" .sh)"
  bash "$section" "$brixcmd" || status=1
  echo
done
exit $status
