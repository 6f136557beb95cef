# brix import and brix check: brixcmd grows brix train's tree from the imported files, values that
# the .data format cannot carry as they are, outputs whole or absent, and every planted problem
# reported once.
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"
EX=$ROOT/examples

# round_trip LABEL CSV [TEST-CSV] [brix options]: brixcmd on the import reports what brix train
# reports on the CSV.
round_trip() {
  local label=$1 csv=$2 test=$3 t=() c=()
  shift 3
  [ -n "$test" ] && t=(--test "$test") && c=(-ft "$label.test")
  "$BRIX" import "$csv" --to "$label" "${t[@]}" "$@" 2>import.err || fail "$label: $(cat import.err)"
  local sep
  sep=$(sed -n "s/.*-f $label -sep '\(.\)'.*/\1/p" import.err)
  "$BRIXCMD" -f "$label" ${sep:+-sep "$sep"} "${c[@]}" -tstd >brixcmd.txt
  "$BRIX" train "$csv" "${t[@]}" "$@" >brix.txt 2>/dev/null
  head -n "$(wc -l <brixcmd.txt)" brix.txt | cmp -s - brixcmd.txt || fail "$label: reports differ"
  grep -q '^Decision Tree' brixcmd.txt || fail "$label: no tree"
}

round_trip iris "$EX/iris.csv" "$EX/iris_test.csv"
for name in mlb_housevotes84 mlb_pima weka_credit_g; do
  stem=$DATA_DIR/$name
  [ -f "$stem.names" ] || continue
  as_csv "$stem.names" "$stem.data" >"$name.csv"
  as_csv "$stem.names" "$stem.test" >"${name}_test.csv"
  round_trip "$name" "$name.csv" "${name}_test.csv" --class "$(awk -F, '$3 == "class" { print $1 }' "$stem.names")"
done
# With the declared kinds and types, the import is the original table: brixcmd's own report.
stem=$DATA_DIR/mlb_breastcancer
if [ -f "$stem.names" ]; then
  mapfile -t declared < <(declared "$stem.names")
  as_csv "$stem.names" "$stem.data" >bc.csv
  "$BRIX" import bc.csv --to bc "${declared[@]}" 2>/dev/null || fail "import with declared kinds"
  cmp -s <("$BRIXCMD" -f bc -ft "$stem.test" -tstd) <("$BRIXCMD" -f "$stem" -ft "$stem.test" -tstd) ||
    fail "import with declared kinds: another report than the original's"
fi
# Separators, a line break and blanks inside values: another separator, the line break a blank.
printf '%s\n' 'name,n,"we;ird",cls' '"a,b",1,"x' 'y",yes' '"c;d",2,z,no' $'"e|\tf",NA," z",yes' \
  '"g:h",4,z,no' >odd.csv
round_trip odd odd.csv ""
grep -q "run: brixcmd -f odd -sep '\^'" import.err || fail "separator: $(tail -1 import.err)"
grep -q "1 value with line breaks" import.err || fail "the line break is not reported"
brix_expect 0 check iris

# Outputs are whole or absent; an output that is an input is refused.
ln -s "$EX/iris.csv" alias.data
for args in "import missing.csv --to x" "import $EX/iris.csv --to nodir/x" \
  "import $EX/iris.csv --to alias" "import $EX/iris.csv --to x --test missing.csv"; do
  brix_expect 1 $args
  [ "$(wc -l <"$WORK/stderr")" -eq 1 ] || fail "not one line on standard error: $(cat "$WORK/stderr")"
done
(trap '' XFSZ; ulimit -f 1; exec "$BRIX" import "$EX/iris.csv" --to full 2>/dev/null) &&
  fail "a write past the file size limit succeeded"
