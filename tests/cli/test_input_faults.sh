# Inputs that once hung, were taken as valid, or lost rows without a word.
source "$(dirname "$0")/lib.sh"

printf 'x,float,continuous\nc,string,class\n' >t.names

# Cuts next to an infinity or between neighbouring floats: the rounded midpoint is the higher value,
# which once separated nothing and grew for ever. The lower value is the threshold there.
printf '1,a\n1,a\ninf,b\ninf,b\n' >inf.data
limited 20 -fm t.names -fd inf.data -tstd
expect_grep '^x <= 1\.0+ : a \(2\.0/1\.0\)$'
expect_grep '^x > 1\.0+ : b \(2\.0/1\.0\)$'
printf -- '-inf,a\n-inf,a\n2,b\n2,b\n' >ninf.data
limited 20 -fm t.names -fd ninf.data -tstd
expect_grep '^x <= -inf : a \(2\.0/1\.0\)$'
printf '1.00000012,a\n1.00000012,a\n1.00000024,b\n1.00000024,b\n' >ulp.data
limited 20 -fm t.names -fd ulp.data -tstd
expect_grep '^x <= 1\.000000119209289550781250000000 : a \(2\.0/1\.0\)$'
# With unknown values the same cut still ends, on the farm too.
printf '1,a\n1,a\ninf,b\ninf,b\n?,a\n?,b\n' >infu.data
limited 20 -fm t.names -fd infu.data -tstd -ff 2
expect_grep '^x > 1\.0+ : b'

# Case weights must be finite and non-negative, in training and in test rows.
printf 'x,float,continuous\nw,float,weights\nc,string,class\n' >w.names
printf '1,1,a\n2,inf,a\n3,1,b\n4,1,b\n' >w.data
says "Weights column 'w': weight 'inf' on row 2 is not a finite non-negative number" -fm w.names -fd w.data -tstd
printf '1,1,a\n2,1,a\n3,1,b\n4,1,b\n' >ok.data
printf '1,1,a\n2,-1,a\n' >neg.data
run -fm w.names -fd ok.data -ft neg.data -tstd
expect_grep "^Reading test data: \(row 2\): weight '-1' is not a finite non-negative number$"

# A compressed input cut short (at a row boundary or inside one) or damaged is an error, never a
# shorter table; a missing one still reads as empty.
seq 1 100 | awk '{print $1 "," ($1 % 2 ? "a" : "b")}' | gzip -c >full.data.gz
size=$(stat -c %s full.data.gz)
head -c $((size - 8)) full.data.gz >notrailer.data.gz
head -c $((size / 2)) full.data.gz >half.data.gz
cp full.data.gz flipped.data.gz
printf '\xff' | dd of=flipped.data.gz bs=1 seek=$((size / 2)) conv=notrunc status=none
for f in notrailer half flipped; do
  says "$(printf 'Reading training data: File %s.data.gz: truncated or corrupt compressed data (%s)' \
    $f "$([ $f = flipped ] && echo 'incorrect data check' || echo 'unexpected end of file')")" \
    -fm t.names -fd $f.data.gz -tstd
done
run -fm t.names -fd full.data.gz -ft half.data.gz -tstd
expect_grep '^Reading test data: \(row [0-9]+\): File half\.data\.gz: truncated or corrupt compressed data'
says "Reading score data: File flipped.data.gz: truncated or corrupt compressed data (incorrect data check)" \
  -fm t.names -fd full.data.gz -fs flipped.data.gz -s scores.txt
run -fm t.names -fd full.data.gz -tstd
expect_line 5 '^MISCLASSIFICATION on training: 50% of 100 cases\. $'

"$BRIXCMD" -f "$ROOT/examples/golf" -tb golf.tree >/dev/null

# A failed write is an error naming the file (/dev/full as every output is in
# test_hostile_input.sh), and a binary file that could not be written whole is not left behind.
seq 1 20000 | awk '{print $1 "," ($1 % 3 ? "a" : "b")}' >many.data
# A file size limit stands in for a full disk: writes past 4 KiB fail.
LAST="binary outputs past a file size limit"
(
  trap '' XFSZ
  ulimit -f 4
  "$BRIXCMD" -fm t.names -fd many.data -db many.bin >"$WORK/stdout"
)
expect_output "File many.bin: error with binary output"
[ -e many.bin ] && fail "a partial binary table was left behind"

# Binary files whose counts no file could back: refused before anything is allocated for them.
python3 - <<'PY'
import gzip, struct
u64 = lambda n: struct.pack('<Q', n)
text = lambda t: b'\x01' + u64(len(t)) + t.encode()
# A table of 2^31 rows and no columns.
with gzip.open('rows.bin', 'wb') as f:
    f.write(b'\x01' + text('t') + u64(0) + u64(0) + u64(0) + u64(1 << 31) + u64(0) + b'\x01' + u64(0) * 3)
# A value set claiming 2^40 strings, followed by a long run of empty ones.
with gzip.open('strings.bin', 'wb') as f:
    f.write(b'\x01' + text('t') + u64(1) + b'\x01' + b'\x01' + text('string') + b'\x01\x00' +
            text('?') + b'\x01' + u64(1 << 40))
# The golf tree with a root claiming 2^62 branches and as many children.
raw = gzip.open('golf.tree', 'rb').read()
at = raw.index(u64(3) + u64(3))
with gzip.open('children.tree', 'wb') as f:
    f.write(raw[:at] + u64(1 << 62) * 2)
PY
head -c 600M /dev/zero | gzip -1 >zeros.gz
cat zeros.gz >>strings.bin
cat zeros.gz >>children.tree
for f in rows.bin strings.bin; do
  limited 60 -bd $f
  expect_output "File $f: not binary format"
done
limited 60 -bt children.tree -tstd
expect_output "Binary tree: truncated or damaged data"

finish
