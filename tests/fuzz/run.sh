#!/usr/bin/env bash
# Runs every fuzz harness of a fuzz build for a number of seconds from its checked-in corpus.
#   bash tests/fuzz/run.sh <fuzz-build-dir> <seconds> [target...]
# New inputs go to a scratch corpus; a crash, leak, time-out or memory blow-up stops the target,
# leaves its input in <build>/artifacts and fails the run.
set -u
build=$1
seconds=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(metadata data test_rows binary_table binary_tree separators csv arff model import)
mkdir -p "$build/artifacts"
failed=0
for t in "${targets[@]}"; do
  scratch=$(mktemp -d)
  log="$build/artifacts/$t.log"
  "$build/tests/fuzz/fuzz_$t" "$scratch" "$here/corpus/$t" -max_total_time="$seconds" \
    -rss_limit_mb=2048 -malloc_limit_mb=2048 -timeout=20 -max_len=65536 -print_final_stats=1 \
    -artifact_prefix="$build/artifacts/$t-" >"$log" 2>&1
  status=$?
  execs=$(grep -m1 'stat::number_of_executed_units' "$log" | awk '{print $2}')
  cov=$(grep -E '#[0-9]+.*cov:' "$log" | tail -1 | sed -E 's/.*cov: ([0-9]+).*ft: ([0-9]+).*/cov \1 ft \2/')
  echo "fuzz_$t: ${seconds}s, ${execs:-?} executions, ${cov:-?}, status $status"
  if [ $status -ne 0 ]; then
    failed=1
    grep -E 'ERROR|SUMMARY|Test unit written' "$log" | head -5
  fi
  rm -rf "$scratch"
done
exit $failed
