# Failures while running print their message on standard output and still end with status 0.
source "$(dirname "$0")/lib.sh"

says "File missing.bin: not binary format" -bd missing.bin
ok -bt missing_tree.bin
expect_line_count 1

# The log file is opened for appending, the other outputs are truncated.
for f in log.txt text.txt xml.txt dot.txt; do echo old >"$f"; done
says "No metadata provided." -l log.txt -t text.txt -x xml.txt -d dot.txt -np
[ "$(cat log.txt)" = old ] || fail "log file was not appended to"
for f in text.txt xml.txt dot.txt; do
  [ -s "$f" ] && fail "$f was not truncated"
done

says "File no_such_dir/text.txt: cannot be opened for writing" -t no_such_dir/text.txt -np

finish
