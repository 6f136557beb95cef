# The brix command on tables shaped as people bring them: R's write.csv and write.csv2 files,
# ISO dates, ID columns, a class column that is not one, number types asked for; and the
# smaller conventions: options a command has no use for, swapped arguments, readable reports.
source "$(dirname "$0")/lib.sh"
DATA=$ROOT/tests/data
EX=$ROOT/examples

# The tree section of a train report.
tree_of() { sed -n '/^Decision Tree$/,/^Attribute usage$/p' "$1"; }

# R's write.csv: quoted header with an empty first name (row names), NA.
brix_expect 0 train "$DATA/r_write_csv.csv"
expect_grep "the first column has no name; taken as row names and ignored" "$WORK/stderr"
expect_grep '^thickness <= 6 : benign'
grep -q 'row names' "$WORK/stdout" && fail "the row names are used"
brix_expect 0 check "$DATA/r_write_csv.csv"
"$BRIX" train "$DATA/r_write_csv.csv" --quiet --model r.bt >/dev/null
brix_expect 0 predict r.bt "$DATA/r_write_csv.csv" --id "(row names)"
expect_line 1 '^\(row names\),predicted$'
expect_line 15 '^14,malignant$'
# The same table for brixcmd, which grows the same tree.
brix_expect 0 import "$DATA/r_write_csv.csv" --to r --quiet
"$BRIX" train "$DATA/r_write_csv.csv" --quiet >brix.txt
"$BRIXCMD" -f r -tstd >brixcmd.txt
head -n "$(wc -l <brixcmd.txt)" brix.txt | cmp -s - brixcmd.txt || fail "brixcmd grows another tree"

# R's write.csv2: ';' and decimal commas. Refused with the separator named, read with --sep.
for args in "train $DATA/semicolon.csv" "import $DATA/semicolon.csv --to s"; do
  brix_expect 1 $args
  expect_grep "text after a closing quote \(the lines split evenly at ';': --sep ';' reads it\)" \
    "$WORK/stderr"
done
brix_expect 1 check "$DATA/semicolon.csv"
expect_grep "split evenly at ';', not at ',': --sep ';' reads them"
"$BRIX" train "$DATA/r_write_csv.csv" --quiet | tree_of /dev/stdin >csv.tree
for sep in ';' '\;'; do
  brix_expect 0 train "$DATA/semicolon.csv" --sep "${sep#\\}" --model s.bt
  tree_of "$WORK/stdout" | cmp -s - csv.tree || fail "another tree with --sep"
done
brix_expect 0 check "$DATA/semicolon.csv" --sep ';'
brix_expect 0 predict s.bt "$DATA/semicolon.csv" --sep ';'
expect_line_count 15
printf 'a;b;c\n1;2;x\n3;4;y\n' >plain.csv
brix_run train plain.csv
expect_grep "plain.csv: one column only; the lines split evenly at ';': --sep ';' reads it" \
  "$WORK/stderr"
tr ',' '\t' <"$EX/iris.csv" >iris_tabs.txt
brix_expect 0 train iris_tabs.txt --sep tab
for args in "train $DATA/semicolon.csv --sep ;;" "train $DATA/semicolon.csv --sep \"" \
  "check $DATA/quoted_nominal.arff --sep ;"; do
  brix_expect 2 $args
done

# Dates as days since 1970-01-01; an ID column and a class with a value a row are warned of.
brix_expect 0 train "$DATA/dates.csv"
expect_grep "column 'diagnosed': ISO dates, read as days since 1970-01-01$" "$WORK/stderr"
expect_grep "column 'seen': ISO dates, read as days since 1970-01-01 with fractions" "$WORK/stderr"
expect_grep "column 'patient': all 12 values differ, likely an ID; --kind patient=ignore" "$WORK/stderr"
expect_grep '^diagnosed <= 5761 : A'  # 1985-10-10
brix_expect 1 check "$DATA/dates.csv"
expect_grep "column 1 'patient': all 12 values differ, likely an ID"
grep -q "'diagnosed'" "$WORK/stdout" && fail "check takes dates for IDs"
brix_expect 0 train "$DATA/dates.csv" --class patient
expect_grep "column 'patient', taken as the class: 12 different values in 12 rows.*--class NAME" \
  "$WORK/stderr"
