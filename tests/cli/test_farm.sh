# Growing on n workers prints the same report as growing sequentially, for
# every pruning strategy: on the small shared datasets and on a generated
# 100,000-row table with unknown values in every kind of attribute.
source "$(dirname "$0")/lib.sh"

processors=$(getconf _NPROCESSORS_ONLN)
DATA=$ROOT/../shared/data

same_reports() {  # same_reports LABEL ARGS...
  local label=$1
  shift
  for pruning in "" -c4.5 -np; do
    run "$@" $pruning -tstd
    expect_status 0
    cp "$WORK/stdout" "$WORK/sequential"
    grep -q "TREE SIZE" "$WORK/sequential" || fail "$label $pruning: no report"
    for ((n = 1; n <= processors; n++)); do
      run "$@" $pruning -tstd -ff "$n"
      expect_status 0
      cmp -s "$WORK/sequential" "$WORK/stdout" || fail "$label $pruning -ff $n: report differs"
    done
  done
}

if [ -d "$DATA" ]; then
  for names in "$DATA"/*.names; do
    stem=${names%.names}
    [ -f "$stem.data" ] || continue  # the gzip-only 1,000,000-row set is left to the benchmark
    test_file=()
    [ -f "$stem.test" ] && test_file=(-ft "$stem.test")
    same_reports "$(basename "$stem")" -f "$stem" "${test_file[@]}"
  done
else
  echo "skipping the shared datasets: $DATA is absent"
fi

awk -v seed=42 -v n=100000 -f "$ROOT/tests/data/gen_mixed.awk" >"$WORK/mixed.data"
cp "$ROOT/tests/data/mixed.names" "$WORK/mixed.names"
same_reports mixed -f "$WORK/mixed"

# A root that is a leaf ends the farm at once.
printf 'x,integer,continuous\nc,string,class\n' >"$WORK/pure.names"
printf '1,a\n2,a\n3,a\n' >"$WORK/pure.data"
run -f "$WORK/pure" -tstd -ff 1
expect_status 0
grep -q "TREE SIZE: 1" "$WORK/stdout" || fail "a pure table should give a one-node tree"

finish
