# Every command the README shows must work as written. The rule: in each ```sh block, every line
# that starts with "build/" is run from a scratch folder where build/ and examples/ are the real
# ones (make lines are the set-up commands themselves and are not run here).
source "$(dirname "$0")/lib.sh"

ln -s "$(dirname "$BRIXCMD")" build
ln -s "$ROOT/examples" examples
commands=$(awk '/^```sh$/ { on = 1; next } /^```/ { on = 0 } on && /^build\// { print }' \
  "$ROOT/README.md")
[ -n "$commands" ] || fail "no command found in the README"
while IFS= read -r line; do
  LAST=$line
  bash -c "$line" >"$WORK/stdout" 2>"$WORK/stderr" || fail "status $?: $(head -3 "$WORK/stderr")"
  # brixcmd reports run-time errors on standard output with status 0.
  grep -Eq '^(File|Reading [a-z]+ data:|Binary|Error|Halting|No )' "$WORK/stdout" &&
    fail "it printed an error: $(grep -E '^(File|Reading [a-z]+ data:|Binary|Error|Halting|No )' "$WORK/stdout" | head -1)"
done <<<"$commands"

finish
