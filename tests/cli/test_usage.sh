# Without arguments the command prints its usage text and succeeds.
source "$(dirname "$0")/lib.sh"

ok
expect_output_file "$GOLDEN/usage.txt"

finish
