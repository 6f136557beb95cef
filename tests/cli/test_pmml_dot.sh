# The XML model and the DOT graph of every dataset: the XML is well formed and describes the
# table and the tree that the text report shows; the DOT graph renders. Checks that need
# xmllint or dot are skipped with a message when the tool is missing.
source "$(dirname "$0")/lib.sh"
source "$ROOT/tests/cli/datasets.sh"

have_xmllint=1 have_dot=1
command -v xmllint >/dev/null || { have_xmllint=; echo "skipped: xmllint not installed"; }
command -v dot >/dev/null || { have_dot=; echo "skipped: dot not installed"; }

xpath() { xmllint --xpath "$2" "$1" 2>/dev/null; }

# expect_xpath FILE EXPRESSION VALUE
expect_xpath() {
  local got
  got=$(xpath "$1" "$2")
  [ "$got" = "$3" ] || fail "$(basename "$1"): $2 is '$got', expected '$3'"
}

check_outputs() {  # name names data test
  local x=$1.xml d=$1.dot
  ok -fm "$2" -fd "$3" ${4:+-ft "$4"} -tstd -x "$x" -d "$d"
  local size fields class classes
  size=$(sed -n 's/^TREE SIZE: //p' "$WORK/stdout")
  fields=$(grep -c . "$2")
  class=$(awk -F, '$3 == "class" { print $1 }' "$2")
  # The training matrix header: "?", the class values, "actual/predicted".
  classes=$(awk -F'\t' '/actual\/predicted$/ { print NF - 2; exit }' "$WORK/stdout")
  [ -n "$size" ] && [ -n "$classes" ] || fail "$1: no report"

  if [ -n "$have_xmllint" ]; then
    xmllint --noout "$x" 2>"$1.lint" || fail "$1: XML not well formed: $(head -3 "$1.lint")"
    expect_xpath "$x" 'string(/PMML/DataDictionary/@numberOfFields)' "$fields"
    expect_xpath "$x" 'count(/PMML/DataDictionary/*)' "$fields"
    expect_xpath "$x" 'count(//MiningSchema/MiningField)' "$fields"
    expect_xpath "$x" 'string(//MiningField[@usageType="predicted"]/@name)' "$class"
    expect_xpath "$x" 'count(//MiningField[@usageType="predicted"])' 1
    expect_xpath "$x" 'count(//Node)' "$size"
    expect_xpath "$x" 'count(/PMML/TreeModel/Node/True)' 1
    expect_xpath "$x" 'count(//Node/SimplePredicate)' $((size - 1))
    # Threshold tests on continuous fields, equality on categorical ones.
    expect_xpath "$x" 'count(//SimplePredicate[@operator="equal"][not(@field = /PMML/DataDictionary/DataField[@optype="categorical"]/@name)])' 0
    expect_xpath "$x" 'count(//SimplePredicate[@operator!="equal"][not(@field = /PMML/DataDictionary/DataField[@optype="continuous"]/@name)])' 0
    # Leaves score a class, split nodes none; every node lists every class.
    expect_xpath "$x" 'count(//Node[not(Node)][@score=""]) + count(//Node[Node][@score!=""])' 0
    expect_xpath "$x" "count(//Node[count(ScoreDistribution) != $classes])" 0
    expect_xpath "$x" 'count(//X-ConfusionMatrixTraining)' 1
    expect_xpath "$x" 'count(//X-ConfusionMatrixTest)' "$([ -n "$4" ] && echo 1 || echo 0)"
    expect_xpath "$x" 'string(//X-ConfusionMatrixTraining/Array/@n)' "$classes"
    expect_xpath "$x" "count(//X-ConfusionMatrixTraining/Matrix/Array[@n=$classes])" "$classes"
  fi

  if [ -n "$have_dot" ]; then
    # Laying out thousands of nodes takes dot seconds: large graphs are only parsed here, by
    # graphviz's own reader (make bench renders them all).
    if [ "$size" -le 500 ]; then
      dot -Tsvg "$d" >"$1.svg" 2>"$1.dot.err" || fail "$1: dot failed: $(head -3 "$1.dot.err")"
    else
      gc -n "$d" >/dev/null 2>"$1.dot.err" || fail "$1: DOT does not parse: $(head -3 "$1.dot.err")"
    fi
    [ "$(grep -c ' \[ shape=' "$d")" = "$size" ] || fail "$1: DOT node count is not $size"
    [ "$(grep -c ' -> ' "$d")" = $((size - 1)) ] || fail "$1: DOT edge count is not $((size - 1))"
  fi
}

check_outputs golf "$ROOT/examples/golf.names" "$ROOT/examples/golf.data" ""
while read -r name names data test; do
  check_outputs "$name" "$names" "$data" "$test"
done < <(datasets)

finish
