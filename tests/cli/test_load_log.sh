# A successful load and its log: the passes, the row counters and the loading time. Only the
# load part of the output is checked; what the run prints after it belongs to later stages.
source "$(dirname "$0")/lib.sh"

TIME_LINE='^ time:  [0-9]+(\.[0-9]+)?(e[-+][0-9]+)? secs\.$'

golf_log="Reading data 
 ... 1st pass: 
  14 rows read. Indexing ...  done.
 ... 2nd pass: 
  14 rows read.
Data loaded."

ok -f "$ROOT/examples/golf" -lstd
expect_head "$golf_log"
expect_line 7 "$TIME_LINE"

# The log appended to a file instead.
echo "earlier run" >log.txt
ok -f "$ROOT/examples/golf" -l log.txt -lstd
grep -q "Reading data" "$WORK/stdout" && fail "log written to standard output as well as to the file"
printf '%s\n' "earlier run" "$golf_log" | diff -u - <(head -n 7 log.txt) >/dev/null ||
  fail "log file does not hold the earlier content followed by the load log"
sed -n 8p log.txt | grep -Eq "$TIME_LINE" || fail "no time line in the log file"

# Without the log the load writes nothing.
ok -f "$ROOT/examples/golf"
grep -q "rows read" "$WORK/stdout" && fail "load log written without -lstd"

# 25000 rows: the counter is rewritten in place every 10000 rows in both passes.
cp "$ROOT/examples/golf.names" big.names
awk 'BEGIN { for (r = 0; r < 25000; r++) printf "%s,%d,%d,%s,%s\n", (r % 3 ? "sunny" : "rainy"), 60 + r % 30, 65 + r % 31, (r % 2 ? "TRUE" : "FALSE"), (r % 5 ? "yes" : "no") }' >big.data
ok -f big -lstd
CR=$'\r'
expect_head "Reading data 
 ... 1st pass: 
  10000${CR}  20000${CR}  25000 rows read. Indexing ...  done.
 ... 2nd pass: 
  10000${CR}  20000${CR}  25000 rows read.
Data loaded."
expect_line 7 "$TIME_LINE"

# Compressed data logs the same.
gzip -c "$ROOT/examples/golf.data" >packed.data.gz
ok -fm "$ROOT/examples/golf.names" -fd packed.data.gz -lstd
expect_head "$golf_log"

finish
