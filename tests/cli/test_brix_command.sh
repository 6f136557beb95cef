# The brix command: the trees and reports of brixcmd from stems, CSV and ARFF, models that brixcmd
# reads, probabilities that agree with its score file, reproducible cross-validation, and every
# failure on standard error with its status and no output file left behind.
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"
EX=$ROOT/examples

# The report of brix train starts with brixcmd's whole report.
same_report() {  # label brix-args... -- brixcmd-args...
  local label=$1
  shift
  local b=() c=()
  while [ "$1" != -- ]; do b+=("$1"); shift; done
  shift
  "$BRIX" train "${b[@]}" >brix.txt 2>brix.err || fail "$label: brix failed: $(head -2 brix.err)"
  "$BRIXCMD" "$@" -tstd >brixcmd.txt
  head -n "$(wc -l <brixcmd.txt)" brix.txt | cmp -s - brixcmd.txt || fail "$label: reports differ"
}

same_report iris-stem "$EX/iris" --test "$EX/iris.test" -- -f "$EX/iris" -ft "$EX/iris.test"
same_report iris-csv "$EX/iris.csv" --test "$EX/iris_test.csv" -- -f "$EX/iris" -ft "$EX/iris.test"
same_report votes-full "$EX/votes" --test "$EX/votes.test" --pruning full -- \
  -f "$EX/votes" -ft "$EX/votes.test" -c4.5
same_report golf-options "$EX/golf" --min-cases 3 --confidence 0.5 -- -f "$EX/golf" -m 3 -c 0.5
# as_arff NAMES FILE: the rows of FILE as ARFF, which tells only numeric attributes from others.
as_arff() {
  printf "%% a rewrite\n@relation 'a rewrite'\n"
  awk -F, '{ t = $3 != "continuous" && $3 != "weights" ? "string" : $2 == "integer" ? "integer" : "real"
    printf "@attribute \047%s\047 %s\n", $1, t }' "$1"
  printf '\n@data\n'
  case $2 in *.gz) zcat "$2" ;; *) cat "$2" ;; esac
}
# Every dataset and example as ARFF, and with a test file as CSV, with the declared kinds and
# types given on the command line.
while read -r name names data test; do
  mapfile -t declared < <(declared "$names")
  as_arff "$names" "$data" >"$name.arff"
  same_report "$name-arff" "$name.arff" "${declared[@]}" -- -fm "$names" -fd "$data"
  [ -n "$test" ] || continue
  stem=${names%.names}
  as_csv "$names" "$data" >"$name.csv"
  as_csv "$names" "$test" >"${name}_test.csv"
  same_report "$name-csv" "$name.csv" --test "${name}_test.csv" "${declared[@]}" -- \
    -f "$stem" -ft "$test"
  # Probabilities: the winning class and its share are those of brixcmd's score file.
  "$BRIX" train "$stem" --model "$name.tree" >/dev/null &&
    "$BRIX" predict "$name.tree" "${name}_test.csv" "${declared[@]}" --proba >"$name.pred" ||
    fail "$name: brix predict failed"
  "$BRIXCMD" -f "$stem" -fs "$test" -s "$name.scores"
  paste -d' ' <(tail -n +2 "$name.pred" | awk -F, '{ m = 2; for (i = 3; i <= NF; ++i) if ($i > $m) m = i
      print $1, $m }') <(awk -F, '{ print $(NF-1), $NF }' "$name.scores") |
    awk '$1 != $3 || $2 != $4 { bad = 1 } END { exit bad }' || fail "$name: probabilities differ from the scores"
done < <(for s in golf iris votes; do echo "$s $EX/$s.names $EX/$s.data"; done; datasets)
grep -q '^Attribute usage$' brix.txt || fail "no attribute usage after the report"

