#!/usr/bin/env bash
# Boosted rulesets against boosted trees: test-file error of 10 trials of each (brix train
# --trials N, with and without --rules), the rules kept over all trials and the time of the
# rules' whole command, on the datasets that ship a test file.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
locate_programs "$1"
need_programs "$brix" || exit 1
shared_data "$root" || exit 0
TRIALS=${BOOST_TRIALS:-10}
field() { /usr/bin/python3 -c 'import json,sys
j=json.load(sys.stdin)
for k in sys.argv[1:]: j=j[k]
print(j)' "$@"; }
rows="" tree_sum=0 rule_sum=0 n=0
for name in mlb_breastcancer mlb_housevotes84 mlb_letter mlb_pima weka_credit_g weka_iris \
  syn_agrawal_f2_100k; do
  stem=$data/$name
  [ -f "$stem.test" ] || { echo "boost_rules.sh: $stem.test not found; skipped" >&2; continue; }
  trees=$("$brix" train "$stem" --test "$stem.test" --trials "$TRIALS" --quiet --report json)
  start=$(now_ns)
  json=$("$brix" train "$stem" --test "$stem.test" --trials "$TRIALS" --rules --quiet \
    --report json)
  took=$(seconds_since "$start")
  tree=$(field test error_percent <<<"$trees")
  rules=$(field test error_percent <<<"$json")
  tree_sum=$(awk -v a="$tree_sum" -v b="$tree" 'BEGIN { print a + b }')
  rule_sum=$(awk -v a="$rule_sum" -v b="$rules" 'BEGIN { print a + b }')
  n=$((n + 1))
  rows+=$(printf '| %s | %.2f %% | %.2f %% | %s | %s | %s | %s s |' "$name" "$tree" "$rules" \
    "$(field trials <<<"$json")" "$(field rules <<<"$json")" "$(field size <<<"$trees")" \
    "$took")$'\n'
done
[ "$n" -gt 0 ] || exit 0
means=$(awk -v t="$tree_sum" -v r="$rule_sum" -v n="$n" 'BEGIN { printf "%.2f %.2f", t / n, r / n }')
append_results "$root" "$(
  section_header "$root" "Boosted rulesets, $TRIALS trials, against boosted trees (brix train --trials --rules)"
  echo
  echo "| Dataset | Boosted trees test error | Boosted rules test error | Trials kept | Rules | Trees' nodes | Rules run (train, rules, test) |"
  echo "|---|---:|---:|---:|---:|---:|---:|"
  printf '%s' "$rows"
  echo "| **mean** | **${means% *} %** | **${means#* } %** | | | | |"
)"
