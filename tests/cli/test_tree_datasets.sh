# Every shared dataset trains on all its rows, tests and scores under each pruning strategy. The score output
# is checked row by row, and its misclassifications must agree with the report's figure for the
# same rows (the test file, or the training data when there is none).
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"

# check_scores INPUT OUTPUT CLASS_FIELD HEADING: OUTPUT holds each INPUT row followed by
# ",<class>,<weight>", and the share of rows whose class differs from field CLASS_FIELD is the
# report's percentage under HEADING.
check_scores() {
  local figures
  figures=$(sed -n "s/^$4\([^%]*\)% of \([0-9]*\) cases\. \$/\1 \2/p" "$WORK/stdout")
  [ -n "$figures" ] || { fail "no '$4' line"; return; }
  awk -F, -v cls="$3" -v figures="$figures" '
    NR == FNR { row[FNR] = $0; n = FNR; next }
    {
      m++
      if (index($0, row[m] ",") != 1 || substr($0, length(row[m]) + 2) !~ /^[^,]+,[0-9][0-9.e+-]*$/) {
        print "bad score line " m ": " $0; bad = 1; exit
      }
      split(row[m], f, ","); if ($(NF - 1) != f[cls]) miss++
    }
    END {
      if (bad) exit 1
      if (m != n) { print m " score lines for " n " rows"; exit 1 }
      split(figures, r, " ")
      pct = 100 * miss / n
      if (r[2] != n || (pct - r[1]) ^ 2 > 1e-8 * (1 + pct * pct)) {
        print "scored " miss "/" n " wrong (" pct "%), report says " figures; exit 1
      }
    }' "$1" "$2" >"$WORK/check" || fail "$(cat "$WORK/check")"
}

while read -r base names data test; do
  class_field=$(awk -F, '$3 == "class" { print NR; exit }' "$names")
  rows=$(gzip -cdf "$data" | wc -l)  # every line of the data is a training row
  for strategy in "" -c4.5 -np; do
    ok -fm "$names" -fd "$data" ${test:+-ft "$test"} -fs "${test:-$data}" -s scores.csv -tstd $strategy
    check_scores "${test:-$data}" scores.csv "$class_field" \
      "MISCLASSIFICATION on $([ -n "$test" ] && echo "test file" || echo training): "
    expect_grep '^TREE SIZE: [1-9][0-9]*$'
    expect_grep "^MISCLASSIFICATION on training: [-0-9.e+]+% of $rows cases\\. \$"
  done
done < <(datasets)

finish
