#!/usr/bin/env bash
# Binary table file against text for the 1,000,000-row dataset: load time from the text files,
# from the gzip text and from the binary table (bench/load_only.cpp, load only: no tree is
# grown), the time taken only to inflate the binary file, the sizes of the files, and peak RSS
# of each load and of a whole run (grow and test) from the gzip text and from the binary table.
# Prints a markdown section and appends it to bench/RESULTS.md.
# Targets: the binary load at least 4 x faster than the text load; gzip text within 1.1 x.
# Usage: bash bench/binary.sh path/to/brixcmd   (the bench programs sit beside it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
load_only=$(cd "$(dirname "$brixcmd")" && pwd)/bench/load_only
if [ ! -x "$load_only" ]; then
  echo "binary.sh: $load_only is not built" >&2
  exit 1
fi

name=syn_agrawal_f2_1m
prepare_dataset "$root" "$name" || exit 0
bin=$work/$name.table.bin
"$load_only" -f "$stem" -db "$bin" >/dev/null

figure() { awk '{ print $2 }' <<<"$1"; }
# peak KB COMMAND...: runs COMMAND, its output in $work/peak_out.txt; prints its peak RSS in KB.
peak() {
  /usr/bin/time -f %M -o "$work/peak.txt" "$@" >"$work/peak_out.txt"
  cat "$work/peak.txt"
}
text_best= gz_best= bin_best= inflate_best= text_kb= gz_kb= bin_kb=
for i in 1 2 3; do
  text_out=$("$load_only" -f "$stem")
  gz_out=$("$load_only" -n "$stem.names" "$src")
  bin_out=$("$load_only" -b "$bin")
  inflate_out=$("$load_only" -z "$bin")
  text_best=$(min "$(figure "$text_out")" "$text_best")
  gz_best=$(min "$(figure "$gz_out")" "$gz_best")
  bin_best=$(min "$(figure "$bin_out")" "$bin_best")
  inflate_best=$(min "$(figure "$inflate_out")" "$inflate_best")
  text_kb=$(max "$(peak "$load_only" -f "$stem")" "$text_kb")
  gz_kb=$(max "$(peak "$load_only" -n "$stem.names" "$src")" "$gz_kb")
  bin_kb=$(max "$(peak "$load_only" -b "$bin")" "$bin_kb")
done
rows_text=$(awk '{ print $4 }' <<<"$text_out")
rows_gz=$(awk '{ print $4 }' <<<"$gz_out")
rows_bin=$(awk '{ print $4 }' <<<"$bin_out")
if [ "$rows_text" != "$rows_bin" ] || [ "$rows_text" != "$rows_gz" ]; then
  echo "binary.sh: row counts disagree (text $rows_text, gzip $rows_gz, binary $rows_bin)" >&2
  exit 1
fi
inflated=$(awk '{ print $4 }' <<<"$inflate_out")
# Whole runs: the peak of growing is above the load's, so a load's transient shows only if it
# rises above that.
test_file=${src%.data.gz}.test
run_gz_kb=$(peak "$brixcmd" -fm "$stem.names" -fd "$src" -ft "$test_file" -tstd)
run_bin_kb=$(peak "$brixcmd" -fm "$stem.names" -bd "$bin" -ft "$test_file" -tstd)

figures=$(awk -v text="$text_best" -v gz="$gz_best" -v bin="$bin_best" -v inflate="$inflate_best" \
  -v raw="$inflated" -v ts="$(stat -c %s "$stem.data")" -v gs="$(stat -c %s "$src")" \
  -v bs="$(stat -c %s "$bin")" -v tk="$text_kb" -v gk="$gz_kb" -v bk="$bin_kb" \
  -v rgk="$run_gz_kb" -v rbk="$run_bin_kb" 'BEGIN {
  mb = 1048576
  ratio = text / bin
  printf "| Load from text (.names + .data) | %.3f s | peak RSS %.1f MB |\n", text, tk / 1024
  printf "| Load from gzip text (.data.gz) | %.3f s | %.2f x the text load, target <= 1.1: %s; peak RSS %.1f MB |\n",
    gz, gz / text, (gz / text <= 1.1 ? "met" : "MISSED"), gk / 1024
  printf "| Load from the binary table | %.3f s | %.2f x faster, target >= 4: %s; peak RSS %.1f MB |\n",
    bin, ratio, (ratio >= 4 ? "met" : "MISSED"), bk / 1024
  printf "| Inflate only (no parsing) | %.3f s | %.0f%% of the binary load, %.0f MB/s |\n",
    inflate, 100 * inflate / bin, raw / mb / inflate
  printf "| Whole run (-ft test, -tstd), peak RSS | | from gzip text %.1f MB, from the binary table %.1f MB |\n",
    rgk / 1024, rbk / 1024
  printf "| Text file | %.1f MB | |\n", ts / mb
  printf "| Text file, gzip (as shipped) | %.1f MB | |\n", gs / mb
  printf "| Binary table (gzip level 1) | %.1f MB | %.1f MB inflated |\n", bs / mb, raw / mb
}')

section=$(
  section_header "$root" "Binary table"
  echo
  echo "$name: $rows_text rows. Load-only times (bench/load_only), best of 3 runs; peak RSS"
  echo "(/usr/bin/time), largest of 3. The binary file holds the column list twice, as its"
  echo "format requires, so the inflate time covers both copies. MB = 2^20 bytes."
  echo
  echo "| Measure | Value | Against the target |"
  echo "|---|---:|---|"
  echo "$figures"
)
append_results "$root" "$section"
