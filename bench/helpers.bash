# Helpers shared by the benchmark sections (sourced; not a section of its own).

now_ns() { date +%s%N; }
min() { awk -v a="$1" -v b="$2" 'BEGIN { print (b == "" || a + 0 < b + 0) ? a : b }'; }
max() { awk -v a="$1" -v b="$2" 'BEGIN { print (b == "" || a + 0 > b + 0) ? a : b }'; }
# Seconds since a now_ns reading, four decimals.
seconds_since() { awk -v ns=$(($(now_ns) - $1)) 'BEGIN { printf "%.4f", ns / 1e9 }'; }

# prepare_dataset ROOT NAME: the shared gzip dataset NAME decompressed into ROOT/bench/work
# (once). Sets work, stem, src; returns 1, after saying so, when the dataset is absent.
prepare_dataset() {
  src=$1/../shared/data/$2.data.gz
  if [ ! -f "$src" ] || [ ! -f "${src%.data.gz}.names" ]; then
    echo "$(basename "$0"): $src not found; benchmark skipped"
    return 1
  fi
  work=$1/bench/work
  mkdir -p "$work"
  stem=$work/$2
  if [ ! "$stem.data" -nt "$src" ]; then
    zcat "$src" >"$stem.data.tmp.$$"
    mv "$stem.data.tmp.$$" "$stem.data"
  fi
  cp "${src%.data.gz}.names" "$stem.names"
}

# section_header ROOT TITLE: the heading of a results section, with date, machine and commit.
section_header() {
  local cpu commit
  cpu=$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')
  commit=$(git -C "$1" rev-parse --short HEAD 2>/dev/null || echo unknown)
  if [ -n "$(git -C "$1" status --porcelain 2>/dev/null)" ]; then
    commit="$commit (uncommitted changes)"
  fi
  echo "## $2, $(date '+%Y-%m-%d %H:%M'), $cpu, $(nproc) cores, commit $commit"
}

# append_results ROOT SECTION: prints the section and appends it to bench/RESULTS.md.
append_results() {
  local results=$1/bench/RESULTS.md
  echo "$2"
  [ -f "$results" ] ||
    printf '# Benchmark results\n\nSections are appended by bench/run.sh, newest last.\n' >"$results"
  printf '\n%s\n' "$2" >>"$results"
}

# locate_programs BRIXCMD: sets brixcmd to BRIXCMD as an absolute path and brix to the brix
# command built beside it.
locate_programs() {
  brixcmd=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
  brix=$(dirname "$brixcmd")/brix
}

# shared_data ROOT: sets data to the shared dataset folder; returns 1, after saying so, without it.
shared_data() {
  data=$1/../shared/data
  [ -d "$data" ] || { echo "$(basename "$0"): $data not found; benchmark skipped"; return 1; }
}

# need_programs PROG...: fails, saying so, unless every PROG is an executable file.
need_programs() {
  local prog
  for prog in "$@"; do
    [ -x "$prog" ] && continue
    echo "$(basename "$0"): $prog is not built or not installed" >&2
    return 1
  done
}

