# brix train --subsets: on credit-g (discrete attributes of up to 10 values) the grouped tree is
# the same on 1 and 2 threads, its exports validate and parse, its model file loads back in brix
# and is refused by brixcmd -bt, which still reads a tree grown without the option; rulesets
# read off it keep the groups.
source "$(dirname "$0")/lib.sh"
DATA=$ROOT/../shared/data/weka_credit_g
[ -f "$DATA.data" ] || { echo "skipped: $DATA.data missing"; exit 77; }
XSD=$ROOT/../shared/pmml/pmml-4-4.xsd

brix_expect 0 train "$DATA" --subsets --model one.tree
grep -q ' in {' stdout || fail "no split on a group of values"
brix_expect 0 train "$DATA" --subsets --threads 2 --model two.tree
brix_expect 0 show one.tree --format json
cp stdout one.json
python3 -m json.tool one.json >/dev/null 2>&1 || fail "JSON does not parse"
grep -q '"test":"subset"' one.json || fail "JSON without a subset test"
brix_expect 0 show two.tree --format json
cmp -s stdout one.json || fail "grouped trees differ between 1 and 2 threads"
brix_expect 0 show one.tree --format pmml
if [ -f "$XSD" ] && command -v xmllint >/dev/null; then
  xmllint --noout --schema "$XSD" stdout 2>lint || fail "PMML invalid: $(head -3 lint)"
fi
grep -q 'booleanOperator="isIn"' stdout || fail "PMML without a set predicate"
brix_expect 0 show one.tree --format dot
grep -q 'label="in {' stdout || fail "DOT without a group label"

# brixcmd reports a model it cannot read as it always has (on standard output, status 0).
run -f "$DATA" -bt one.tree
grep -q "groups of values" stdout || fail "brixcmd -bt: $(cat stdout stderr)"
# A ruleset read off a grouped tree tests groups too; its file, JSON and PMML read back.
brix_expect 0 train "$DATA" --subsets --rules --model one.rules
grep -q '^    [a-z_]* in {' stdout || fail "no rule condition on a group of values"
cp stdout rules.txt
brix_expect 0 show one.rules
sed -n '/^Rules/,$p' rules.txt >want.txt
sed -n '/^Rules/,$p' stdout | cmp -s - want.txt || fail "the ruleset file does not read back"
brix_expect 0 show one.rules --format pmml
if [ -f "$XSD" ] && command -v xmllint >/dev/null; then
  xmllint --noout --schema "$XSD" stdout 2>lint || fail "ruleset PMML invalid: $(head -3 lint)"
fi
brix_expect 0 show one.rules --format json
python3 -m json.tool stdout >/dev/null 2>&1 || fail "ruleset JSON does not parse"

brix_expect 0 train "$DATA" --model plain.tree
run -f "$DATA" -bt plain.tree
expect_status 0
finish
