# Sourced by tools/pilot.sh and tools/stream-pilot.sh: reads their common arguments,
# [--seed N] GENS PARENT OUT_DIR [EPOCHS], into seed, gens, parent, out and epochs, and
# sets score_scale (SCORE_SCALE, default 0.94), bin, work and suffix (the run names'
# ending for a seed other than 1). Expects root; prints the caller's usage when
# arguments are missing.
. "$root/tools/work-dir.sh"
seed=1
if [ "${1:-}" = --seed ]; then seed=${2:?--seed needs a number}; shift 2; fi
[ $# -ge 3 ] || { sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2; }
gens=$1 parent=$(realpath "$2") out=$3 epochs=${4:-2}
score_scale=${SCORE_SCALE:-0.94}
bin=$root/build/tools
suffix=
[ "$seed" = 1 ] || suffix=s$seed
mkdir -p "$out"
