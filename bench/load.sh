#!/usr/bin/env bash
# Table load of the 1,000,000-row dataset against a minimal one-pass read of the same file
# (bench/load_baseline.cpp), and peak memory against the bytes the loaded table needs
# (bench/table_bytes.cpp). Prints a markdown section and appends it to bench/RESULTS.md.
# Targets: load time <= 4 x baseline; peak RSS <= 2 x (column storage + value sets) + 32 MB.
# Usage: bash bench/load.sh path/to/brixcmd   (the bench programs sit beside it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
build=$(cd "$(dirname "$brixcmd")" && pwd)
baseline=$build/bench/load_baseline
table_bytes=$build/bench/table_bytes
for prog in "$brixcmd" "$baseline" "$table_bytes"; do
  if [ ! -x "$prog" ]; then
    echo "load.sh: $prog is not built" >&2
    exit 1
  fi
done
if [ ! -x /usr/bin/time ]; then
  echo "load.sh: /usr/bin/time is needed for peak memory (apt-get install time)" >&2
  exit 1
fi

name=syn_agrawal_f2_1m
prepare_dataset "$root" "$name" || exit 0
lines=$(wc -l <"$stem.data")
bytes=$(stat -c %s "$stem.data")

# A table output into a directory that does not exist ends the run right after the load.
stop_after_load=(-db "$work/no_such_dir/table.bin")

base_best= load_best= wall_best= rss_max=
out=$work/load_out.txt
tv=$work/load_time.txt
for i in 1 2 3; do
  t0=$(now_ns)
  "$baseline" "$stem.names" "$stem.data" >"$work/baseline_out.txt"
  t1=$(now_ns)
  base_best=$(min "$(awk -v ns=$((t1 - t0)) 'BEGIN { printf "%.4f", ns / 1e9 }')" "$base_best")

  t0=$(now_ns)
  /usr/bin/time -v -o "$tv" "$brixcmd" -f "$stem" -lstd "${stop_after_load[@]}" >"$out"
  t1=$(now_ns)
  wall_best=$(min "$(awk -v ns=$((t1 - t0)) 'BEGIN { printf "%.4f", ns / 1e9 }')" "$wall_best")
  load=$(awk '/^Data loaded\.$/ { getline; print $2; exit }' "$out")
  if [ -z "$load" ]; then
    echo "load.sh: no load time in the log:" >&2
    cat "$out" >&2
    exit 1
  fi
  load_best=$(min "$load" "$load_best")
  rss_max=$(max "$(awk -F': ' '/Maximum resident set size/ { print $2 }' "$tv")" "$rss_max")
done

base_rows=$(awk '{ print $2 }' "$work/baseline_out.txt")
if [ "$base_rows" != "$lines" ] || ! grep -q "  $lines rows read\.$" "$out"; then
  echo "load.sh: row counts disagree (file $lines, baseline $base_rows):" >&2
  cat "$out" >&2
  exit 1
fi
note=
grep -q "error with binary output" "$out" ||
  note="The run did not stop after the load: wall time and memory include later stages."

"$table_bytes" "$stem.names" "$stem.data" >"$work/table_bytes.txt"
col_bytes=$(awk '$1 == "columns" { print $2 }' "$work/table_bytes.txt")
set_bytes=$(awk '$1 == "sets" { print $2 }' "$work/table_bytes.txt")

figures=$(awk -v base="$base_best" -v load="$load_best" -v wall="$wall_best" -v rss="$rss_max" \
  -v cb="$col_bytes" -v sb="$set_bytes" 'BEGIN {
  mb = 1048576
  ratio = load / base
  target = 2 * (cb + sb) / mb + 32
  printf "| Baseline read, wall | %.3f s | |\n", base
  printf "| Table load (\"Data loaded.\" time) | %.3f s | ratio %.2f, target <= 4: %s |\n",
    load, ratio, (ratio <= 4 ? "met" : "MISSED")
  printf "| brixcmd wall (load, start and exit) | %.3f s | ratio %.2f |\n", wall, wall / base
  printf "| Column storage | %.1f MB | |\n", cb / mb
  printf "| Value sets | %.1f MB | |\n", sb / mb
  printf "| Peak RSS of brixcmd | %.1f MB | target <= %.1f MB: %s |\n", rss / 1024, target,
    (rss / 1024 <= target ? "met" : "MISSED")
}')

section=$(
  section_header "$root" "Table load"
  echo
  echo "$name.data: $lines rows, $bytes bytes, read as plain text. Times are the best of 3 runs,"
  echo "peak RSS the largest of them (/usr/bin/time -v). MB = 2^20 bytes."
  [ -z "$note" ] || { echo; echo "$note"; }
  echo
  echo "| Measure | Value | Against the target |"
  echo "|---|---:|---|"
  echo "$figures"
  echo
  echo "Per column (distinct values, storage bytes, value set bytes):"
  echo
  awk '$1 == "column" { printf "- %s (%s): %s distinct, %s + %s bytes\n", $2, $3, $5, $7, $9 }' \
    "$work/table_bytes.txt"
)

append_results "$root" "$section"