# bench_datasets ROOT: one line "name stem test-file-or-empty" per dataset of ../shared/data,
# where stem.names and stem.data exist; a dataset shipped only gzip-compressed is decompressed
# into bench/work first (prepare_dataset). Prints nothing, after saying so, without the folder.
bench_datasets() {
  local names base
  if ! ls "$1"/../shared/data/*.names >/dev/null 2>&1; then
    echo "$(basename "$0"): no datasets in $1/../shared/data; benchmark skipped" >&2
    return
  fi
  for names in "$1"/../shared/data/*.names; do
    base=${names%.names}
    if [ -f "$base.data" ]; then
      stem=$base
    else
      prepare_dataset "$1" "$(basename "$base")" >&2 || continue
    fi
    echo "$(basename "$base") $stem $([ -f "$base.test" ] && echo "$base.test")"
  done
}

# fmt FORMAT VALUE: VALUE through printf FORMAT; "-" stays "-".
fmt() { [ "$2" = - ] && echo - || awk -v f="$1" -v x="$2" 'BEGIN { printf f, x }'; }

# Records are lines of "key value" pairs. field KEY RECORD: the value of KEY.
field() { awk -v k="$1" '{ for (i = 1; i < NF; i += 2) if ($i == k) print $(i + 1) }' <<<"$2"; }
# best_record: of the records on standard input, one with each key's smallest value (the
# largest for peak_* keys); values that are not numbers are kept from the first record.
best_record() {
  awk '{ for (i = 1; i < NF; i += 2) {
           k = $i; v = $(i + 1)
           if (!(k in best)) { keys[++n] = k; best[k] = v; continue }
           if (v !~ /^[-+0-9.e]+$/) continue
           if (k ~ /^peak/ ? v + 0 > best[k] + 0 : v + 0 < best[k] + 0) best[k] = v
         } }
       END { for (j = 1; j <= n; j++) printf "%s%s %s", (j > 1 ? " " : ""), keys[j], best[keys[j]]
             print "" }'
}

# timed OUT COMMAND...: runs COMMAND under /usr/bin/time -v with standard output in OUT and
# prints the record "wall S peak_mb M user S" (peak resident set size, MB = 2^20 bytes; user CPU
# seconds).
timed() {
  local out=$1 t0
  shift
  t0=$(now_ns)
  /usr/bin/time -v -o "$out.time" "$@" >"$out"
  echo "wall $(seconds_since "$t0") $(awk -F': ' '/Maximum resident set size/ {
    printf "peak_mb %.1f", $2 / 1024 } /User time/ { user = $2 } END { printf " user %s", user }' \
    "$out.time")"
}

# brix_run OUT BRIXCMD ARGS...: one timed run of BRIXCMD ARGS -tstd with its log; the text
# report is left in OUT, the log in OUT.log. Prints the record of timed followed by
#   load S built S tested S depth N size N train_error P test_error P
# (the log's "Data loaded.", "Tree built." and last "Testing done." times; "-" when absent).
# Fails, showing the output, when no tree was built.
brix_run() {
  local out=$1 usage
  shift
  rm -f "$out.log"
  usage=$(timed "$out" "$@" -tstd -l "$out.log")
  if ! grep -q '^Tree built\.$' "$out.log"; then
    echo "$(basename "$0"): no tree built by $*:" >&2
    cat "$out" >&2
    return 1
  fi
  echo "$usage $(awk '
    /^Data loaded\.$/ { getline; load = $2 }
    /^Tree built\.$/ { getline; depth = $4; built = $6 }
    /^Testing done\.$/ { getline; tested = $2 }
    END { printf "load %s built %s tested %s depth %s", load, built, tested == "" ? "-" : tested,
                 depth }' "$out.log") $(awk '
    /^TREE SIZE: / { size = $3 }
    /^MISCLASSIFICATION on training: / { train = $4 }
    /^MISCLASSIFICATION on test file: / { test = $5 }
    END { sub(/%/, "", train); sub(/%/, "", test)
          printf "size %s train_error %s test_error %s", size, train, test == "" ? "-" : test }
  ' "$out")"
}
# median_record: of the records on standard input, one with each key's median value (the
# middle one, or the lower middle of an even count); values that are not numbers are kept
# from the first record.
median_record() {
  awk '{ for (i = 1; i < NF; i += 2) {
           k = $i; v = $(i + 1)
           if (!(k in first)) { keys[++n] = k; first[k] = v }
           vals[k, ++count[k]] = v
         } }
       END { for (j = 1; j <= n; j++) {
               k = keys[j]; m = count[k]; out = first[k]
               if (out ~ /^[-+0-9.e]+$/) {
                 for (a = 1; a <= m; a++) s[a] = vals[k, a] + 0
                 for (a = 2; a <= m; a++)
                   for (b = a; b > 1 && s[b - 1] > s[b]; b--) { t = s[b]; s[b] = s[b - 1]; s[b - 1] = t }
                 out = s[int((m + 1) / 2)]
               }
               printf "%s%s %s", (j > 1 ? " " : ""), k, out
             }
             print "" }'
}
