#!/usr/bin/env bash
# Restarts the self-play of every generation listed in tools/datagen-jobs.txt whose
# records are missing or short, in the background at idle priority, so that matches and
# builds keep the cores. Run it first thing on a machine: a generation's records are
# bulk data that does not survive a change of machine, but the line in datagen-jobs.txt,
# the parent net in git and the seed make the same games again.
#
#   tools/resume-data.sh [GEN...]      (default: the last line of datagen-jobs.txt)
#
# Several generations run one after another, in the order given, in one background
# chain (so `tools/resume-data.sh 23 24` moves on to 24 by itself when 23 is complete);
# a generation that another chain is playing is waited for, not started twice.
# Output of each job: tools/work/gen<GEN>/data.log.
# tools/work is a link to VESTRA_WORK (default ~/vestra-work) on a fresh tree
# (tools/work-dir.sh), so a new checkout on the same machine finds the records again.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=$root/tools/datagen-jobs.txt
. "$root/tools/work-dir.sh"
gens=("$@")
[ ${#gens[@]} -gt 0 ] || gens=("$(grep -v '^#' "$jobs" | awk 'NF' | tail -1 | cut -d' ' -f1)")

# find_net PREFIX OUT: writes the image whose SHA-256 starts with PREFIX to OUT, from
# tools/work, from tools/results/<PREFIX>/net.nnue (a net kept without being compiled in)
# or from any commit of data/vestra.nnue.
find_net() {
  local prefix=$1 out=$2 f c
  for f in "$work"/gen*.nnue "$root/tools/results/$prefix/net.nnue" "$root/data/vestra.nnue"; do
    [ -f "$f" ] && [ "$(sha256sum "$f" | cut -c1-12)" = "$prefix" ] && { cp "$f" "$out"; return 0; }
  done
  for c in $(git -C "$root" log --format=%H -- data/vestra.nnue); do
    if [ "$(git -C "$root" show "$c:data/vestra.nnue" | sha256sum | cut -c1-12)" = "$prefix" ]; then
      git -C "$root" show "$c:data/vestra.nnue" > "$out"
      return 0
    fi
  done
  return 1
}

# job_line GEN: sets gen positions depth workers seed parent extra from datagen-jobs.txt.
job_line() {
  gen="" extra="" && read -r gen positions depth workers seed parent extra < <(awk -v g="$1" '$1 == g && !/^#/' "$jobs") || true
  [ -n "${gen:-}" ] || { echo "generation $1 is not in $jobs"; exit 2; }
}
records_of() {
  local have=0 f
  for f in "$work/gen$1"/data/part-*.bin; do [ -f "$f" ] && have=$((have + $(stat -c %s "$f") / 32)); done
  echo "$have"
}

# The chain itself, in the background: each generation in turn, in the foreground here.
if [ "${1:-}" = --chain ]; then
  shift
  # One chain at a time: a second one waits for the first, then finds its generations
  # complete or carries on where the first stopped.
  exec 9>"$work/resume-data.lock"
  flock 9
  for g in "$@"; do
    job_line "$g"
    while pgrep -f "gen$gen/vestra-datagen" >/dev/null; do sleep 60; done
    have=$(records_of "$gen")
    [ "$have" -ge "$positions" ] && continue
    # The parent is kept beside the records, not as tools/work/gen<N-1>.nnue: a generation
    # may be played by an older net than N-1 (one started before net N-1 was accepted),
    # and overwriting the accepted net N-1 would make every later match play the wrong one.
    mkdir -p "$work/gen$gen"
    parent_net=$work/gen$gen/parent.nnue
    if [ ! -f "$parent_net" ] || [ "$(sha256sum "$parent_net" | cut -c1-12)" != "$parent" ]; then
      find_net "$parent" "$parent_net.tmp" || { echo "gen $gen: no image $parent in tools/work or git"; exit 1; }
      mv "$parent_net.tmp" "$parent_net"
    fi
    echo "$(date -u '+%F %T') gen $gen: $have of $positions records, starting" >> "$work/gen$gen/data.log"
    PREV_NET=$parent_net "$root/tools/idle.sh" "$root/tools/train-generation.sh" "$gen" data "$positions" "$depth" \
      "$workers" "$seed" ${extra:-} >> "$work/gen$gen/data.log" 2>&1 < /dev/null || exit 1
  done
  exit 0
fi

chain=()
for g in "${gens[@]}"; do
  job_line "$g"
  have=$(records_of "$gen")
  if [ "$have" -ge "$positions" ]; then
    echo "gen $gen: $have of $positions records, complete"
  elif pgrep -f "gen$gen/vestra-datagen" >/dev/null; then
    echo "gen $gen: $have of $positions records, already running"
    chain+=("$gen")
  else
    echo "gen $gen: $have of $positions records, $([ ${#chain[@]} -eq 0 ] && echo restarting || echo queued)" \
      "(log: tools/work/gen$gen/data.log)"
    chain+=("$gen")
  fi
done
# A chain of only a running generation has nothing left to do.
if [ ${#chain[@]} -gt 1 ] || { [ ${#chain[@]} -eq 1 ] && ! pgrep -f "gen${chain[0]}/vestra-datagen" >/dev/null; }; then
  mkdir -p "$work"
  nohup "$0" --chain "${chain[@]}" >> "$work/resume-data.log" 2>&1 < /dev/null &
fi
