#!/usr/bin/env bash
# Restarts the self-play of every generation listed in tools/datagen-jobs.txt whose
# records are missing or short, in the background at idle priority, so that matches and
# builds keep the cores. Run it first thing on a machine: a generation's records are
# bulk data that does not survive a change of machine, but the line in datagen-jobs.txt,
# the parent net in git and the seed make the same games again.
#
#   tools/resume-data.sh [GEN...]      (default: the last line of datagen-jobs.txt)
#
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

for g in "${gens[@]}"; do
  gen="" extra="" && read -r gen positions depth workers seed parent extra < <(awk -v g="$g" '$1 == g && !/^#/' "$jobs") || true
  [ -n "${gen:-}" ] || { echo "generation $g is not in $jobs"; exit 2; }
  have=0
  for f in "$work/gen$gen"/data/part-*.bin; do [ -f "$f" ] && have=$((have + $(stat -c %s "$f") / 32)); done
  if [ "$have" -ge "$positions" ]; then
    echo "gen $gen: $have of $positions records, complete"
    continue
  fi
  if pgrep -f "gen$gen/vestra-datagen" >/dev/null; then
    echo "gen $gen: $have of $positions records, already running"
    continue
  fi
  # The parent is kept beside the records, not as tools/work/gen<N-1>.nnue: a generation
  # may be played by an older net than N-1 (one started before net N-1 was accepted),
  # and overwriting the accepted net N-1 would make every later match play the wrong one.
  mkdir -p "$work/gen$gen"
  parent_net=$work/gen$gen/parent.nnue
  if [ ! -f "$parent_net" ] || [ "$(sha256sum "$parent_net" | cut -c1-12)" != "$parent" ]; then
    find_net "$parent" "$parent_net.tmp" || { echo "gen $gen: no image $parent in tools/work or git"; exit 1; }
    mv "$parent_net.tmp" "$parent_net"
  fi
  echo "gen $gen: $have of $positions records, restarting (log: tools/work/gen$gen/data.log)"
  PREV_NET=$parent_net nohup "$root/tools/idle.sh" "$root/tools/train-generation.sh" "$gen" data "$positions" "$depth" \
    "$workers" "$seed" ${extra:-} >> "$work/gen$gen/data.log" 2>&1 < /dev/null &
done
