# The binary table and tree files of every dataset. A table saved with -db and read back with
# -bd, and a tree saved with -tb and read back with -bt (no dataset), give the same report,
# test figures, score file, XML and DOT as the run on the text files. Foreign and damaged files
# end the run with one message.
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"

# same_outputs NAME SUFFIX HOW: the outputs of run SUFFIX match those of run 1.
same_outputs() {
  grep -q "^MISCLASSIFICATION on test file: " "$WORK/stdout" || fail "$1 $3: no test figures"
  diff -q "$1.report1" "$WORK/stdout" >/dev/null || fail "$1 $3: text report differs"
  local f
  for f in score xml dot; do
    cmp -s "$1.1.$f" "$1.$2.$f" || fail "$1 $3: $f output differs"
  done
}

check_files() {  # name names data test
  local test=${4:-$3}
  local scoring=(-ft "$test" -fs "$test" -tstd)
  ok -fm "$2" -fd "$3" "${scoring[@]}" -s "$1.1.score" -x "$1.1.xml" -d "$1.1.dot" \
    -db "$1.table" -tb "$1.tree"
  cp "$WORK/stdout" "$1.report1"
  ok -bd "$1.table" "${scoring[@]}" -s "$1.2.score" -x "$1.2.xml" -d "$1.2.dot"
  same_outputs "$1" 2 "-bd"
  ok -bt "$1.tree" "${scoring[@]}" -s "$1.3.score" -x "$1.3.xml" -d "$1.3.dot"
  same_outputs "$1" 3 "-bt"
}

check_files golf "$ROOT/examples/golf.names" "$ROOT/examples/golf.data"
while read -r name names data test; do
  [ "$name" = syn_agrawal_f2_1m ] && continue  # bench/binary.sh covers it
  check_files "$name" "$names" "$data" "$test"
done < <(datasets)

says "File $ROOT/examples/golf.data: not binary format" -bd "$ROOT/examples/golf.data"
head -c 100 golf.table >short.table
says "File short.table: not binary format" -bd short.table

# A tree file cut short, and one with a byte changed inside the gzip stream.
head -c $(($(stat -c %s golf.tree) / 2)) golf.tree >cut.tree
ok -bt cut.tree -tstd
expect_line_count 1
gzip -dc golf.tree >golf.raw
printf '\x07' | dd of=golf.raw bs=1 seek=10 conv=notrunc 2>/dev/null  # the root's status
gzip -c golf.raw >bad.tree
says "Binary tree: unknown node status" -bt bad.tree -tstd

finish
