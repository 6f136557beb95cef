#!/usr/bin/env bash
# Ten-fold cross-validation by brix (seed 1) beside the error on each dataset's test file.
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
source "$here/helpers.bash"
locate_programs "$1"
shared_data "$root" || exit 0
rows=""
for name in mlb_letter weka_credit_g mlb_pima; do
  stem=$data/$name
  cv=$("$brix" cv "$stem" -k 10 --seed 1 | sed -n 's/^mean error \([^%]*\)%, standard deviation \([^ ]*\).*/\1 \2/p')
  test=$("$brixcmd" -f "$stem" -ft "$stem.test" -tstd |
    sed -n 's/^MISCLASSIFICATION on test file: \([^%]*\)%.*/\1/p')
  rows+="| $name | ${cv% *} % | ${cv#* } | $test % |"$'\n'
done
append_results "$root" "$(
  section_header "$root" "brix cv -k 10 --seed 1 against the test-file error"
  echo
  echo "| Dataset | Mean CV error | Standard deviation | Error on the .test file |"
  echo "|---|---:|---:|---:|"
  printf '%s' "$rows"
)"
