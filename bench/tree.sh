#!/usr/bin/env bash
# Trees on every shared dataset: size, depth, errors, the log's stage times, the separate
# grow / prune / predict times of bench/tree_stages and the peak memory; tree size and test
# error with the other two pruning strategies (-c4.5, -np), which also score a file; and the
# whole default run on the 1,000,000-row dataset against its targets (wall <= 2.5 s, peak RSS
# <= 130 MB).
# Prints a markdown section and appends it to bench/RESULTS.md.
# Usage: bash bench/tree.sh path/to/brixcmd   (the bench programs sit beside it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
stages=$(cd "$(dirname "$brixcmd")" && pwd)/bench/tree_stages
need_programs "$brixcmd" "$stages" /usr/bin/time || exit 1
work=$root/bench/work
mkdir -p "$work"
out=$work/tree_out.txt

sec() { fmt %.4f "$1"; }
pct() { fmt %.2f%% "$1"; }

rows_table= strategy_table=
while read -r -u 3 name stem test; do
  test_args=()
  [ -z "$test" ] || test_args=(-ft "$test")
  rows=$(wc -l <"$stem.data")
  b=$(for i in 1 2 3; do brix_run "$out" "$brixcmd" -f "$stem" "${test_args[@]}"; done |
    best_record)
  s=$(for i in 1 2 3; do "$stages" "$stem.names" "$stem.data" ${test:+"$test"}; done | best_record)
  if [ "$(field size "$s")" != "$(field size "$b")" ]; then
    echo "tree.sh: $name: tree_stages grew a tree of $(field size "$s") nodes, brixcmd" \
      "$(field size "$b")" >&2
    exit 1
  fi
  rows_table+=$(printf '\n| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s | %s |' \
    "$name" "$rows" "$(field size "$b")" "$(field depth "$b")" \
    "$(pct "$(field train_error "$b")")" "$(pct "$(field test_error "$b")")" \
    "$(sec "$(field load "$b")")" "$(sec "$(field built "$b")")" \
    "$(sec "$(field tested "$b")")" "$(sec "$(field grow "$s")")" \
    "$(sec "$(field prune "$s")")" "$(sec "$(field train "$s")")" \
    "$(sec "$(field test "$s")")" "$(field peak_mb "$b")")
  # The other two pruning strategies, each also scoring its test (or training) file.
  scored=${test:-$stem.data}
  strategy_row="| $name | $(field size "$b")"
  errors="$(pct "$(field test_error "$b")")"
  for strategy in -c4.5 -np; do
    c=$(brix_run "$out" "$brixcmd" -f "$stem" "${test_args[@]}" "$strategy" \
      -fs "$scored" -s "$work/scores.txt")
    if [ "$(wc -l <"$work/scores.txt")" -ne "$(wc -l <"$scored")" ]; then
      echo "tree.sh: $name $strategy: the score file lacks rows" >&2
      exit 1
    fi
    strategy_row+=" | $(field size "$c")"
    errors+=" | $(pct "$(field test_error "$c")")"
  done
  strategy_table+=$'\n'"$strategy_row | $errors |"
done 3< <(bench_datasets "$root")

# The whole default run on the largest dataset, without outputs, from the plain and the gzip
# data file: best wall time and largest peak RSS of 5 runs.
big=syn_agrawal_f2_1m big_table=
if prepare_dataset "$root" "$big"; then
  big_runs() {
    for i in 1 2 3 4 5; do
      timed "$out" "$brixcmd" "$@" -ft "${src%.data.gz}.test"
      [ ! -s "$out" ] || { echo "tree.sh: brixcmd $*:" >&2; cat "$out" >&2; return 1; }
    done | best_record
  }
  plain=$(big_runs -f "$stem")
  gz=$(big_runs -fm "$stem.names" -fd "$src")
  big_table=$(awk -v pw="$(field wall "$plain")" -v pm="$(field peak_mb "$plain")" \
    -v gw="$(field wall "$gz")" -v gm="$(field peak_mb "$gz")" 'BEGIN {
    printf "| -f stem (plain .data) | %.3f s | %s: %s | %.1f MB | %s: %s |\n", pw,
      "target <= 2.5 s", (pw <= 2.5 ? "met" : "MISSED"), pm, "target <= 130 MB",
      (pm <= 130 ? "met" : "MISSED")
    printf "| -fm stem.names -fd stem.data.gz | %.3f s | %.2f x the plain run | %.1f MB | |\n",
      gw, gw / pw, gm
  }')
fi

section=$(
  section_header "$root" "Trees"
  echo
  echo "Default options (gain ratio, error-based pruning at 0.25, -m 2): \`brixcmd -f stem"
  echo "[-ft stem.test] -tstd -l log\`. The test error is on the .test file when there is one."
  echo "Loaded, built, tested: the log's \"Data loaded.\", \"Tree built.\" (grow, prune and"
  echo "classify the training cases) and \"Testing done.\" times. Grow, prune, predict: the"
  echo "same stages timed apart by bench/tree_stages. Seconds, best of 3 runs; peak RSS of"
  echo "brixcmd (/usr/bin/time -v), largest of the 3, MB = 2^20 bytes."
  echo
  echo "| Dataset | Rows | Tree size | Depth | Training error | Test error | Loaded | Built | Tested | Grow | Prune | Predict training | Predict test | Peak RSS MB |"
  echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|"
  echo "${rows_table#$'\n'}"
  echo
  echo "The three pruning strategies: default, full with subtree raising (\`-c4.5\`) and none"
  echo "(\`-np\`); the last two runs also score their test file (\`-fs\`, \`-s\`), one line a row."
  echo
  echo "| Dataset | Tree size, default | -c4.5 | -np | Test error, default | -c4.5 | -np |"
  echo "|---|---:|---:|---:|---:|---:|---:|"
  echo "${strategy_table#$'\n'}"
  if [ -n "$big_table" ]; then
    echo
    echo "$big, whole run \`brixcmd ... -ft $big.test\` (load, grow, prune, evaluation on the"
    echo "training and the test cases, no output files): wall time best of 5, peak RSS largest of 5."
    echo
    echo "| Data file | Wall | Against the target | Peak RSS | Against the target |"
    echo "|---|---:|---|---:|---|"
    echo "$big_table"
  fi
)
append_results "$root" "$section"
