#!/usr/bin/env bash
# Runs libFuzzer targets for a fixed time each and prints one verdict line per target:
#   tools/fuzz.sh [-t SECONDS] [-b BUILD_DIR] [TARGET ...]
# Targets: fen moves search book network tb uci (default: all). Each starts from the committed
# seeds in fuzz/corpus/TARGET plus what earlier runs added in BUILD_DIR/corpus/TARGET;
# a crashing input lands in BUILD_DIR/artifacts/TARGET/. Exit status 1 if any target
# crashed, hung or leaked.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=60 build=$root/build-fuzz
while getopts "t:b:" opt; do
  case $opt in t) seconds=$OPTARG ;; b) build=$OPTARG ;; *) sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2 ;; esac
done
shift $((OPTIND - 1))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(fen moves search book network tb uci)
[ -x "$build/fuzz/fuzz_fen" ] || JOBS=${JOBS:-2} "$root/tools/build-fuzz.sh" "$build" >/dev/null || exit 1

failed=0
for t in "${targets[@]}"; do
  bin=$build/fuzz/fuzz_$t
  [ -x "$bin" ] || { echo "fuzz $t: FAIL (no target $bin)"; failed=1; continue; }
  corpus=$build/corpus/$t artifacts=$build/artifacts/$t
  mkdir -p "$corpus" "$artifacts"
  before=$(ls "$artifacts" | wc -l)
  log=$build/fuzz-$t.log
  extra=()
  case $t in
    tb) extra=(-max_len=16384) ;;
    network) extra=(-max_len=20000) ;;
    uci) extra=(-max_len=4096) ;;
  esac
  # The engine's own messages (corrupt tables, replies) go to a closed stdout/stderr;
  # libFuzzer keeps its reports on a duplicate of stderr.
  ASAN_OPTIONS=detect_leaks=1:allocator_may_return_null=1 UBSAN_OPTIONS=print_stacktrace=1 \
    "$bin" "$corpus" "$root/fuzz/corpus/$t" -max_total_time="$seconds" -timeout=20 -rss_limit_mb=4096 \
    -close_fd_mask=3 -artifact_prefix="$artifacts/" -print_final_stats=1 "${extra[@]}" >"$log" 2>&1
  rc=$?
  runs=$(grep -E '^stat::number_of_executed_units' "$log" | awk '{print $2}' | tail -1)
  after=$(ls "$artifacts" | wc -l)
  found=$((after - before))
  if [ $rc -ne 0 ] || [ "$found" -gt 0 ]; then
    failed=1
    echo "fuzz $t: FAIL (${runs:-?} executions in ${seconds}s, $found new crash/hang files in $artifacts, log $log)"
  else
    echo "fuzz $t: PASS (${runs:-?} executions in ${seconds}s, 0 crashes)"
  fi
done
exit $failed
