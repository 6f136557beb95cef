#!/usr/bin/env bash
# Fails on an #include that runs from a lower layer up to a higher one. The layers, lowest first
# (docs/architecture.md draws them):
#   engine      brix/impls, zel, farm      storage, loading, growing, pruning, prediction;
#               within it storage/ (tables, loading) sits beneath model/ (the node record,
#               prediction, the tree file), and model/ beneath learning/ (growing, pruning)
#   writers     brix/writers               output formats, on the engine's types
#   public API  brix/*.h, brix/*.cpp       what commands, Python and library users include
#   front ends  cmd, python                commands and the Python extension
# A layer may include its own and lower layers, with two narrowings: front ends reach the engine
# only through the public API, and the writers do not depend on the public model headers (they
# sit beneath them). brix/brix.h and brix/tree_writer.h are the writers' own view of a tree and
# so are open to them.
# Usage: check-layers.sh [ROOT]   (default: the checkout holding this script)
set -uo pipefail
ROOT=${1:-"$(cd "$(dirname "$0")/.." && pwd)"}
cd "$ROOT" || exit 2

status=0
# Every project include of every source under DIRS, as "file:line:target".
includes() {
  find "$@" -type f \( -name '*.h' -o -name '*.hpp' -o -name '*.cpp' -o -name '*.cc' \) 2>/dev/null |
    sort | xargs -r grep -nE '^[[:space:]]*#[[:space:]]*include[[:space:]]*["<](brix|cmd|python|zel|farm)/' |
    sed -E 's/^([^:]*):([0-9]+):[[:space:]]*#[[:space:]]*include[[:space:]]*["<]([^">]*)[">].*/\1:\2:\3/'
}
# refuse DESCRIPTION REGEX DIRS...: reports each include under DIRS whose target matches REGEX.
refuse() {
  local what=$1 pattern=$2
  shift 2
  local hits
  hits=$(includes "$@" | awk -F: -v re="$pattern" '$3 ~ re')
  [ -z "$hits" ] && return
  while IFS=: read -r file line target; do
    echo "$file:$line: includes $target: $what" >&2
  done <<<"$hits"
  status=1
}

refuse "the engine includes no writer, public header or front end" \
  '^(brix/[^/]+$|brix/writers/|cmd/|python/)' brix/impls zel farm
refuse "storage includes nothing of learning or the model" \
  '^brix/impls/(learning|model)/' brix/impls/storage
refuse "the model includes nothing of learning" '^brix/impls/learning/' brix/impls/model
refuse "a writer includes no public model header or front end" \
  '^(brix/(model|data|ensemble|rules)\.h$|cmd/|python/)' brix/writers
refuse "the public API includes no front end" '^(cmd/|python/)' $(ls brix/*.h brix/*.cpp 2>/dev/null)
refuse "a front end reaches the engine through the public API only" '^brix/impls/' cmd python

[ "$status" -eq 0 ] && echo "layers: every include runs downward"
exit "$status"
