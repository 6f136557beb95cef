# brix predict on all 16,000 rows of letter within 2 s: the whole table goes through the tree
# compiled once for it, never row by row through texts.
source "$(dirname "$0")/lib.sh"
STEM=$ROOT/../shared/data/mlb_letter
if [ ! -f "$STEM.data" ]; then
  NEEDS_MISSING="$STEM.data"
  finish
fi
ok -f "$STEM" -tb letter.tree
start=$(date +%s%N)
brix_run predict letter.tree "$STEM" --output letter.pred
seconds=$(awk -v ns=$(($(date +%s%N) - start)) 'BEGIN { printf "%.3f", ns / 1e9 }')
expect_status 0
[ "$(wc -l <letter.pred)" -eq 16001 ] || fail "$(wc -l <letter.pred) lines, expected 16001"
awk -v s="$seconds" 'BEGIN { exit !(s < 2) }' || fail "brix predict took $seconds s (bound 2 s)"
finish
