#!/usr/bin/env bash
# Runs one fuzz target for a bounded time on top of its seeds, as a ctest test:
#   run_fuzz_target.sh <target program> <seconds> <work directory> <seed directory>...
# New inputs the fuzzer finds go to the work directory (kept between runs in the build
# tree); a crash, leak, hang or sanitizer finding makes the test fail. The run's whole
# output stays in <work directory>/last-run.log; its coverage line and its end are shown.
set -uo pipefail
target=$1 seconds=$2 work=$3
shift 3
seeds=()
for dir in "$@"; do [ -d "$dir" ] && seeds+=("$dir"); done
mkdir -p "$work/corpus"
cd "$work" || exit 1
"$target" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
  "$work/corpus" "${seeds[@]}" >"$work/last-run.log" 2>&1
status=$?
grep -E '^#[0-9]+[[:space:]]+DONE' "$work/last-run.log" | tail -n 1
tail -n 40 "$work/last-run.log"
exit "$status"
