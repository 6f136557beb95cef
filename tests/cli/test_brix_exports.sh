# brix show: PMML 4.4 that validates against the schema, DOT that renders, JSON that parses, for
# every dataset and for values full of quotes, backslashes, markup and non-ASCII text.
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"
BRIX=$(dirname "$BRIXCMD")/brix
XSD=$ROOT/../shared/pmml/pmml-4-4.xsd
[ -f "$XSD" ] || { XSD=; NEEDS_MISSING="the PMML 4.4 schema in ../shared/pmml"; }
have() { command -v "$1" >/dev/null || { echo "skipped: $1 not installed"; return 1; }; }

check_exports() {  # label model
  "$BRIX" show "$2" --format pmml >"$1.xml" || fail "$1: no PMML"
  if [ -n "$XSD" ] && have xmllint; then
    xmllint --noout --schema "$XSD" "$1.xml" 2>"$1.lint" || fail "$1: PMML invalid: $(head -3 "$1.lint")"
  fi
  "$BRIX" show "$2" --format json >"$1.json" || fail "$1: no JSON"
  python3 -m json.tool "$1.json" >/dev/null 2>&1 || fail "$1: JSON does not parse"
  if have dot; then
    "$BRIX" show "$2" --format dot --max-depth 3 | dot -Tsvg >/dev/null 2>"$1.err" ||
      fail "$1: DOT does not render: $(head -3 "$1.err")"
    "$BRIX" show "$2" --format dot | gc -n >/dev/null 2>"$1.err" || fail "$1: DOT does not parse"
  fi
}

# Values that break unescaped outputs.
printf '%s\n' 'name,size,class' '"say ""hi""",1,"a<b"' 'back\slash,2,"a<b"' '"x&y",3,"ümlaut ✓"' \
  'plain,4,"ümlaut ✓"' '"say ""hi""",5,"a<b"' 'plain,6,"ümlaut ✓"' >odd.csv
"$BRIX" train odd.csv --min-cases 1.5 --pruning none --model odd.tree >/dev/null ||
  fail "odd.csv did not train"
check_exports odd odd.tree
grep -q 'value="say &quot;hi&quot;"' odd.xml || fail "quotes not escaped in PMML"

for stem in "$ROOT/examples/golf" "$ROOT/examples/votes"; do
  "$BRIX" train "$stem" --model "$(basename "$stem").tree" >/dev/null
  check_exports "$(basename "$stem")" "$(basename "$stem").tree"
done
while read -r name names data test; do
  "$BRIX" train "${names%.names}" --model "$name.tree" >/dev/null || fail "$name: did not train"
  check_exports "$name" "$name.tree"
done < <(datasets)

finish
