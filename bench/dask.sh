#!/usr/bin/env bash
# The tree grown over a Dask LocalCluster of 2 worker processes (brix.dask) against brixcmd -ff 2
# on the same rows: wall, the client's peak memory, what moved per level, and whether the trees
# are the same. The machine's load (uptime) is printed beside each run.
# --20m also runs a 20M-row table made by bench/agrawal in a temporary folder (several minutes,
# a few GB of memory and disk); --rows=N a table of N rows made the same way.
# Usage: bash bench/dask.sh build/brixcmd [--20m | --rows=N]
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
brixcmd=${1:?usage: bench/dask.sh path/to/brixcmd [--20m | --rows=N]}
big=${2:-}
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

# One table: its rows in eight CSV chunks that the workers read themselves (no row passes through
# the client), brixcmd -ff 2 on the whole file, then the fit.
run() {
  local names=$1 rows=$2 dir=$3
  echo "== $(basename "$names" .names): $(uptime)"
  split -n l/8 -d --additional-suffix=.csv "$rows" "$dir/part-"
  local start end
  start=$(date +%s.%N)
  "$brixcmd" -fm "$names" -fd "$rows" -ff 2 -tstd > "$dir/brixcmd.txt"
  end=$(date +%s.%N)
  echo "brixcmd -ff 2: wall $(echo "$end - $start" | bc) s"
  rm "$rows"
  PYTHONPATH=$build/python /usr/bin/python3 "$here/dask_fit.py" "${names%.names}" "$dir"
  echo "after: $(uptime)"
  if /usr/bin/python3 - "$dir" <<'PY'
import sys
work = sys.argv[1]
cmd = open(work + "/brixcmd.txt").read().split("Decision Tree\n\n", 1)[1]
ours = open(work + "/tree.txt").read()[:-1]
sys.exit(0 if ours == cmd else 1)
PY
  then echo "same tree as brixcmd: yes"; else echo "same tree as brixcmd: NO"; fi
}

mkdir "$work/1m"
zcat "$stem.data.gz" > "$work/1m/all.data"
run "$stem.names" "$work/1m/all.data" "$work/1m"
rm -rf "$work/1m"

rows=
case "$big" in
  --20m) rows=20000000 ;;
  --rows=*) rows=${big#--rows=} ;;
esac
if [ -n "$rows" ]; then
  generator=$build/bench/agrawal
  [ -x "$generator" ] || { echo "no $generator: build the agrawal target"; exit 1; }
  mkdir "$work/big"
  "$generator" "$rows" "$work/big/agr$rows" > /dev/null
  rm -f "$work/big/agr$rows.test"
  run "$work/big/agr$rows.names" "$work/big/agr$rows.data" "$work/big"
fi
