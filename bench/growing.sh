#!/usr/bin/env bash
# Growing against d2eb6dc, the commit before the memory and speed work, built in this run into a
# temporary folder: `brixcmd -f stem -ft stem.test -tstd` on LED24 1M, agrawal F2 1M (the shared
# set) and generated agrawal F2 tables of GROWING_ROWS rows (default "5000000 20000000"; set
# GROWING_ROWS=5000000 for a quick run), one run at a time without -ff, medians of 3 runs for
# the wall time, user CPU and peak RSS. Both builds must print the same report. Then, with the
# current build,
# the "Tree built." time a row at 20M rows against 1M, and -ff 2 against sequential.
# Targets against d2eb6dc: peak RSS <= 0.6 x (agrawal 1M), 0.5 x (LED24 1M), 0.7 x (agrawal
# 20M); wall <= 0.5 x (LED24 1M), 0.8 x (agrawal 1M); tree time a row at 20M <= 1.15 x that at
# 1M; -ff 2 growing >= 1.85 x sequential with the same report. The time targets are read on
# wall times, which mean something only on an otherwise idle machine.
# Generated tables live in the temporary folder (about 1.2 GB for 20M rows) and are removed.
# Usage: bash bench/growing.sh path/to/brixcmd   (bench/agrawal sits beside it)
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
source "$root/bench/helpers.bash"
brixcmd=$(realpath "${1:-$root/build/brixcmd}")
agrawal=$(dirname "$brixcmd")/bench/agrawal
need_programs "$brixcmd" "$agrawal" /usr/bin/time /usr/bin/python3 || exit 1
old_commit=d2eb6dc
rows_list=${GROWING_ROWS:-5000000 20000000}

if ! git -C "$root" cat-file -e "$old_commit^{commit}" 2>/dev/null; then
  echo "growing.sh: commit $old_commit is not in this clone (shallow?); benchmark skipped"
  exit 0
fi
tmp=$(mktemp -d "${TMPDIR:-/tmp}/brix-growing.XXXXXX")
trap 'rm -rf "$tmp"' EXIT

echo "building $old_commit in $tmp/old ..."
mkdir "$tmp/old"
git -C "$root" archive "$old_commit" | tar -x -C "$tmp/old"
if ! { cmake -S "$tmp/old" -B "$tmp/old/build" -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF &&
  cmake --build "$tmp/old/build" -j2 --target brixcmd; } >"$tmp/old-build.log" 2>&1; then
  tail -20 "$tmp/old-build.log" >&2
  echo "growing.sh: $old_commit does not build" >&2
  exit 1
fi
old=$tmp/old/build/brixcmd

# The tables: name, stem and rows; generated ones in the temporary folder.
sets=()
echo "generating LED24 1M ..."
/usr/bin/python3 "$root/bench/led24.py" 1000000 "$tmp/led24_1m"
sets+=("led24_1m $tmp/led24_1m")
if prepare_dataset "$root" syn_agrawal_f2_1m; then
  cp "${src%.data.gz}.test" "$stem.test"
  sets+=("agrawal_1m $stem")
fi
for rows in $rows_list; do
  name=agrawal_$((rows / 1000000))m
  echo "generating $name ..."
  "$agrawal" "$rows" "$tmp/$name"
  sets+=("$name $tmp/$name")
done

out=$tmp/out.txt
# runs BRIXCMD STEM ARGS...: medians of 3 runs; the report is left in $out.
runs() {
  local prog=$1 stem=$2 i
  shift 2
  for i in 1 2 3; do brix_run "$out" "$prog" -f "$stem" -ft "$stem.test" "$@"; done | median_record
}
# verdict RATIO LIMIT: "met" or "MISSED" for RATIO <= LIMIT.
verdict() { awk -v r="$1" -v l="$2" 'BEGIN { print (r <= l ? "met" : "MISSED") }'; }

table= status=0
declare -A current rows_of
for entry in "${sets[@]}"; do
  read -r name stem <<<"$entry"
  echo "running $name ..."
  rows_of[$name]=$(wc -l <"$stem.data")
  o=$(runs "$old" "$stem")
  cp "$out" "$tmp/old_report.txt"
  n=$(runs "$brixcmd" "$stem")
  same=yes
  if ! cmp -s "$out" "$tmp/old_report.txt"; then
    same=NO
    status=1
  fi
  cp "$out" "$tmp/$name.report"
  current[$name]=$n
  wall_ratio=$(awk -v a="$(field wall "$n")" -v b="$(field wall "$o")" 'BEGIN { printf "%.2f", a / b }')
  peak_ratio=$(awk -v a="$(field peak_mb "$n")" -v b="$(field peak_mb "$o")" \
    'BEGIN { printf "%.2f", a / b }')
  targets=
  case $name in
    agrawal_1m) targets="peak <= 0.6 x: $(verdict "$peak_ratio" 0.6); wall <= 0.8 x: $(verdict "$wall_ratio" 0.8)" ;;
    led24_1m) targets="peak <= 0.5 x: $(verdict "$peak_ratio" 0.5); wall <= 0.5 x: $(verdict "$wall_ratio" 0.5)" ;;
    agrawal_20m) targets="peak <= 0.7 x: $(verdict "$peak_ratio" 0.7)" ;;
  esac
  user_ratio=$(awk -v a="$(field user "$n")" -v b="$(field user "$o")" \
    'BEGIN { printf "%.2f", a / b }')
  table+=$(printf '\n| %s | %s | %s | %.2f s, %.2f s | %s MB | %.2f s, %.2f s | %s MB | %s (%s) | %s | %s | %s |' \
    "$name" "${rows_of[$name]}" "$(field size "$n")" "$(field wall "$o")" "$(field user "$o")" \
    "$(field peak_mb "$o")" "$(field wall "$n")" "$(field user "$n")" "$(field peak_mb "$n")" \
    "$wall_ratio" "$user_ratio" "$peak_ratio" "$same" "$targets")
