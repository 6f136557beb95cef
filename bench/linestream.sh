#!/usr/bin/env bash
# Line stream throughput: our stream on a plain and a gzip file against wc -l and
# zcat | wc -l. Prints a markdown table and appends it to bench/RESULTS.md.
# Usage: bash bench/linestream.sh path/to/brixcmd   (the bench programs sit beside it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
build=$(cd "$(dirname "$brixcmd")" && pwd)
prog=$build/bench/linestream_bench
if [ ! -x "$prog" ]; then
  echo "linestream.sh: $prog is not built" >&2
  exit 1
fi

work=$root/bench/work
mkdir -p "$work"
src=$root/../shared/data/syn_agrawal_f2_1m.data.gz
if [ -f "$src" ]; then
  gz=$src
  plain=$work/syn_agrawal_f2_1m.data
  [ "$plain" -nt "$src" ] || zcat "$src" >"$plain"
else
  # No shared data: a fixed-seed table of the same shape (10 numeric fields, 1,000,000 rows).
  plain=$work/synthetic_1m.data
  gz=$plain.gz
  if [ ! -f "$gz" ]; then
    awk 'BEGIN { srand(12345);
      for (i = 0; i < 1000000; i++)
        printf "%.2f,%d,%d,%d,%d,%d,%d,%d,%.2f,%d\n", 20000 + rand() * 130000,
          rand() * 75000, 20 + rand() * 60, int(rand() * 5), int(rand() * 20),
          int(rand() * 9), 50000 + rand() * 100000, int(rand() * 30),
          rand() * 500000, rand() < 0.5 }' >"$plain"
    gzip -1 -c "$plain" >"$gz"
  fi
fi

# Seconds of the fastest of three runs of a command, output discarded.
best_of_3() {
  local best="" t0 t1 i
  for i in 1 2 3; do
    t0=$(date +%s%N)
    "$@" >/dev/null
    t1=$(date +%s%N)
    if [ -z "$best" ] || [ $((t1 - t0)) -lt "$best" ]; then best=$((t1 - t0)); fi
  done
  awk -v ns="$best" 'BEGIN { printf "%.4f", ns / 1e9 }'
}
zcat_wc() { zcat "$1" | wc -l; }

bytes=$(stat -c %s "$plain")
gz_bytes=$(stat -c %s "$gz")
lines=$(wc -l <"$plain")
ours=$("$prog" "$gz" | awk '{ print $2 }')
if [ "$ours" != "$lines" ]; then
  echo "linestream.sh: the stream read $ours lines, wc -l counts $lines" >&2
  exit 1
fi

row() {  # label, input, seconds
  printf '| %s | %s | %s | %s |\n' "$1" "$2" "$3" \
    "$(awk -v b="$bytes" -v s="$3" 'BEGIN { printf "%.0f", b / s / 1e6 }')"
}

lines_plain=$(best_of_3 "$prog" --lines "$plain")
wc_plain=$(best_of_3 wc -l "$plain")
lines_gz=$(best_of_3 "$prog" --lines "$gz")
wc_gz=$(best_of_3 zcat_wc "$gz")
table=$(
  echo "| Reader | Input | Seconds (best of 3) | MB/s of text |"
  echo "|---|---|---:|---:|"
  row "stream, lines and fields" "plain" "$(best_of_3 "$prog" "$plain")"
  row "stream, lines only" "plain" "$lines_plain"
  row "wc -l" "plain" "$wc_plain"
  row "stream, lines and fields" "gzip" "$(best_of_3 "$prog" "$gz")"
  row "stream, lines only" "gzip" "$lines_gz"
  row "zcat \\| wc -l" "gzip" "$wc_gz"
)
# verdict OURS THEIRS WHAT: the target is a stream not slower than the reference tool.
verdict() {
  awk -v a="$1" -v b="$2" -v w="$3" 'BEGIN {
    printf "- lines only against %s: %.2f x its time, target <= 1: %s\n", w, a / b,
      (a <= b ? "met" : "MISSED") }'
}

section=$(
  section_header "$root" "Line stream"
  echo
  echo "$(basename "$plain"): $lines lines, $bytes bytes ($gz_bytes gzip-compressed)."
  echo "Wall time of the whole command; the stream splits every field unless \"lines only\"."
  echo
  echo "$table"
  echo
  verdict "$lines_plain" "$wc_plain" "wc -l"
  verdict "$lines_gz" "$wc_gz" "zcat | wc -l"
)
append_results "$root" "$section"
