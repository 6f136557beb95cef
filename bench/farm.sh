#!/usr/bin/env bash
# Parallel growing on the 1,000,000-row dataset: the "Tree built." time of the log without -ff
# and with -ff n for n = 1 .. number of processors (best of 5 each), the speedup against the
# sequential run, and whether each prints the same text report (md5 of the -tstd output).
# Target: -ff 2 at least 1.5 x faster than sequential.
# Prints a markdown section and appends it to bench/RESULTS.md.
# Usage: bash bench/farm.sh path/to/brixcmd
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
need_programs "$brixcmd" /usr/bin/time || exit 1

name=syn_agrawal_f2_1m
prepare_dataset "$root" "$name" || exit 0
out=$work/farm_out.txt

# row LABEL ARGS...: best of 5 runs; prints the table row, remembers the sequential figures.
seq_built= seq_md5=
row() {
  local label=$1 rec md5 i same
  shift
  rec=$(for i in 1 2 3 4 5; do brix_run "$out" "$brixcmd" -f "$stem" "$@"; done | best_record)
  md5=$(md5sum <"$out" | cut -c1-32)
  [ -n "$seq_built" ] || { seq_built=$(field built "$rec"); seq_md5=$md5; }
  same=yes
  [ "$md5" = "$seq_md5" ] || same="NO ($md5)"
  awk -v l="$label" -v b="$(field built "$rec")" -v s="$seq_built" -v w="$(field wall "$rec")" \
    -v m="$(field peak_mb "$rec")" -v same="$same" 'BEGIN {
    printf "| %s | %.3f | %.2f | %.3f | %.1f | %s |\n", l, b, s / b, w, m, same }'
}

table=$(
  row "sequential"
  for n in $(seq 1 "$(nproc)"); do row "-ff $n" -ff "$n"; done
)
speedup2=$(awk -F'|' '$2 == " -ff 2 " { print $4 + 0 }' <<<"$table")

section=$(
  section_header "$root" "Parallel growing"
  echo
  echo "$name: \`brixcmd -f stem [-ff n] -tstd -l log\`. Built: the log's \"Tree built.\" time"
  echo "(grow, prune, classify the training cases), best of 5 runs; speedup against the"
  echo "sequential run; wall time of the whole command, best of 5; peak RSS, largest of 5 (MB)."
  echo "Same report: the md5 of the -tstd output equals the sequential one's."
  echo
  echo "| Run | Built | Speedup | Wall | Peak RSS | Same report |"
  echo "|---|---:|---:|---:|---:|---|"
  echo "$table"
  echo
  if [ -n "$speedup2" ]; then
    echo "-ff 2 speedup $speedup2, target >= 1.5: $(awk -v s="$speedup2" \
      'BEGIN { print (s >= 1.5 ? "met" : "MISSED") }')."
  else
    echo "One processor: the -ff 2 target does not apply."
  fi
)
append_results "$root" "$section"
! grep -q '| NO (' <<<"$table"
