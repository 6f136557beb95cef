# The golf tree end to end: text reports worked out by hand (the arithmetic is in
# tests/brix/tree_prune_predict_test.cpp), test files, holdouts and scoring.
source "$(dirname "$0")/lib.sh"

GOLF=$ROOT/examples/golf

# The full strategy finds nothing to raise or collapse in this tree; 100% takes no holdout.
for args in "" -c4.5 "-h 100"; do
  ok -f "$GOLF" $args -tstd
  expect_output_file "$GOLDEN/golf.txt"
done

# Unpruned, every leaf is pure and shows no error.
ok -f "$GOLF" -np -tstd
sed 's#/[0-9.]*)$#)#' "$GOLDEN/golf.txt" >np.txt
expect_output_file np.txt

# Unknown outlook and humidity values, shared out over the branches.
ok -f "$ROOT/tests/data/golf_unknown" -tstd
expect_output_file "$GOLDEN/golf_unknown.txt"

# A test file: the training rows and one row of a class unseen in training, counted in the
# column of the unknown class. 1 of 15 is 6.66667%.
cp "$GOLF.data" test.data
echo "overcast,70,70,FALSE,maybe" >>test.data
ok -f "$GOLF" -ft test.data -tstd
sed -n '10,15p' "$WORK/stdout" >section.txt
printf '%s\n' "" "MISCLASSIFICATION on test file: 6.66667% of 15 cases. " $'?\tno\tyes\tactual/predicted' \
  $'0\t0\t0\t?' $'0\t5\t0\tno' $'1\t0\t9\tyes' | diff -u - section.txt >/dev/null ||
  fail "test section differs: $(cat section.txt)"

# An empty test file: no cases, 0/0.
: >empty.data
ok -f "$GOLF" -ft empty.data -tstd
expect_line 11 '^MISCLASSIFICATION on test file: -nan% of 0 cases\. $'

# A row of the wrong shape stops the run with the row number; the status stays 0.
sed '3s/$/,extra/' "$GOLF.data" >bad.data
says "Reading test data: (row 3): bad row format: overcast,83,86,FALSE,yes,extra" -f "$GOLF" -ft bad.data
ok -f "$GOLF" -fs bad.data -s scores.csv
expect_line_count 1
expect_line 1 '^Reading score data: bad row format \(row 3\): '

# Scoring: every training row is predicted right with weight 1.
ok -f "$GOLF" -fs "$GOLF.data" -s scores.csv
sed 's/,\([a-z]*\)$/,\1,\1,1/' "$GOLF.data" | diff -u - scores.csv >/dev/null ||
  fail "score output differs: $(head -3 scores.csv)"

# A score file without an output file is not scored.
ok -f "$GOLF" -fs "$GOLF.data" -lstd
expect_grep '^No score output file provided!$'
grep -q "Evaluation done." "$WORK/stdout" && fail "scored without an output file"

# Holdouts: 7 rows to train on and 7 to test, random or first.
for h in -h -hf; do
  ok -f "$GOLF" "$h" 50 -tstd
  expect_grep '^MISCLASSIFICATION on training: [0-9.]+% of 7 cases\. $'
  expect_grep '^MISCLASSIFICATION on holdout test: [0-9.]+% of 7 cases\. $'
done

finish
