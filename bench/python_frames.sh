#!/usr/bin/env bash
# DataFrames into the engine: brix.TreeClassifier's fit and predict_proba beside brixcmd on the
# same rows (bench/python_frames.py). Prints a markdown section and appends it to
# bench/RESULTS.md. Usage: bash bench/python_frames.sh path/to/brixcmd
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
brixcmd=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
build=$(dirname "$brixcmd")
[ -f "$build/python/brix/__init__.py" ] || { echo "python_frames.sh: the package is not built; skipped"; exit 0; }
prepare_dataset "$root" syn_agrawal_f2_1m || exit 0
table=$(PYTHONPATH=$build/python /usr/bin/python3 "$here/python_frames.py" "$root" "$brixcmd" "$stem") || exit 1
append_results "$root" "$(section_header "$root" "Python: DataFrames into the engine, beside brixcmd on the same rows"; echo; echo "$table")"
