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

# declared NAMES: brix options giving each column of NAMES its declared kind and type, one a line.
declared() {
  local col type kind
  while IFS=, read -r col type kind; do
    [ "$kind" = class ] && printf '%s\n' --class "$col" || printf '%s\n' --kind "$col=$kind" --type "$col=$type"
  done <"$1"
}

# as_csv NAMES FILE: the rows of FILE (.data, .data.gz or .test) under a header of the names.
as_csv() {
  cut -d, -f1 "$1" | paste -sd,
  case $2 in *.gz) zcat "$2" ;; *) cat "$2" ;; esac
}
