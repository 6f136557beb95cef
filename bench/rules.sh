#!/usr/bin/env bash
# Rulesets against the tree they come from: test-file error of each and rule counts against
# leaves, on the datasets that ship a test file (brix train --rules, default options).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
locate_programs "$1"
need_programs "$brix" || exit 1
shared_data "$root" || exit 0
# The figure of a --report json document at a path of keys.
field() { /usr/bin/python3 -c 'import json,sys
j=json.load(sys.stdin)
for k in sys.argv[1:]: j=j[k]
print(j)' "$@"; }
rows="" tree_sum=0 rule_sum=0 n=0 fewer=0
for name in mlb_breastcancer mlb_housevotes84 mlb_letter mlb_pima weka_credit_g weka_iris \
  syn_agrawal_f2_100k; do
  stem=$data/$name
  [ -f "$stem.test" ] || { echo "rules.sh: $stem.test not found; skipped"; continue; }
  tree=$("$brix" train "$stem" --test "$stem.test" --quiet --report json | field test error_percent)
  start=$(now_ns)
  json=$("$brix" train "$stem" --test "$stem.test" --quiet --rules --report json)
  took=$(seconds_since "$start")
  rules=$(field test error_percent <<<"$json")
  count=$(field rules <<<"$json")
  leaves=$(field tree_leaves <<<"$json")
  [ "$count" -lt "$leaves" ] && fewer=$((fewer + 1))
  tree_sum=$(awk -v a="$tree_sum" -v b="$tree" 'BEGIN { print a + b }')
  rule_sum=$(awk -v a="$rule_sum" -v b="$rules" 'BEGIN { print a + b }')
  n=$((n + 1))
  rows+=$(printf '| %s | %.2f %% | %.2f %% | %s | %s | %s s |' "$name" "$tree" "$rules" "$count" \
    "$leaves" "$took")$'\n'
done
[ "$n" -gt 0 ] || exit 0
means=$(awk -v t="$tree_sum" -v r="$rule_sum" -v n="$n" 'BEGIN { printf "%.2f %.2f", t / n, r / n }')
append_results "$root" "$(
  section_header "$root" "Rulesets against their trees (brix train --rules)"
  echo
  echo "| Dataset | Tree test error | Ruleset test error | Rules | Leaves | Ruleset run (train, rules, test) |"
  echo "|---|---:|---:|---:|---:|---:|"
  printf '%s' "$rows"
  echo "| **mean** | **${means% *} %** | **${means#* } %** | | | |"
  echo
  echo "Fewer rules than leaves on $fewer of $n datasets; target: mean ruleset error <= 13.3 %."
)"