done

# Tree time a row: 20M against 1M, current build.
per_row="Tree time a row at 20M against 1M: not measured (GROWING_ROWS has no 20000000 or the 1M set is absent)."
if [ -n "${current[agrawal_20m]:-}" ] && [ -n "${current[agrawal_1m]:-}" ]; then
  ratio=$(awk -v b20="$(field built "${current[agrawal_20m]}")" -v r20="${rows_of[agrawal_20m]}" \
    -v b1="$(field built "${current[agrawal_1m]}")" -v r1="${rows_of[agrawal_1m]}" \
    'BEGIN { printf "%.2f", (b20 / r20) / (b1 / r1) }')
  per_row=$(awk -v b20="$(field built "${current[agrawal_20m]}")" -v r20="${rows_of[agrawal_20m]}" \
    -v b1="$(field built "${current[agrawal_1m]}")" -v r1="${rows_of[agrawal_1m]}" -v r="$ratio" \
    -v v="$(verdict "$ratio" 1.15)" 'BEGIN {
    printf "Tree time a row (\"Tree built.\", median of 3): %.3f us at 20M (%.2f s), %.3f us at 1M", b20 / r20 * 1e6, b20, b1 / r1 * 1e6
    printf " (%.2f s); ratio %s, target <= 1.15: %s.", b1, r, v }')
  per_row+=$(awk -v u20="$(field user "${current[agrawal_20m]}")" -v r20="${rows_of[agrawal_20m]}" \
    -v u1="$(field user "${current[agrawal_1m]}")" -v r1="${rows_of[agrawal_1m]}" 'BEGIN {
    printf " User CPU of the whole run a row: %.3f us at 20M, %.3f us at 1M, ratio %.2f.",
      u20 / r20 * 1e6, u1 / r1 * 1e6, (u20 / r20) / (u1 / r1) }')
fi

# -ff 2 against the sequential runs above, on agrawal 5M (1M when 5M is not generated).
ff_name= ff_stem=
for entry in "${sets[@]}"; do
  read -r name stem <<<"$entry"
  case $name in agrawal_1m | agrawal_5m) ff_name=$name ff_stem=$stem ;; esac
done
ff_line="-ff 2: not measured (no agrawal table)."
if [ -n "${ff_stem:-}" ] && [ "$(nproc)" -ge 2 ]; then
  echo "running $ff_name -ff 2 ..."
  s=${current[$ff_name]}
  p=$(runs "$brixcmd" "$ff_stem" -ff 2)
  same=same
  cmp -s "$out" "$tmp/$ff_name.report" || { same="DIFFERENT"; status=1; }
  speedup=$(awk -v s="$(field built "$s")" -v p="$(field built "$p")" 'BEGIN { printf "%.2f", s / p }')
  ff_line="$ff_name, \"Tree built.\" median of 3: sequential $(fmt %.2f "$(field built "$s")") s,"
  ff_line+=" -ff 2 $(fmt %.2f "$(field built "$p")") s,"
  ff_line+=" speedup $speedup, target >= 1.85: $(awk -v s="$speedup" 'BEGIN { print (s >= 1.85 ? "met" : "MISSED") }');"
  ff_line+=" $same report."
fi

shared=$(awk '{ printf "%.2f", $1 }' /proc/loadavg)
section=$(
  section_header "$root" "Growing against $old_commit"
  echo
  echo "\`brixcmd -f stem -ft stem.test -tstd\`, $old_commit built in the same run, each run on"
  echo "one core; wall time, user CPU time and peak RSS (/usr/bin/time, MB = 2^20 bytes) are"
  echo "medians of 3 runs. Targets are read on the wall ratio; the user CPU ratio is the steadier"
  echo "figure when other work shares the machine."
  echo "led24_1m: \`bench/led24.py 1000000\`; agrawal_1m: the shared set; agrawal_5m/20m:"
  echo "\`bench/agrawal ROWS\` (seed 2). Same report: both builds print byte-identical output."
  echo "Load average when the section was written: $shared (other workers share the 2 cores)."
  echo
  echo "| Set | Rows | Tree size | $old_commit wall, user CPU | $old_commit peak | current wall, user CPU | current peak | wall ratio (user CPU) | peak ratio | same report | targets |"
  echo "|---|---:|---:|---:|---:|---:|---:|---:|---:|---|---|"
  echo "${table#$'\n'}"
  echo
  echo "$per_row"
  echo
  echo "$ff_line"
)
append_results "$root" "$section"
exit $status
