# Nothing lost, nothing silently wrong: no output replaces an input under any name, a failed write
# fails the run and leaves no cut file, option numbers out of range are usage errors, and the
# messages say which file, line and column.
source "$(dirname "$0")/lib.sh"
EX=$ROOT/examples

cp "$EX/iris.csv" x.csv
cp "$EX/golf.names" "$EX/golf.data" .
"$BRIX" train x.csv --model m.tree >/dev/null || fail "training on iris failed"
cp x.csv x.orig
cp m.tree m.orig
mkdir d
ln -s x.csv link.csv
ln x.csv hard.csv
ln -s m.tree link.tree

# Every output against every input, spelt another way, through a link or as a hard link: refused
# (import's data error, the others' usage error), and the input as it was.
while read -r label status args; do
  eval "set -- $args"
  brix_run "$@"
  LAST="$label: brix $*"
  expect_status "$status"
  expect_grep 'is also an input' "$WORK/stderr"
  cmp -s x.csv x.orig || { fail "x.csv was replaced"; cp x.orig x.csv; }
  cmp -s m.tree m.orig || { fail "m.tree was replaced"; cp m.orig m.tree; }
done <<'EOF'
train-dot 2 train ./x.csv --model x.csv
train-dir 2 train x.csv --model d/../x.csv
train-link 2 train link.csv --model x.csv
train-hard 2 train hard.csv --model x.csv
train-test 2 train golf --test x.csv --model ./x.csv
train-names 2 train golf --model ./golf.names
predict-data 2 predict m.tree ./x.csv --output x.csv
predict-model 2 predict m.tree x.csv --output ./m.tree
predict-model-link 2 predict link.tree x.csv --output m.tree
predict-hard 2 predict m.tree x.csv --output hard.csv
import-data 1 import ./golf --to golf
import-dir 1 import golf --to d/../golf
EOF

# Standard output on a full device: a failure with a message, whatever the command.
for args in "train x.csv" "predict m.tree x.csv" "show m.tree" "cv x.csv -k 3" "check x.csv"; do
  LAST="brix $args >/dev/full"
  # shellcheck disable=SC2086
  "$BRIX" $args >/dev/full 2>err
  status=$?
  [ "$status" -ne 0 ] || fail "status 0"
  grep -q 'standard output' err || fail "no message: $(head -c 200 err)"
done

# Option numbers: out of range for their integer, or not whole, is a usage error before any
# conversion.
while read -r args; do
  # shellcheck disable=SC2086
  brix_expect 2 $args
  expect_grep 'must be' "$WORK/stderr"
done <<'EOF'
cv x.csv -k 4294967298
cv x.csv -k 4294967296
cv x.csv -k 1e30
cv x.csv --seed 1e30
cv x.csv --seed 18446744073709551616
show m.tree --max-depth 1e300
show m.tree --max-depth 2147483648
train x.csv --min-cases 1e300
EOF

# Messages name what they are about.
expect_message() {  # pattern brix-args...
  local pattern=$1
  shift
  brix_expect 1 "$@"
  expect_grep "$pattern" "$WORK/stderr"
  [ "$(wc -c <"$WORK/stderr")" -lt 400 ] || fail "a message of $(wc -c <"$WORK/stderr") bytes"
}
expect_message '^brix: File none\.tree: cannot be opened \(No such file or directory\)$' \
  predict none.tree x.csv
printf 'a,c\n1,x\n2,?\n3,\n' >unknown.csv
expect_message "class column 'c': 2 unknown values" train unknown.csv
printf 'a,c\r1,x\r2,y\r' >cr.csv
expect_message 'lines end in CR alone' train cr.csv
{ head -3 x.csv; echo '5.1,3.5,1.4,x0.2,Iris-setosa'; } >stray.csv
expect_message "^brix: File stray\.csv, line 4, column 'petalwidth': x0\.2: not a float$" \
  predict m.tree stray.csv
