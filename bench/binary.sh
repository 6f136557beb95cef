#!/usr/bin/env bash
# Binary table file against text for the 1,000,000-row dataset: load time from the text files
# and from the binary table (bench/load_only.cpp, load only: no tree is grown), the time zlib
# takes only to inflate the binary file, and the sizes of the text, gzip text and binary files.
# Prints a markdown section and appends it to bench/RESULTS.md.
# Target: the binary load at least 5 x faster than the text load.
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
text_best= bin_best= inflate_best=
for i in 1 2 3; do
  text_out=$("$load_only" -f "$stem")
  bin_out=$("$load_only" -b "$bin")
  inflate_out=$("$load_only" -z "$bin")
  text_best=$(min "$(figure "$text_out")" "$text_best")
  bin_best=$(min "$(figure "$bin_out")" "$bin_best")
  inflate_best=$(min "$(figure "$inflate_out")" "$inflate_best")
done
rows_text=$(awk '{ print $4 }' <<<"$text_out")
rows_bin=$(awk '{ print $4 }' <<<"$bin_out")
if [ "$rows_text" != "$rows_bin" ]; then
  echo "binary.sh: row counts disagree (text $rows_text, binary $rows_bin)" >&2
  exit 1
fi
inflated=$(awk '{ print $4 }' <<<"$inflate_out")

figures=$(awk -v text="$text_best" -v bin="$bin_best" -v inflate="$inflate_best" \
  -v raw="$inflated" -v ts="$(stat -c %s "$stem.data")" -v gs="$(stat -c %s "$src")" \
  -v bs="$(stat -c %s "$bin")" 'BEGIN {
  mb = 1048576
  ratio = text / bin
  printf "| Load from text (.names + .data) | %.3f s | |\n", text
  printf "| Load from the binary table | %.3f s | %.2f x faster, target >= 5: %s |\n", bin, ratio,
    (ratio >= 5 ? "met" : "MISSED")
  printf "| Inflate only (zlib, no parsing) | %.3f s | %.0f%% of the binary load, %.0f MB/s |\n",
    inflate, 100 * inflate / bin, raw / mb / inflate
  printf "| Text file | %.1f MB | |\n", ts / mb
  printf "| Text file, gzip (as shipped) | %.1f MB | |\n", gs / mb
  printf "| Binary table (gzip level 1) | %.1f MB | %.1f MB inflated |\n", bs / mb, raw / mb
}')

section=$(
  section_header "$root" "Binary table"
  echo
  echo "$name: $rows_text rows. Load-only times (bench/load_only), best of 3 runs. The binary"
  echo "file holds the column list twice, as its format requires, so the inflate time covers"
  echo "both copies. MB = 2^20 bytes."
  echo
  echo "| Measure | Value | Against the target |"
  echo "|---|---:|---|"
  echo "$figures"
)
append_results "$root" "$section"
