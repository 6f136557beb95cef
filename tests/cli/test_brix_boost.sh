# brix train, cv, predict and show with --trials and --costs: the reports, the model file that
# only brix reads, the same model on any number of threads, and the refusals.
source "$(dirname "$0")/lib.sh"
EX=$ROOT/examples
XSD=$ROOT/../shared/pmml/pmml-4-4.xsd

# Training: the trials kept, errors with the average cost, the file; a stem's test file.
brix_expect 0 train "$EX/votes" --test "$EX/votes.test" --trials 5 --model votes.bm
grep -q "^TRIALS: [1-5], TOTAL TREE SIZE: [0-9]*$" stdout || fail "no trials line: $(head -4 stdout)"
grep -q "^MISCLASSIFICATION on test file: [0-9.]*% of 145 cases" stdout || fail "no test error"
[ "$(grep -c '^AVERAGE COST: ' stdout)" -eq 2 ] || fail "not an average cost per matrix"
grep -q "^Trial 1: vote [0-9.]*, weighted training error" stdout || fail "no trial heading"
[ -f votes.bm ] && [ ! -e votes.bm.part ] || fail "no model file"

# The same model for one thread and two, and across runs.
brix_run train "$EX/iris" --trials 6 --report json --threads 1
cp stdout one.json
brix_run train "$EX/iris" --trials 6 --report json --threads 2
expect_output_file one.json
python3 -c 'import json,sys; j=json.load(open(sys.argv[1])); assert j["model"]["format"] == "brix-ensemble"' \
  one.json || fail "the JSON report does not hold the model"

# predict and show read the file; brixcmd refuses it with a message.
brix_expect 0 predict votes.bm "$EX/votes" --proba
expect_line_count 291
awk -F, 'NR > 1 { s = $2 + $3; if (s < 0.99999 || s > 1.00001) bad = 1;
  if (($2 >= $3) != ($1 == "democrat")) bad = 1 } END { exit bad }' stdout ||
  fail "probabilities do not sum to 1 or disagree with the class"
for f in text json pmml dot; do
  brix_expect 0 show votes.bm --format $f
  [ -s stdout ] || fail "show --format $f printed nothing"
  cp stdout "votes.$f"
done
grep -q '^Boosting: 5 trials asked' votes.text || fail "no boosting heading: $(head -1 votes.text)"
[ "$(grep -c '^digraph' votes.dot)" -eq "$(grep -c '^Trial ' votes.text)" ] || fail "not a graph per trial"
if [ -f "$XSD" ] && command -v xmllint >/dev/null; then
  xmllint --noout --schema "$XSD" votes.pmml 2>lint || fail "PMML invalid: $(head -3 lint)"
fi
run -bt votes.bm -tstd
grep -q "holds boosted or cost-sensitive trees, not one tree" stdout stderr ||
  fail "brixcmd does not say why it refuses the file"

# Costs: a predicted democrat that is a republican costs 10. Fewer republicans are missed.
printf 'predicted,actual,cost\ndemocrat,republican,10\n' >costs.csv
brix_run train "$EX/votes" --test "$EX/votes.test" --report json
cp stdout plain.json
brix_expect 0 train "$EX/votes" --test "$EX/votes.test" --costs costs.csv --report json
python3 - plain.json stdout <<'PY' || fail "costs do not lower the misses of republicans"
import json, sys
plain, costly = (json.load(open(f)) for f in sys.argv[1:])
# matrix[actual][predicted], the unknown class first; democrat 1, republican 2.
assert costly["test"]["matrix"][2][1] <= plain["test"]["matrix"][2][1]
assert costly["model"]["costs"] == [[0, 10], [1, 0]], costly["model"]["costs"]
assert costly["test_average_cost"] >= 0
PY

# cv: the average cost column and its mean.
brix_expect 0 cv "$EX/iris" -k 3 --trials 3
head -1 stdout | grep -qxF "$(printf 'fold\terror %%\tsize\ttest cases\taverage cost')" || fail "cv heading"
grep -q "^mean average cost " stdout || fail "no mean average cost"

# Boosted rulesets: a ruleset per trial, the same on any thread count, read back by predict
# and show; a valid PMML of RuleSetModels; cv counts their rules; not with costs.
brix_expect 0 train "$EX/votes" --trials 4 --rules --threads 1 --report json --model rules.bm
cp stdout rules1.json
brix_expect 0 train "$EX/votes" --trials 4 --rules --threads 2 --report json
expect_output_file rules1.json
python3 -c 'import json,sys; j=json.load(open(sys.argv[1])); t=j["model"]["trials"]
assert j["rules"] == sum(len(x["ruleset"]["rules"]) for x in t) and "tree" not in t[0]' rules1.json ||
  fail "the boosted rules JSON"
brix_expect 0 predict rules.bm "$EX/votes"
expect_line_count 291
brix_expect 0 show rules.bm --format pmml
grep -q "<RuleSetModel" stdout && ! grep -q "<TreeModel" stdout || fail "segments are not rulesets"
if [ -f "$XSD" ] && command -v xmllint >/dev/null; then
  xmllint --noout --schema "$XSD" stdout 2>lint || fail "boosted rules PMML invalid: $(head -3 lint)"
fi
brix_expect 2 show rules.bm --format dot
brix_expect 0 cv "$EX/iris" -k 3 --trials 3 --rules
grep -q "^mean error " stdout || fail "cv of boosted rules"
brix_expect 2 train "$EX/iris" --trials 3 --rules --costs costs.csv

# Refusals: usage errors (2) and data errors (1), nothing written.
brix_expect 2 train "$EX/iris" --trials 0
printf 'setosa,virginica,2\n' >unknown.csv
brix_expect 1 train "$EX/iris" --costs unknown.csv --model bad.bm
grep -q "names 'setosa', not a class" stderr || fail "unknown class: $(cat stderr)"
printf 'Iris-setosa,Iris-virginica\n' >short.csv
brix_expect 1 train "$EX/iris" --costs short.csv --model bad.bm
grep -q "short.csv, line 1: expected predicted,actual,cost" stderr || fail "malformed line: $(cat stderr)"
[ -e bad.bm ] && fail "a model written after an error"
brix_expect 2 train "$EX/iris" --costs costs.csv --model costs.csv

finish
