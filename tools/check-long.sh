#!/usr/bin/env bash
# The long reliability checks, one verdict line each (PASS/FAIL with figures); exit
# status 1 if any check failed. Hours with every part at its default size.
#
#   tools/check-long.sh [PART ...]
#   parts: asan tsan perft soak fuzz match   (default: all, in this order)
#     asan   AddressSanitizer+UBSan build (build-asan/), the whole test suite under it
#     tsan   ThreadSanitizer build (build-tsan/), the whole test suite under it
#     perft  full-depth perft of every reference position (release build, build/)
#     soak   multi-threaded search soak (vestra-soak) on the tsan, asan and release
#            engines: SOAK_CYCLES (default 200) go/stop cycles each, sanitizer engines a
#            quarter of that, up to SOAK_THREADS (default 2) threads
#     fuzz   each libFuzzer target for FUZZ_SECONDS (default 60) (build-fuzz/, clang)
#     match  MATCH_GAMES (default 1000) games at 1+0.01 against itself, 2 threads on
#            one side (tools/soak.sh, fastchess)
# JOBS sets the build parallelism (default 2).
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
jobs=${JOBS:-2}
parts=("$@")
[ ${#parts[@]} -gt 0 ] || parts=(asan tsan perft soak fuzz match)
. "$root/tools/work-dir.sh"
log_dir=$work/check-long
mkdir -p "$log_dir"
failed=0

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export TSAN_OPTIONS=${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}

verdict() {  # NAME STATUS FIGURES
  if [ "$2" -eq 0 ]; then echo "$1: PASS ($3)"; else echo "$1: FAIL ($3)"; failed=1; fi
}

build() {  # DIR CMAKE_ARGS...
  local dir=$1
  shift
  cmake -B "$dir" -DVESTRA_WERROR=ON "$@" >"$log_dir/$(basename "$dir")-configure.log" 2>&1 &&
    cmake --build "$dir" -j"$jobs" >"$log_dir/$(basename "$dir")-build.log" 2>&1
}

# The whole suite under a sanitizer. A sanitizer build runs several times slower, so a
# test that fails only on a clock deadline is run once more on its own; the verdict
# fails on any sanitizer report and on any test that fails twice.
suite() {  # NAME BUILD_DIR
  local name=$1 dir=$2 log=$log_dir/$1-tests.log rerun=$log_dir/$1-rerun.log
  local t0=$SECONDS
  rm -f "$rerun"
  ctest --test-dir "$dir" --output-on-failure -j"$jobs" >"$log" 2>&1
  local rc=$?
  local summary
  summary=$(grep -E 'tests passed|tests failed' "$log" | tail -1)
  local note=""
  if [ $rc -ne 0 ]; then
    local first
    first=$(sed -n '/The following tests FAILED/,$p' "$log" | grep -E '^\s+[0-9]+ - ' | sed -E 's/^\s+[0-9]+ - ([^ ]+).*/\1/' | tr '\n' ' ')
    ctest --test-dir "$dir" --rerun-failed --output-on-failure -j1 >"$rerun" 2>&1
    rc=$?
    note=", failed then passed alone: ${first% }"
    [ $rc -eq 0 ] || note=", failed twice: $(sed -n '/The following tests FAILED/,$p' "$rerun" | grep -E '^\s+[0-9]+ - ' | sed -E 's/^\s+[0-9]+ - ([^ ]+).*/\1/' | tr '\n' ' ')"
  fi
  local reports
  reports=$(cat "$log" "$rerun" 2>/dev/null | grep -c -E 'ERROR: (AddressSanitizer|LeakSanitizer)|WARNING: ThreadSanitizer|runtime error:')
  [ "$reports" -eq 0 ] || rc=1
  verdict "$name tests" $rc "${summary:-no summary}$note, $reports sanitizer reports, $((SECONDS - t0)) s, log $log"
}

for part in "${parts[@]}"; do
  case $part in
    asan)
      if build build-asan -DVESTRA_SANITIZE=address; then suite asan build-asan
      else verdict "asan tests" 1 "build failed, see $log_dir/build-asan-build.log"; fi ;;
    tsan)
      if build build-tsan -DVESTRA_SANITIZE=thread; then suite tsan build-tsan
      else verdict "tsan tests" 1 "build failed, see $log_dir/build-tsan-build.log"; fi ;;
    perft)
      if ! build build; then verdict perft 1 "build failed"; continue; fi
      t0=$SECONDS
      log=$log_dir/perft.log
      tools/perft-full.sh build >"$log" 2>&1
      rc=$?
      checked=$(grep -o ' OK' "$log" | wc -l)
      wrong=$(grep -o ' FAIL' "$log" | wc -l)
      [ "$wrong" -eq 0 ] || rc=1
      verdict perft $rc "$checked counts right, $wrong wrong, $((SECONDS - t0)) s, log $log" ;;
    soak)
      cycles=${SOAK_CYCLES:-200} threads=${SOAK_THREADS:-2}
      for kind in tsan asan release; do
        case $kind in
          tsan) dir=build-tsan; args=(-DVESTRA_SANITIZE=thread); n=$(( (cycles + 3) / 4 )) ;;
          asan) dir=build-asan; args=(-DVESTRA_SANITIZE=address); n=$(( (cycles + 3) / 4 )) ;;
          release) dir=build; args=(); n=$cycles ;;
        esac
        if ! build "$dir" "${args[@]}"; then verdict "soak $kind" 1 "build failed"; continue; fi
        log=$log_dir/soak-$kind.log
        "$dir/tools/vestra-soak" --cycles "$n" --threads "$threads" --wait-ms 10000 "$dir/vestra" >"$log" 2>&1
        rc=$?
        figures=$(grep -E '^soak: ' "$log" | tail -1 | sed -E 's/^soak: (PASS|FAIL) \((.*)\)$/\2/')
        verdict "soak $kind" $rc "${figures:-no verdict}, log $log"
      done ;;
    fuzz)
      if ! tools/build-fuzz.sh build-fuzz >"$log_dir/build-fuzz.log" 2>&1; then
        verdict fuzz 1 "build failed, see $log_dir/build-fuzz.log"
        continue
      fi
      tools/fuzz.sh -t "${FUZZ_SECONDS:-60}" -b "$root/build-fuzz" || failed=1 ;;
    match)
      if ! build build; then verdict "match soak" 1 "build failed"; continue; fi
      tools/soak.sh -g "${MATCH_GAMES:-1000}" -e "$root/build/vestra" || failed=1 ;;
    *)
      sed -n '2,/^[^#]/{/^#/p}' "$0"
      exit 2 ;;
  esac
done
exit $failed
