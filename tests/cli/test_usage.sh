# Without arguments the command prints its usage text and succeeds.
source "$(dirname "$0")/lib.sh"

run
expect_status 0
expect_output_file "$GOLDEN/usage.txt"
head -n 1 "$WORK/stdout" | grep -q '^Brix version 1\.2\.5' || fail "banner is not the first line"

finish