brix_run cv "$DATA/dates.csv" --class patient -k 2
expect_grep "column 'patient', taken as the class" "$WORK/stderr"
brix_run check "$DATA/dates.csv" --class patient
expect_grep "12 different values in 12 rows, nearly one a row; is it the class\?"
brix_run train "$DATA/dates.csv" --kind patient=ignore --quiet
[ -s "$WORK/stderr" ] && fail "--quiet warns"

# ARFF: quoted nominal values; a float class and an ID are warned of, in check too.
brix_run train "$DATA/quoted_nominal.arff"
expect_grep "column 'Mg', taken as the class \(the last column\): numbers with fractions" "$WORK/stderr"
expect_grep "column 'id': all 12 values differ" "$WORK/stderr"
brix_expect 1 check "$DATA/quoted_nominal.arff"
expect_grep "numbers with fractions"
brix_expect 0 train "$DATA/quoted_nominal.arff" --class type --kind id=ignore --model q.bt
[ -s "$WORK/stderr" ] && fail "warnings on a sound table: $(cat "$WORK/stderr")"
expect_grep "^type = |refractive index <= "

# Number types: double keeps a column continuous; the float warning names the remedy.
"$BRIX" train "$EX/iris.csv" --quiet >float.txt
for args in "--type petalwidth=double" "--kind petalwidth=continuous --type petalwidth=double"; do
  brix_expect 0 train "$EX/iris.csv" $args --model d.bt
  expect_grep "^petalwidth <= 0.6 : Iris-setosa"
  [ "$(grep '^TREE SIZE' "$WORK/stdout")" = "$(grep '^TREE SIZE' float.txt)" ] ||
    fail "another tree size: $(grep '^TREE SIZE' "$WORK/stdout")"
done
brix_expect 0 predict d.bt "$EX/iris_test.csv"
"$BRIXCMD" -bt d.bt -f "$EX/iris" -tstd >from_model.txt
grep -q '^TREE SIZE' from_model.txt || fail "brixcmd does not read a model with a double column"
# brixcmd's .names declares no continuous doubles: import says so and how to read the column.
brix_expect 1 import "$EX/iris.csv" --type petalwidth=double --to d
expect_grep "column 'petalwidth': continuous doubles .* --type petalwidth=float reads it" "$WORK/stderr"
[ -e d.names ] && fail "import wrote a .names"
brix_expect 0 import "$DATA/dates.csv" --type seen=float --to dates --quiet
printf 'x,c\n0.123456789,a\n0.2,b\n0.3,a\n' >lossy.csv
brix_run train lossy.csv
expect_grep "values such as '0.123456789' are not exact in 32-bit float; --type x=double keeps them exact" \
  "$WORK/stderr"

# Options a command has no use for, and swapped arguments, are usage errors.
for args in "cv $EX/iris.csv --report json" "cv $EX/iris.csv --model m.bt" \
  "cv $EX/iris.csv --test $EX/iris_test.csv" "predict $EX/iris_test.csv d.bt" \
  "predict $EX/iris d.bt"; do
  brix_expect 2 $args
done
[ -e m.bt ] && fail "cv wrote a model"
brix_run predict "$EX/iris_test.csv" d.bt
expect_grep "predict takes MODEL then DATA: .*iris_test.csv is a table, not a model" "$WORK/stderr"

# Messages without the library's internal prefixes.
printf 'sepallength,class\n1,a\n' >short.csv
brix_expect 1 predict d.bt short.csv
grep -q '\[' "$WORK/stderr" && fail "an internal prefix: $(cat "$WORK/stderr")"

# Reports: cv's percentages with two decimals; DOT thresholds as short as the floats they are.
brix_run cv "$EX/iris.csv" -k 3
expect_line 2 '^1	[0-9]+\.[0-9]{2}	'
expect_grep '^mean error [0-9]+\.[0-9]{2}%, standard deviation [0-9]+\.[0-9]{2} '
"$BRIX" train "$EX/iris.csv" --quiet --model f.bt >/dev/null
brix_run show f.bt --format dot
expect_line 1 '^digraph tree \{$'
expect_grep '^  edge \[fontname="Helvetica"\];$'
expect_grep 'label="<= 4.8"'
grep -Eq '[0-9]\.[0-9]{8}' "$WORK/stdout" && fail "long decimals: $(grep -E '[0-9]\.[0-9]{8}' "$WORK/stdout" | head -1)"

finish
