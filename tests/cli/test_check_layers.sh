# .ci/check-layers.sh: passes on the tree, and an include from a lower layer up to a higher one,
# added to a copy of the tree, fails it with the file and line named.
source "$(dirname "$0")/lib.sh"

cp -r "$ROOT/brix" "$ROOT/cmd" "$ROOT/python" "$ROOT/zel" "$ROOT/farm" "$ROOT/.ci" "$WORK/" ||
  fail "cannot copy the tree"
CHECK=$WORK/.ci/check-layers.sh

LAST="check-layers.sh on the tree"
bash "$CHECK" "$ROOT" >out.txt 2>err.txt || fail "the tree fails: $(cat err.txt)"
bash "$CHECK" "$WORK" >out.txt 2>err.txt || fail "the copy fails: $(cat err.txt)"

# file | include added at its top | expected in the message
while IFS='|' read -r file include expected; do
  LAST="$file including $include"
  cp "$WORK/$file" saved
  { echo "#include $include"; cat saved; } >"$WORK/$file"
  bash "$CHECK" "$WORK" >out.txt 2>err.txt && fail "passes"
  grep -qF "$file:1: includes ${include//[\"<>]/}" err.txt || fail "not named: $(cat err.txt)"
  grep -q "$expected" err.txt || fail "no reason given: $(cat err.txt)"
  cp saved "$WORK/$file"
done <<'CASES'
cmd/brix.cpp|"brix/impls/storage/table.h"|front end
cmd/brixcmd.cpp|<brix/impls/model/decision_tree.h>|front end
python/src/core.cpp|"brix/impls/model/conf_matrix.h"|front end
brix/writers/json.cpp|"brix/model.h"|writer
brix/impls/learning/grow.cpp|"brix/tree_writer.h"|engine
brix/impls/storage/table.cpp|"brix/writers/shared.h"|engine
brix/impls/storage/column.cpp|"brix/impls/learning/entropy.h"|storage
brix/impls/model/decision_tree.h|"brix/impls/learning/grower.h"|the model includes nothing of learning
zel/util/proc.cpp|"cmd/brix_import.h"|engine
brix/model.cpp|"python/brix_module.h"|public API
CASES

# Including downward stays allowed.
LAST="downward includes"
{ echo '#include "brix/writers/shared.h"'; cat "$ROOT/cmd/brix.cpp"; } >"$WORK/cmd/brix.cpp"
{ echo '#include "brix/impls/storage/table.h"'; cat "$ROOT/brix/writers/text.cpp"; } >"$WORK/brix/writers/text.cpp"
{ echo '#include "brix/impls/model/split_record.h"'; cat "$ROOT/brix/impls/learning/grower.cpp"; } \
  >"$WORK/brix/impls/learning/grower.cpp"
bash "$CHECK" "$WORK" >out.txt 2>err.txt || fail "refused: $(cat err.txt)"

finish
