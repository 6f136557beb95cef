# Sourced after lib.sh: datasets prints "stem names-file data-file test-file-or-empty" for each
# dataset of ../shared/data, the 1,000,000-row one only when BRIX_FULL_DATA is set (make bench
# sets it). Without the folder it prints nothing, and finish reports the test as skipped.
DATA_DIR=$ROOT/../shared/data
[ -d "$DATA_DIR" ] || NEEDS_MISSING="$DATA_DIR not found"

datasets() {
  if [ ! -d "$DATA_DIR" ]; then
    echo "skipped: $DATA_DIR not found" >&2
    return
  fi
  local names stem data test
  for names in "$DATA_DIR"/*.names; do
    stem=${names%.names}
    data=$stem.data
    [ -f "$data" ] || data=$stem.data.gz
    [ -f "$data" ] || continue
    if [ -z "${BRIX_FULL_DATA:-}" ] && [ "$(basename "$stem")" = syn_agrawal_f2_1m ]; then
      echo "skipped (set BRIX_FULL_DATA to include it): $(basename "$stem")" >&2
      continue
    fi
    test=$stem.test
    [ -f "$test" ] || test=
    echo "$(basename "$stem") $names $data $test"
  done
}
