#!/usr/bin/env bash
# The tree grown over a Dask LocalCluster of 2 worker processes (brix.dask) against brixcmd -ff 2
# on the same rows: wall, the client's peak memory, tallies moved per level, and whether the trees
# are the same. ROWS=20m also runs the 20M-row table when bench/agrawal builds it (slow).
# Usage: bash bench/dask.sh build/brixcmd
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
brixcmd=${1:?usage: bench/dask.sh path/to/brixcmd}
build=$(cd "$(dirname "$brixcmd")" && pwd)
data=${BRIX_SHARED_DATA:-$here/../../shared/data}
stem=$data/syn_agrawal_f2_1m
if ! /usr/bin/python3 -c 'import dask, distributed' 2>/dev/null; then
  echo "dask/distributed missing: skipped (make deps installs them)"
  exit 0
fi
[ -f "$stem.names" ] || { echo "no $stem.names: skipped"; exit 0; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Eight chunks the workers read themselves: no row passes through the client.
zcat "$stem.data.gz" > "$work/all"
split -n l/8 -d --additional-suffix=.csv "$work/all" "$work/part-"
rm "$work/all"
start=$(date +%s.%N)
"$brixcmd" -fm "$stem.names" -fd "$stem.data.gz" -ff 2 -tstd > "$work/brixcmd.txt"
end=$(date +%s.%N)
echo "brixcmd -ff 2: wall $(echo "$end - $start" | bc) s"
PYTHONPATH=$build/python /usr/bin/python3 "$here/dask_fit.py" "$stem" "$work"
if /usr/bin/python3 - "$work" <<'PY'
import sys
work = sys.argv[1]
cmd = open(work + "/brixcmd.txt").read().split("Decision Tree\n\n", 1)[1]
ours = open(work + "/tree.txt").read()[:-1]
sys.exit(0 if ours == cmd else 1)
PY
then echo "same tree as brixcmd: yes"; else echo "same tree as brixcmd: NO"; fi