expect_message "^brix: File stray\.csv, line 4, column 'petalwidth': x0\.2: not a float$" \
  train x.csv --test stray.csv
{ echo 'a,b'; printf x; head -c 1000000 /dev/zero | tr '\0' '7'; printf ',1\n'; } >long.csv
expect_message "line 2, column 'a': .*\.\.\." predict m.tree long.csv --kind a=continuous --type a=integer
printf 'a,c\n1,\xe9t\xe9\n2,x\n' >latin1.csv
expect_message "line 2, column 'c': bytes that are not UTF-8" train latin1.csv
# The same through a .names/.data pair, and a tree brixcmd grew from it (it takes any bytes).
cp golf.names latin1.names
sed 's/sunny/sunn\xe9/' golf.data >latin1.data
expect_message "File latin1\.names/\.data, a value of column 'outlook': bytes that are not UTF-8" \
  train latin1
"$BRIXCMD" -f latin1 -tb latin1.tree >/dev/null
expect_message "File latin1\.tree: a value of column 'outlook' holds bytes that are not UTF-8" \
  show latin1.tree --format json

# UTF-8 names and values make a well-formed PMML document and JSON that parses.
printf 'temp\xc3\xa9,c\n1,\xc3\xa9t\xc3\xa9\n2,\xc3\xa9t\xc3\xa9\n3,hiver\n4,hiver\n' >utf8.csv
"$BRIX" train utf8.csv --model u.tree >/dev/null || fail "training on UTF-8 text failed"
"$BRIX" show u.tree --format pmml >u.pmml
if command -v xmllint >/dev/null; then
  xmllint --noout u.pmml || fail "PMML not well formed"
else
  NEEDS_MISSING="$NEEDS_MISSING xmllint"
fi
"$BRIX" show u.tree --format json | /usr/bin/python3 -c 'import json, sys; json.load(sys.stdin)' ||
  fail "JSON does not parse"

# Predictions as RFC 4180 CSV: ids and classes holding separators, quotes and line ends.
printf 'id,v,c\n"a,b",1,"x,y"\n"say ""hi""",2,"x,y"\n"two\nlines",3,"q""r"\nplain,4,"q""r"\n' \
  >quoted.csv
"$BRIX" train quoted.csv --min-cases 1.5 --pruning none --kind id=ignore --model q.tree >/dev/null ||
  fail "training on quoted fields failed"
brix_expect 0 predict q.tree quoted.csv --id id --proba
/usr/bin/python3 - "$WORK/stdout" <<'PY' || fail "predictions do not read back as CSV"
import csv, sys
rows = list(csv.reader(open(sys.argv[1], newline='')))
assert rows[0] == ['id', 'predicted', 'p(q"r)', 'p(x,y)'], rows[0]
assert [r[0] for r in rows[1:]] == ['a,b', 'say "hi"', 'two\nlines', 'plain'], rows
assert [r[1] for r in rows[1:]] == ['x,y', 'x,y', 'q"r', 'q"r'], rows
assert all(len(r) == 4 for r in rows), rows
PY

# brix check: a few texts among the numbers of a column.
{ echo 'a,b,c'; for i in $(seq 50); do echo "$i,$((i * 3)),x$((i % 2))"; done; echo 'oops,3,x1'; } \
  >oops.csv
brix_expect 1 check oops.csv
expect_grep "column 1 'a': 50 numbers and 1 text \('oops'\) make it a discrete column"

# brixcmd on a full disk (a file size limit): the failure reported as before, and no report,
# document, graph or tree file left cut short or empty.
if (ulimit -f 1) 2>/dev/null; then
  (
    ulimit -f 1
    trap '' XFSZ
    "$BRIXCMD" -f "$ROOT/../shared/data/weka_credit_g" -t r.txt -x r.xml -d r.dot -tb r.tree
  ) >out 2>&1
  grep -q 'error with binary output' out || fail "brixcmd: $(head -c 200 out)"
  for f in r.txt r.xml r.dot r.tree; do [ ! -e "$f" ] || fail "brixcmd left $f"; done
  (
    ulimit -f 4
    trap '' XFSZ
    "$BRIXCMD" -f "$ROOT/../shared/data/weka_credit_g" -t r.txt -x r.xml -d r.dot
  ) >out 2>&1
  grep -q '^File r\.dot: error writing output$' out || fail "brixcmd: $(head -c 200 out)"
  for f in r.txt r.xml r.dot; do [ ! -e "$f" ] || fail "brixcmd left $f"; done
fi

finish
