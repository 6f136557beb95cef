# Helpers shared by the command-line tests. Each test script is run as
#   bash test_x.sh <path-to-brixcmd> <repo-root>
# and sources this file first. Checks keep going after a failure; finish reports the result.

BRIXCMD=$1
ROOT=$2
GOLDEN=$ROOT/tests/cli/golden
[ -x "$BRIXCMD" ] || { echo "usage: $0 <brixcmd> <repo-root>"; exit 2; }

# Every test runs in a scratch directory of its own.
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
cd "$WORK" || exit 2

FAILURES=0
LAST=

fail() {
  echo "FAIL [$LAST]: $*"
  FAILURES=$((FAILURES + 1))
}

# run ARGS... (brixcmd) and brix_run ARGS... (brix): standard output lands in $WORK/stdout,
# standard error in $WORK/stderr, the status in $STATUS.
BRIX=$(dirname "$BRIXCMD")/brix
run() { run_program "$BRIXCMD" "$@"; }
brix_run() { run_program "$BRIX" "$@"; }
run_program() {
  LAST="$(basename "$1") ${*:2}"
  "$@" >"$WORK/stdout" 2>"$WORK/stderr"
  STATUS=$?
}

expect_status() { [ "$STATUS" -eq "$1" ] || fail "status $STATUS, expected $1"; }

# brix_expect STATUS ARGS...: runs brix and checks its status.
brix_expect() { brix_run "${@:2}"; expect_status "$1"; }

# ok ARGS...: runs brixcmd, which ends with status 0 also after the errors it reports.
ok() { run "$@"; expect_status 0; }

# says TEXT ARGS...: brixcmd ARGS ends with status 0 and prints exactly TEXT.
says() { ok "${@:2}"; expect_output "$1"; }

# expect_output_file FILE: standard output is exactly the content of FILE; expect_output TEXT:
# exactly TEXT and one end of line.
expect_output_file() { diff -u "$1" "$WORK/stdout" >"$WORK/diff" || fail "output differs from $1:
$(cat "$WORK/diff")"; }
expect_output() { printf '%s\n' "$1" >"$WORK/expected" && expect_output_file "$WORK/expected"; }
expect_line_count() { [ "$(wc -l <"$WORK/stdout")" -eq "$1" ] || fail "$(wc -l <"$WORK/stdout") lines of output, expected $1"; }

NEEDS_MISSING=

finish() {
  if [ "$FAILURES" -ne 0 ]; then
    echo "$FAILURES check(s) failed"
    exit 1
  fi
  if [ -n "$NEEDS_MISSING" ]; then
    echo "skipped in part: $NEEDS_MISSING"
    exit 77  # CTest reports the test as skipped
  fi
  echo "all checks passed"
}

# expect_head TEXT: standard output begins with exactly the lines of TEXT.
expect_head() {
  local n
  n=$(printf '%s\n' "$1" | wc -l)
  head -n "$n" "$WORK/stdout" | diff -u <(printf '%s\n' "$1") - >"$WORK/diff" ||
    fail "output begins differently:
$(cat "$WORK/diff")"
}

# expect_line N PATTERN: line N of standard output matches the extended regular expression.
expect_line() {
  sed -n "${1}p" "$WORK/stdout" | grep -Eq -- "$2" || fail "line $1 is '$(sed -n "${1}p" "$WORK/stdout")', expected /$2/"
}

# expect_grep PATTERN [FILE]: some line of FILE (standard output by default) matches the extended
# regular expression.
expect_grep() {
  grep -Eq -- "$1" "${2:-$WORK/stdout}" || fail "no line matches /$1/ in ${2:-standard output}"
}

# limited SECONDS ARGS...: runs brixcmd under a time limit and, unless it is built with
# AddressSanitizer (whose shadow memory needs more), a 4 GB address-space limit.
limited() {
  local seconds=$1
  shift
  LAST="brixcmd $*"
  (
    grep -q __asan_init "$BRIXCMD" 2>/dev/null || ulimit -v 4000000
    exec timeout "$seconds" "$BRIXCMD" "$@"
  ) >"$WORK/stdout" 2>"$WORK/stderr"
  STATUS=$?
  [ "$STATUS" -eq 124 ] && fail "did not end within $seconds s"
}
