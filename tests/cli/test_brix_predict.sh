# brix on test data whose class values or attribute values the tree never saw: a warning that
# names the classes, status 0, and predictions for values of the data's own.
source "$(dirname "$0")/lib.sh"
EX=$ROOT/examples

{ echo "outlook,temperature,humidity,windy,play"; cat "$EX/golf.data"; } >golf.csv
cat >golf_test.csv <<'CSV'
outlook,temperature,humidity,windy,play
sunny,85,85,FALSE,no
sunny,70,70,TRUE,maybe
rainy,75,95,TRUE,yes
overcast,?,?,?,maybe
hail,68,96,FALSE,perhaps
CSV

brix_expect 0 train golf.csv --test golf_test.csv
grep -qxF "brix: golf_test.csv has class values the tree never saw, counted as errors: 'maybe' (2 rows), 'perhaps' (1 row)" stderr ||
  fail "no warning naming the unseen classes: $(cat stderr)"
grep -q "MISCLASSIFICATION on test file: 80% of 5 cases." stdout || fail "test error: $(grep test stdout)"
brix_run train golf.csv --test golf_test.csv --quiet
[ -s stderr ] && fail "--quiet still warns: $(cat stderr)"
# A stem's test file too, read as brixcmd reads it; an unknown class is not a class never seen.
tail -n +2 golf_test.csv >golf_test.data
echo "sunny,85,85,FALSE,?" >>golf_test.data
brix_expect 0 train "$EX/golf" --test golf_test.data
grep -qxF "brix: golf_test.data has class values the tree never saw, counted as errors: 'maybe' (2 rows), 'perhaps' (1 row)" stderr ||
  fail "no warning naming the unseen classes of a stem's test file: $(cat stderr)"
# Known classes only: no warning.
head -4 golf_test.csv | grep -v maybe >known.csv
brix_run train golf.csv --test known.csv
[ -s stderr ] && fail "a warning without unseen classes: $(cat stderr)"

# Predictions on the test file's own value sets: an outlook never seen shares its weight over
# every branch (9 of 14 days yes); unknown values likewise.
brix_run train golf.csv --model golf.tree
brix_expect 0 predict golf.tree golf_test.csv --proba
expect_output "predicted,p(no),p(yes)
no,1,0
yes,0,1
no,1,0
yes,0,1
yes,0.357143,0.642857"

finish
