#!/usr/bin/env bash
# Brix beside Weka's J48 (-C 0.25 -M 2, the same pruning confidence and minimum) on every
# shared dataset up to 100,000 rows, and on the 1,000,000-row one when BRIX_J48_1M=1 (J48
# takes minutes there): tree size, training and test error, wall time, build time and peak
# memory. Target: Brix's test error within one percentage point of J48's on every dataset with
# at least 1,000 test rows. The datasets are converted to ARFF by bench/to_arff.py.
# Prints a markdown section and appends it to bench/RESULTS.md.
# Usage: bash bench/j48.sh path/to/brixcmd
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
need_programs "$brixcmd" /usr/bin/time || exit 1
weka=/usr/share/java/weka.jar
if [ ! -f "$weka" ] || ! command -v java >/dev/null; then
  echo "J48 not installed, comparison skipped"
  exit 0
fi
work=$root/bench/work/j48
mkdir -p "$work"
out=$work/out.txt

# j48_record OUT: size, build time, training and test error of a J48 report.
j48_record() {
  awk '/^Size of the tree/ { size = $NF }
    /^Time taken to build model/ { built = $(NF - 1) }
    /^=== Error on training data ===/ { part = "train" }
    /^=== Error on test data ===/ { part = "test" }
    /^Incorrectly Classified Instances/ { err[part] = $(NF - 1) }
    END { printf "size %s built %s train_error %s test_error %s", size, built, err["train"],
            ("test" in err) ? err["test"] : "-" }' "$1"
}
pct() { fmt %.2f%% "$1"; }

quality= cost= skipped= checked=0 within=0 status=0
while read -r -u 3 name stem test; do
  rows=$(wc -l <"$stem.data")
  if [ "$rows" -gt 100000 ] && [ "${BRIX_J48_1M:-}" != 1 ]; then
    skipped+=" $name ($rows rows)"
    continue
  fi
  arff=$work/$name
  brix_test=() j48_test=() test_rows=-
  if [ -n "$test" ]; then
    brix_test=(-ft "$test")
    j48_test=(-T "$arff.test.arff")
    test_rows=$(wc -l <"$test")
  fi
  if [ ! "$arff.arff" -nt "$stem.data" ] || [ ! "$arff.arff" -nt "$root/bench/to_arff.py" ]; then
    python3 "$root/bench/to_arff.py" "$stem.names" "$stem.data" "$arff.arff.tmp" \
      ${test:+"$test" "$arff.test.arff"}
    mv "$arff.arff.tmp" "$arff.arff"
  fi

  # The class column's place among the columns kept in the ARFF file, from 1.
  class=$(awk -F, '$3 ~ /^(discrete|continuous|class)$/ { n++ } $3 == "class" { print n }' \
    "$stem.names")
  b=$(brix_run "$out" "$brixcmd" -f "$stem" "${brix_test[@]}")
  j=$(timed "$out.j48" java -Xmx4g -cp "$weka" weka.classifiers.trees.J48 -C 0.25 -M 2 -no-cv \
    -c "$class" -t "$arff.arff" "${j48_test[@]}")
  j+=" $(j48_record "$out.j48")"
  if [ -z "$(field size "$j")" ]; then
    echo "j48.sh: $name: J48 gave no tree:" >&2
    cat "$out.j48" >&2
    quality+=$'\n'"| $name | $rows | $test_rows | J48 failed | | | | |"
    status=1
    continue
  fi

  # Difference of test errors in points (Brix minus J48); the target needs 1,000 test rows.
  verdict=- diff=-
  if [ "$test_rows" != - ]; then
    diff=$(awk -v b="$(field test_error "$b")" -v j="$(field test_error "$j")" \
      'BEGIN { d = b - j; printf "%+.2f", (d > -0.005 && d < 0.005) ? 0 : d }')
    if [ "$test_rows" -ge 1000 ]; then
      checked=$((checked + 1))
      if awk -v d="$diff" 'BEGIN { exit !(d <= 1 && d >= -1) }'; then
        verdict=met within=$((within + 1))
      else
        verdict=MISSED
      fi
    else
      verdict="n/a (< 1,000 test rows)"
    fi
  fi
  quality+=$(printf '\n| %s | %s | %s | %s / %s | %s / %s | %s / %s | %s | %s |' "$name" "$rows" \
    "$test_rows" "$(field size "$b")" "$(field size "$j")" \
    "$(pct "$(field train_error "$b")")" "$(pct "$(field train_error "$j")")" \
    "$(pct "$(field test_error "$b")")" "$(pct "$(field test_error "$j")")" "$diff" "$verdict")
  cost+=$(awk -v n="$name" -v bw="$(field wall "$b")" -v jw="$(field wall "$j")" \
    -v bb="$(field built "$b")" -v jb="$(field built "$j")" -v bm="$(field peak_mb "$b")" \
    -v jm="$(field peak_mb "$j")" 'BEGIN {
    printf "\n| %s | %.3f | %.3f | %.1f | %.4f | %.2f | %.1f | %.1f |", n, bw, jw, jw / bw, bb,
      jb, bm, jm }')
done 3< <(bench_datasets "$root")

section=$(
  section_header "$root" "Brix and J48"
  echo
  echo "J48 of Weka $(unzip -p "$weka" weka/core/version.txt 2>/dev/null || echo "(version unknown)")"
  echo "(\`java -Xmx4g weka.classifiers.trees.J48 -C 0.25 -M 2 -no-cv -c class-column -t train.arff [-T test.arff]\`)"
  echo "beside \`brixcmd -f stem [-ft stem.test] -tstd\`, one run each. Errors are the"
  echo "misclassified share of the training and of the test cases; the difference is Brix's test"
  echo "error minus J48's, in percentage points. J48 raises subtrees when it prunes, as Brix"
  echo "does with -c4.5 (see the -c4.5 table of the Trees section for those tree sizes)."
  echo
  echo "| Dataset | Rows | Test rows | Tree size Brix / J48 | Training error Brix / J48 | Test error Brix / J48 | Difference | Within 1 point |"
  echo "|---|---:|---:|---:|---:|---:|---:|---|"
  echo "${quality#$'\n'}"
  echo
  echo "Quality target (test error within 1 point of J48 with at least 1,000 test rows):"
  echo "$within of $checked datasets met$([ "$within" = "$checked" ] && echo ", target met" ||
    echo ", target MISSED")."
  [ -z "$skipped" ] || echo "Not run with J48:$skipped; set BRIX_J48_1M=1 to include it."
  echo
  echo "Cost. Wall: whole command (J48 includes the start of the Java machine and ARFF parsing);"
  echo "built: Brix's \"Tree built.\" time (grow, prune, classify the training cases), J48's"
  echo "\"Time taken to build model\" (grow and prune, 10 ms resolution). Seconds; peak RSS in MB."
  echo
  echo "| Dataset | Wall Brix | Wall J48 | J48 / Brix | Built Brix | Built J48 | Peak RSS Brix | Peak RSS J48 |"
  echo "|---|---:|---:|---:|---:|---:|---:|---:|"
  echo "${cost#$'\n'}"
)
append_results "$root" "$section"
exit $status
