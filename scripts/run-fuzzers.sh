#!/usr/bin/env bash
# Runs every libFuzzer target in a folder for a bounded time each, seeded
# with its checked-in corpus. New inputs go to a work corpus beside the
# build, crashes to build-fuzz/crashes/. Exits non-zero when a target crashed.
# With target names, only those run, in that order.
#   run-fuzzers.sh BIN_DIR SECONDS [RUNS [TARGET...]]
set -uo pipefail
bin_dir=$(cd "$1" && pwd)
seconds=$2
runs=${3:-}
shift $(($# < 3 ? $# : 3))
fuzzers=()
if [ $# -gt 0 ]; then
  for name in "$@"; do
    [ -x "$bin_dir/$name" ] || { echo "no fuzz target $name in $bin_dir" >&2; exit 2; }
    fuzzers+=("$bin_dir/$name")
  done
else
  fuzzers=("$bin_dir"/*Fuzz)
fi
top=$(cd "$(dirname "$0")/.." && pwd)
work=$(cd "$bin_dir/.." && pwd)
mkdir -p "$work/crashes"
failed=0
for fuzzer in "${fuzzers[@]}"; do
  name=$(basename "$fuzzer")
  corpus="$work/corpus/$name"
  mkdir -p "$corpus"
  cp -n "$top/tests/fuzz/corpus/$name"/* "$corpus"/ 2>/dev/null
  limits=(-max_total_time="$seconds" -rss_limit_mb=4096 -timeout=30 -print_final_stats=1)
  [ -n "$runs" ] && limits+=(-runs="$runs")
  echo "== $name"
  if ! (cd "$work/crashes" && NO_AT_BRIDGE=1 "$fuzzer" "${limits[@]}" \
        -artifact_prefix="$work/crashes/$name-" "$corpus" 2>"$work/$name.log"); then
    echo "   CRASH: see $work/$name.log and $work/crashes/"
    failed=1
  fi
  grep -E '^stat::number_of_executed_units|^stat::average_exec_per_sec|^stat::peak_rss_mb|^#[0-9]+.*DONE|^Done [0-9]+ runs' "$work/$name.log" |
    sed 's/^/   /'
done
exit $failed
