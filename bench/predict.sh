#!/usr/bin/env bash
# Prediction on tables against brixcmd on the same rows, letter (16,000 training rows, 4,000
# test rows), best of 5: brix predict on every training row against brixcmd scoring them
# (-bt tree -fs rows -s out), target <= 1.5 x its wall; and the test stage of brix train on CSV
# (brix -v) against brixcmd's testing time on the stem's .test file (its log), target <= 1.5 x.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
locate_programs "$1"
need_programs "$brixcmd" "$brix" || exit 1
stem=$root/../shared/data/mlb_letter
if [ ! -f "$stem.data" ] || [ ! -f "$stem.test" ]; then
  echo "$(basename "$0"): $stem.data or .test not found; benchmark skipped"
  exit 0
fi
work=$root/bench/work
mkdir -p "$work"
header=$(cut -d, -f1 "$stem.names" | paste -sd,)
{ echo "$header"; cat "$stem.data"; } >"$work/letter.csv"
{ echo "$header"; cat "$stem.test"; } >"$work/letter_test.csv"
"$brixcmd" -f "$stem" -tb "$work/letter.tree" >/dev/null || exit 1

best_wall() {  # command...: best wall seconds of 5 runs
  local b= t0
  for _ in 1 2 3 4 5; do
    t0=$(now_ns)
    "$@" >/dev/null 2>&1 || return 1
    b=$(min "$(seconds_since "$t0")" "$b")
  done
  echo "$b"
}
best_of() {  # awk-program command...: best of 5 of the figure the program picks from the output
  local prog=$1 b= s
  shift
  for _ in 1 2 3 4 5; do
    s=$("$@" 2>&1 | awk "$prog")
    b=$(min "$s" "$b")
  done
  echo "$b"
}
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
verdict() { awk -v r="$1" 'BEGIN { print (r <= 1.5) ? "met" : "missed" }'; }

cmd_score=$(best_wall "$brixcmd" -bt "$work/letter.tree" -fs "$stem.data" -s "$work/letter.scores")
brix_predict=$(best_wall "$brix" predict "$work/letter.tree" "$stem" --output "$work/letter.pred")
r1=$(ratio "$brix_predict" "$cmd_score")
cmd_test=$(best_of '/Testing done/ { getline; print $2 }' \
  "$brixcmd" -f "$stem" -ft "$stem.test" -lstd)
brix_test=$(best_of '$2 == "test" { print $3 }' \
  "$brix" train "$work/letter.csv" --test "$work/letter_test.csv" -v)
r2=$(ratio "$brix_test" "$cmd_test")
append_results "$root" "$(
  section_header "$root" "Prediction on tables, letter"
  echo
  echo "| Run | Rows | Seconds (best of 5) | brixcmd on the same rows | Ratio | Target <= 1.5 x |"
  echo "|---|---:|---:|---:|---:|---|"
  echo "| brix predict letter.tree mlb_letter (wall) | 16,000 | $brix_predict | $cmd_score (-bt -fs -s) | $r1 | $(verdict "$r1") |"
  echo "| brix train letter.csv --test letter_test.csv, stage test | 4,000 | $brix_test | $cmd_test (-ft, testing) | $r2 | $(verdict "$r2") |"
)"