# The JSON report: valid, with the text report's figures; -v times the stages on standard error,
# which stays silent otherwise when it is not a terminal.
"$BRIX" train "$EX/votes" --test "$EX/votes.test" --report json -v >votes.json 2>votes.err
/usr/bin/python3 -c 'import json, sys; r = json.load(open(sys.argv[1]))
assert r["tree_size"] == int(sys.argv[2]) and r["test"]["cases"] == 145, r' votes.json \
  "$("$BRIX" train "$EX/votes" | awk '/^TREE SIZE/ { print $3 }')" || fail "JSON report"
for stage in load grow prune evaluate test; do
  grep -q "^brix: $stage" votes.err || fail "-v: no time for $stage"
done
"$BRIX" cv "$EX/votes" -k 3 >/dev/null 2>cv.err
[ -s cv.err ] && fail "standard error not silent off a terminal: $(head -1 cv.err)"

# A model brixcmd reads (its predictions against the scores are the loop's above).
"$BRIX" train "$EX/votes" --model votes.tree >/dev/null || fail "brix train --model failed"
"$BRIXCMD" -bt votes.tree -ft "$EX/votes.test" -tstd >from_model.txt
"$BRIXCMD" -f "$EX/votes" -ft "$EX/votes.test" -tstd >direct.txt
cmp -s from_model.txt direct.txt || fail "brixcmd -bt on brix's model gives another report"
"$BRIX" predict votes.tree "$EX/votes" --proba --output votes.pred || fail "brix predict failed"
[ "$(head -1 votes.pred)" = "predicted,p(democrat),p(republican)" ] || fail "header: $(head -1 votes.pred)"

# Cross-validation: the same on two runs and on one or two threads.
for run in 1 2; do "$BRIX" cv "$EX/votes" -k 10 --seed 1 >cv$run.txt; done
for t in 1 2; do "$BRIX" cv "$EX/votes" -k 10 --seed 1 --threads $t --stratified >cv_t$t.txt; done
cmp -s cv1.txt cv2.txt || fail "cv differs between two runs"
cmp -s cv_t1.txt cv_t2.txt || fail "cv differs between one and two threads"
[ "$(wc -l <cv1.txt)" -eq 12 ] || fail "cv prints $(wc -l <cv1.txt) lines"

# Conventions: help, version, statuses, one line on standard error, nothing left behind.
brix_expect 0 --help
expect_grep '^usage: brix COMMAND'
for c in train predict cv show; do
  "$BRIX" $c --help | head -1 | grep -q "^usage: brix $c" || fail "brix $c --help"
done
brix_run --version
expect_output "brix 1.2.5"
for args in "" "nonsense" "train" "train $EX/iris.csv --pruning maybe" "train $EX/iris.csv --min-cases 1" \
  "cv $EX/iris.csv -k" "train $EX/iris.csv --model $EX/iris.csv" "train $EX/iris.csv --kind x" \
  "train $EX/iris.csv --type a=word" "train $EX/iris --kind a=discrete" \
  "train $EX/iris.csv --report xml"; do
  brix_expect 2 $args
  [ -s "$WORK/stdout" ] && fail "usage errors print nothing on standard output"
done
printf 'a,b,c\n1,"x,2\n' >unclosed.csv
printf 'a,b,c\n1,2,3\n4,5\n' >ragged.csv
: >empty.csv
printf 'not a model' >fake.tree
for args in "train missing.csv" "train unclosed.csv" "train ragged.csv" "train empty.csv" \
  "train $EX/iris.csv --class nope" "predict fake.tree $EX/iris_test.csv" "show fake.tree" \
  "predict votes.tree $EX/votes --output nodir/out.csv" \
  "predict votes.tree $EX/votes --output /dev/full" "train $EX/votes --model /dev/full"; do
  brix_expect 1 $args
  [ "$(wc -l <"$WORK/stderr")" -eq 1 ] || fail "not one line on standard error: $(cat "$WORK/stderr")"
done
ls ./*.part nodir 2>/dev/null && fail "a partial output was left behind"

finish