ls x.* full.* nodir ./*.part 2>/dev/null && fail "a partial output was left behind"

# check: each problem planted once in a clean table is one line, and the summary; problems
# together are all reported.
printf 'a,string,discrete\nn,integer,continuous\nc,string,class\n' >t.names
clean='x,1,yes\ny,2,no\nz,3,no\nw,4,yes\n'
planted() {  # label pattern data-printf-format [names-printf-format]
  printf "${4:-$(cat t.names)\n}" >"$1.names"
  printf "$3" >"$1.data"
  brix_expect 1 check "$1"
  expect_line_count 2
  expect_grep "^$1\.(names|data)(:[0-9]+)?: .*$2"
}
planted bom 'byte order mark' "\xef\xbb\xbf$clean"
planted header 'header row' "a,n,c\n$clean"
planted blank 'blank line' 'x,1,yes\ny,2,no\n\nz,3,no\nw,4,yes\n'
planted quotes 'holding quotes' 'x,1,yes\n"y",2,no\nz,3,no\nw,4,yes\n'
planted blanks 'surrounding blanks' 'x,1,yes\ny ,2,no\nz,3,no\nw,4,yes\n'
planted variants "'y' \(line 2\) and 'Y'" 'x,1,yes\ny,2,no\nY,3,no\nw,4,yes\n'
planted unknown 'unknown class' 'x,1,yes\ny,2,?\nz,3,no\nw,4,yes\n'
planted one 'one value only' 'x,1,yes\nx,2,no\nx,3,no\nx,4,yes\n'
planted ragged '4 fields' 'x,1,yes\ny,2,no,5\nz,3,no\nw,4,yes\n'
planted number 'not integer' 'x,1,yes\ny,2.5,no\nz,3,no\nw,4,yes\n'
planted kind 'needs the type' "$clean" 'a,string,discrete\nn,string,continuous\nc,string,class\n'
# A row left out for a value refused: its other values are looked at all the same, and leaving
# it out makes no problem of its own; more edges of the reader.
along() {  # label lines pattern data-printf-format [names-printf-format]
  printf "${5:-$(cat t.names)\n}" >"$1.names"
  printf "$4" >"$1.data"
  brix_expect 1 check "$1"
  expect_line_count "$2"
  expect_grep "$3"
}
along quoted 3 "^quoted\.data:2: column 1 'a': 1 value holding quotes" 'x,1,yes\n"y",2,?\nz,3,no\n'
along single 3 "^single\.data: column 1 'a': one value only, 'x'" 'x,1,yes\nx,b,no\n'
along several 2 "^several\.data:2: column 2 'n': 1 value that is not integer" \
  'x,1,yes\ny,b,no\nz,3,yes\nw,4,yes\n'
along nul 2 '^nul\.data:2: NUL bytes' 'x,1,yes\ny,2,no\0'
along weights 3 "^weights\.data:2: column 2 'w': 1 unknown weight" 'x,1,yes\ny,?,no\nz,2,no\n' \
  'a,string,discrete\nw,strng,weights\nc,string,class\n'
along twice 3 "^twice\.data:2: column 2 'n': 1 value that is not integer" '1,1,yes\n2,b,no\n3,3,no\n' \
  'n,integer,continuous\nn,integer,continuous\nc,string,class\n'
printf 'a,n,c\nx,1,yes\ny,2,no\n"z,3,no\n' >unclosed.csv
printf 'a,n,c\nx,1,yes\ny,2,Yes\nz,3,no\nw,4,yes\n' >variants.csv
for f in unclosed variants; do
  brix_expect 1 check $f.csv
  expect_line_count 2
done
printf 'x,1,yes\n\ny ,2,no,5\n"z",3,no\nw,1.5,yes\n?,4,?\n' >all.data
cp t.names all.names
brix_expect 1 check all
expect_line_count 6
# A stem of another separator is read with it; its .test is checked as well.
printf 'a;string;discrete\nn;integer;continuous\nc;string;class\n' >semi.names
printf 'x;1;yes\ny;2;no\nz;3;no\nw;4;yes\n' >semi.data
brix_expect 0 check semi
expect_output "brix check: no problems in semi.names, semi.data (4 rows, separator ';')"
printf 'x;1;yes\ny;b;no\n"z";3;no\n' >semi.test
brix_expect 1 check semi
expect_line_count 3
expect_grep "^semi\.test:2: column 2 'n': 1 value that is not integer, such as 'b'"

# Files that are no table end in time with one problem, or one error for paths.
head -c 300000 /dev/urandom >binary.csv
{ printf 'a,b\n'; head -c 30000000 /dev/zero | tr '\0' x; printf ',1\ny,2\nz,1\n'; } >long.csv
: >empty.csv
for f in binary.csv:1 long.csv:0 empty.csv:1; do
  LAST="brix check ${f%:*}"
  timeout 60 "$BRIX" check "${f%:*}" >"$WORK/stdout" 2>&1
  STATUS=$?
  expect_status "${f#*:}"
  expect_line_count $((1 + ${f#*:}))
done
for args in "check missing" "check missing.csv" "check /tmp"; do
  brix_expect 1 $args
  [ "$(wc -l <"$WORK/stderr")" -eq 1 ] || fail "not one line on standard error: $(cat "$WORK/stderr")"
done

finish
