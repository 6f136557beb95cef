# Results that a fault in growing, pruning or prediction would change: golden reports with
# options that reach the tree, subtree raising, unknown shares in gains and in scores, the score
# file's separators, and separable tables around the storage width boundaries.
source "$(dirname "$0")/lib.sh"
EX=$ROOT/examples

# -m and -c reach the tree (each report differs from the default one), and raising (-c4.5) keeps
# or moves subtrees as the golden report shows.
run -f "$EX/iris" -ft "$EX/iris.test" -tstd -m 8
expect_output_file "$GOLDEN/iris_m8.txt"
run -f "$EX/iris" -ft "$EX/iris.test" -tstd -c 0.01
expect_output_file "$GOLDEN/iris_c001.txt"
run -f "$EX/votes" -ft "$EX/votes.test" -tstd -c4.5
expect_output_file "$GOLDEN/votes_c45.txt"

# A continuous attribute known on 10 of 100 cases: its gain counts only the known share, so the
# discrete attribute wins the root.
run -f "$ROOT/tests/data/unknown_share" -tstd
expect_output_file "$GOLDEN/unknown_share.txt"

# Scores of cases with unknown values: branches share a case by their training weights.
run -f "$EX/votes" -fs "$EX/votes.test" -s scores.txt
cmp -s scores.txt "$GOLDEN/votes_scores.txt" || fail "votes scores differ from the golden ones"

# With another separator both separators of a score line are that one.
sed 's/,/;/g' "$EX/golf.names" >golf.names
sed 's/,/;/g' "$EX/golf.data" >golf.data
run -f golf -sep ';' -fs golf.data -s golf.scores
"$BRIXCMD" -f "$EX/golf" -fs "$EX/golf.data" -s comma.scores
sed 's/,/;/g' comma.scores | cmp -s - golf.scores || fail "';' score lines are not the ',' ones"

# Separable tables with as many distinct values as the storage widths hold, and one more or less:
# the tree splits them without error whatever width the column gets.
printf 'x,integer,continuous\nc,string,class\n' >sep.names
for n in 255 256 257 65534 65535 65536; do
  awk -v n=$n 'BEGIN { for (i = 1; i <= n; i++) print i "," (i <= n / 2 ? "a" : "b") }' >sep.data
  run -f sep -tstd
  expect_line 3 '^TREE SIZE: 3$'
  expect_line 5 "^MISCLASSIFICATION on training: 0% of $n cases\. \$"
done

finish
