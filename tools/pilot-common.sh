# Sourced by tools/pilot.sh and tools/stream-pilot.sh: reads their common arguments,
# [--seed N] GENS PARENT OUT_DIR [EPOCHS], into seed, gens, parent, out and epochs, and
# sets score_scale (SCORE_SCALE, default 0.94), bin, work and suffix (the run names'
# ending for a seed other than 1). Expects root; prints the caller's usage when
# arguments are missing. Also the recipes both train and the scoring of an image.
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

# Every run at the chain's scale (`--scale 204`, scores times score_scale to hold the
# drift), with three tenths of game result; F trains the dense layers only, RK4 both
# kinds of first-layer row as well, each held near its start by an anchor.
train_common=(--scale 204 --lambda 0.7 --batch 4096 --threads 1 --lr 0.0005 --lr-end 0
              --epochs "$epochs" --score-scale "$score_scale" --seed "$seed")
recipe_f=(--row-lr 0 --shared-lr 0)
recipe_rk4=(--row-lr 1 --shared-lr 1 --row-anchor 4 --shared-anchor 4)

# score IMAGE LAMBDA [TAIL_ARGS...]: the image's quantised loss against that target on
# those held-out files (default: all of the caller's held, a list of --held-out FILE,
# whose first file also stands as the data file that scoring asks for and never trains).
score() {
  local image=$1 lambda=$2; shift 2
  [ $# -gt 0 ] || set -- "${held[@]}"
  "$root/tools/idle.sh" "$bin/vestra-train" --out "$out/score" --init "$image" --scale 204 --lambda "$lambda" \
    --threads 1 --epochs 0 --score-scale "$score_scale" "${held[1]}" "$@" | sed -n 's/^validation loss at start: //p'
}
