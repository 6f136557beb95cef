#!/usr/bin/env bash
# The PMML and DOT outputs of every shared dataset, the 1,000,000-row one included: the
# command-line test tests/cli/test_pmml_dot.sh with BRIX_FULL_DATA=1 (xmllint checks the PMML,
# dot renders the graph), its result and wall time; then, on the 1,000,000-row dataset alone,
# the time to write both files, to parse the PMML (xmllint --noout) and to render the DOT
# graph (dot -Tsvg). Prints a markdown section and appends it to bench/RESULTS.md.
# Usage: bash bench/outputs.sh path/to/brixcmd
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=${1:-$root/build/brixcmd}
brixcmd=$(cd "$(dirname "$brixcmd")" && pwd)/$(basename "$brixcmd")  # the test needs it absolute
need_programs "$brixcmd" || exit 1
work=$root/bench/work
mkdir -p "$work"

t0=$(now_ns)
if BRIX_FULL_DATA=1 bash "$root/tests/cli/test_pmml_dot.sh" "$brixcmd" "$root" \
  >"$work/outputs_test.txt" 2>&1; then
  result=passed
else
  result=FAILED
fi
test_wall=$(seconds_since "$t0")
cat "$work/outputs_test.txt"

name=syn_agrawal_f2_1m big=
if prepare_dataset "$root" "$name"; then
  x=$work/$name.xml d=$work/$name.dot
  t0=$(now_ns)
  "$brixcmd" -f "$stem" -x "$x" -d "$d" >"$work/outputs_run.txt"
  write=$(seconds_since "$t0")
  lint=- render=-
  if command -v xmllint >/dev/null; then
    t0=$(now_ns)
    xmllint --noout "$x"
    lint=$(seconds_since "$t0")
  fi
  if command -v dot >/dev/null; then
    t0=$(now_ns)
    dot -Tsvg "$d" >"$work/$name.svg"
    render=$(seconds_since "$t0")
  fi
  big=$(
    echo "| brixcmd -f stem -x file -d file (whole run) | $(fmt %.2f "$write") s | $(stat -c %s "$x") bytes of PMML, $(stat -c %s "$d") of DOT |"
    echo "| xmllint --noout | $(fmt %.2f "$lint") s | |"
    echo "| dot -Tsvg | $(fmt %.2f "$render") s | $([ "$render" = - ] || stat -c %s "$work/$name.svg") bytes of SVG |"
  )
fi

section=$(
  section_header "$root" "PMML and DOT outputs"
  echo
  echo "\`BRIX_FULL_DATA=1 bash tests/cli/test_pmml_dot.sh\` (every shared dataset and"
  echo "examples/golf): $result, $(fmt %.1f "$test_wall") s wall. Its output ends:"
  echo
  tail -3 "$work/outputs_test.txt" | sed 's/^/    /'
  if [ -n "$big" ]; then
    echo
    echo "$name alone, one run each:"
    echo
    echo "| Step | Wall | Size |"
    echo "|---|---:|---|"
    echo "$big"
  fi
)
append_results "$root" "$section"
[ "$result" = passed ]
