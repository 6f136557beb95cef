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
