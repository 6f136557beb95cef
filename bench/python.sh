#!/usr/bin/env bash
# The Python package against scikit-learn's tree (bench/python_bench.py).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
build=$(cd "$(dirname "$1")" && pwd)
[ -f "$build/python/brix/__init__.py" ] || { echo "python.sh: the package is not built; skipped"; exit 0; }
[ -d "$root/../shared/data" ] || { echo "python.sh: ../shared/data not found; skipped"; exit 0; }
table=$(PYTHONPATH=$build/python /usr/bin/python3 "$here/python_bench.py" "$root") || exit 1
append_results "$root" "$(section_header "$root" "Python: brix.TreeClassifier and scikit-learn"; echo; echo "$table")"
