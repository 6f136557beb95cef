# brix train|cv --rules and the ruleset file: the golf ruleset and its predictions, the file read
# back by predict and show (PMML valid), refused where a tree is needed, and no file left behind
# by a failed run.
source "$(dirname "$0")/lib.sh"
EX=$ROOT/examples
XSD=$ROOT/../shared/pmml/pmml-4-4.xsd

{ echo "outlook,temperature,humidity,windy,play"; cat "$EX/golf.data"; } >golf.csv
brix_expect 0 train golf.csv --rules --model golf.rules
sed -n '3,5p;7,$p' stdout >report
cat >expected <<'TXT'
RULES: 2 (from a tree of 5 leaves)

MISCLASSIFICATION on training: 0% of 14 rows.
Rules (2 from 5 leaves)

Rule 1: (3, confidence 0.8, lift 2.2)
    outlook = sunny
    humidity > 75
    -> class no

Rule 2: (2, confidence 0.75, lift 2.1)
    outlook = rainy
    windy = TRUE
    -> class no

Default class: yes
TXT
diff -u expected report >diff || fail "golf report: $(cat diff)"

# The file read back: the same text, probabilities from the firing rule (alone: 1) or the
# default's Laplace shares of the 9 uncovered days (all yes): 1/11 and 10/11.
brix_run show golf.rules
tail -n +1 stdout | diff -u <(sed -n '4,$p' expected) - >diff || fail "show text: $(cat diff)"
brix_expect 0 predict golf.rules golf.csv --proba
expect_head "predicted,p(no),p(yes)
no,1,0
no,1,0
yes,0.0909091,0.909091"
brix_run show golf.rules --format json
python3 -c 'import json,sys; j=json.load(open(sys.argv[1])); assert j["kind"]=="ruleset" and len(j["rules"])==2 and j["default"]=="yes"' stdout ||
  fail "JSON: $(head -c 300 stdout)"
brix_run show golf.rules --format pmml
if [ -f "$XSD" ] && command -v xmllint >/dev/null; then
  xmllint --noout --schema "$XSD" stdout 2>lint || fail "PMML invalid: $(head -3 lint)"
else
  NEEDS_MISSING="xmllint and the PMML 4.4 schema"
fi
grep -q '<RuleSelectionMethod criterion="weightedMax"/>' stdout || fail "no selection method"
brix_expect 2 show golf.rules --format dot

# A stem with its test file, a holdout, and cross-validation counting rules.
brix_expect 0 train "$EX/iris" --rules --test "$EX/iris.test" --quiet
grep -qx "MISCLASSIFICATION on test file: 6% of 50 rows." stdout || fail "iris test: $(grep test stdout)"
brix_run train "$EX/iris" --rules --test-fraction 0.3 --report json
python3 -c 'import json,sys; j=json.load(open(sys.argv[1])); assert j["holdout"]["rows"]==30 and j["rules"]<j["tree_leaves"]' stdout ||
  fail "holdout JSON: $(head -c 300 stdout)"
brix_expect 0 cv "$EX/iris" --rules -k 3
[ "$(grep -c $'^[123]\t' stdout)" -eq 3 ] && grep -q '^mean error' stdout || fail "cv: $(cat stdout)"

# Refusals: a tree reader given the ruleset, a damaged ruleset, an output over an input, a
# directory that does not exist (nothing left behind).
run -bt golf.rules
grep -q "holds a ruleset, not a tree" stdout stderr || fail "brixcmd -bt read a ruleset: $(cat stdout)"
head -5 golf.rules >cut.rules
brix_expect 1 predict cut.rules golf.csv
grep -q "cut.rules: damaged ruleset file" stderr || fail "damaged file: $(cat stderr)"
brix_expect 2 train golf.csv --rules --model golf.csv
brix_expect 1 train golf.csv --rules --model nowhere/golf.rules
[ -e nowhere ] && fail "a directory was made"
ls ./*.part >/dev/null 2>&1 && fail "a part file was left"

finish
