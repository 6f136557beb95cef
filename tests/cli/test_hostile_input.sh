# Hostile inputs and outputs: each run ends within its time and memory limits with a message, and
# nothing is left behind that looks complete.
source "$(dirname "$0")/lib.sh"

printf 'x,float,continuous\ny,string,discrete\nc,string,class\n' >s.names

# 100,000 columns.
python3 - <<'PY'
with open('wide.names', 'w') as f:
    for i in range(100000):
        f.write('a%d,float,continuous\n' % i)
    f.write('c,string,class\n')
with open('wide.data', 'w') as f:
    for r in range(4):
        f.write(','.join(str((i * 7 + r) % 13) for i in range(100000)) + ',' + 'ab'[r % 2] + '\n')
PY
limited 120 -fm wide.names -fd wide.data -tstd
expect_line 5 '^MISCLASSIFICATION on training: 50% of 4 cases\. $'

# A row of 10,000,000 fields, and a 200 MB line.
head -c 20000000 /dev/zero | tr '\0' '1' | sed 's/1/1,/g' | head -c 19999999 >fields.data
echo >>fields.data
limited 60 -fm s.names -fd fields.data -tstd
expect_grep '^Reading training data: bad row format \(row 1\): 1,1,1,1'
{ printf '1,'; head -c 200000000 /dev/zero | tr '\0' 'x'; printf ',a\n2,y,b\n'; } >long.data
limited 120 -fm s.names -fd long.data -tstd
expect_line 5 '^MISCLASSIFICATION on training: 50% of 2 cases\. $'

# 1,000,000 distinct strings in a discrete column.
awk 'BEGIN { for (i = 0; i < 1000000; i++) printf "%d,v%d,%s\n", i % 100, i, (i % 2 ? "b" : "a") }' \
  >distinct.data
limited 300 -fm s.names -fd distinct.data -tstd
expect_line 5 '^MISCLASSIFICATION on training: [0-9.]+% of 1e\+06 cases\. $'

# A gzip bomb: 1 GB of zeros, a single line without end.
head -c 1G /dev/zero | gzip -1 >bomb.data.gz
limited 300 -fm s.names -fd bomb.data.gz -tstd
expect_status 0
expect_grep '^Reading training data: '

# FIFOs as every input read like the files they carry.
cp "$ROOT/examples/golf.names" "$ROOT/examples/golf.data" .
"$BRIXCMD" -f golf -ft golf.data -tstd -db golf.bin -tb golf.tree >expected.txt
"$BRIXCMD" -f golf -fs golf.data -s expected.scores >/dev/null
mkfifo meta.fifo data.fifo test.fifo score.fifo bin.fifo tree.fifo
feed() { cat "$1" >"$2" & }
feed golf.names meta.fifo; feed golf.data data.fifo; feed golf.data test.fifo
limited 60 -fm meta.fifo -fd data.fifo -ft test.fifo -tstd
diff -u expected.txt "$WORK/stdout" >/dev/null || fail "FIFO inputs gave another report"
feed golf.names meta.fifo; feed golf.data data.fifo; feed golf.data score.fifo
limited 60 -fm meta.fifo -fd data.fifo -fs score.fifo -s scores
cmp -s expected.scores scores || fail "a FIFO score file gave other scores"
feed golf.bin bin.fifo
limited 60 -bd bin.fifo -ft golf.data -tstd
diff -u expected.txt "$WORK/stdout" >/dev/null || fail "a binary table from a FIFO gave another report"
feed golf.tree tree.fifo
limited 60 -bt tree.fifo -ft golf.data -tstd
grep -q '^MISCLASSIFICATION on test file: 0% of 14 cases' "$WORK/stdout" ||
  fail "a binary tree from a FIFO did not load"
wait

# A directory as every input, whatever its name, and /dev/full as every output. A directory as
# the tree file reads as a missing one.
mkdir dir dir.gz
limited 20 -f golf -ft dir -tstd
expect_grep '^File: dir not found or inaccessible$'
while IFS='|' read -r args message; do
  limited 20 $args </dev/null
  expect_output "$message"
done <<'EOF'
-f golf -fm dir -tstd|File: dir not found or inaccessible
-f golf -fd dir -tstd|File: dir not found or inaccessible
-f golf -fd dir.gz -tstd|File: dir.gz not found or inaccessible
-f golf -fs dir -s out.scores|File: dir not found or inaccessible
-bd dir|File dir: not binary format
-bt dir|Error description not available
-f golf -t /dev/full|File /dev/full: error writing output
-f golf -x /dev/full|File /dev/full: error writing output
-f golf -d /dev/full|File /dev/full: error writing output
-f golf -l /dev/full|File /dev/full: error writing output
-f golf -fs golf.data -s /dev/full|File /dev/full: error writing output
-f golf -db /dev/full|File /dev/full: error with binary output
-f golf -tb /dev/full|File /dev/full: error with binary output
EOF

finish
