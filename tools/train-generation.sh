#!/usr/bin/env bash
# One generation of the network, step by step (each step can be rerun or resumed):
#
#   tools/train-generation.sh N data  [POSITIONS] [DEPTH]   self-play with net N-1
#   tools/train-generation.sh N train [EPOCHS] [extra vestra-train options...]
#   tools/train-generation.sh N match [GAMES] [TC]           net N against net N-1
#   tools/train-generation.sh N accept                       copy net N to data/vestra.nnue
#
# Net 0 is the hand-made first network (tools/NETWORK.md); net N lives in
# tools/work/genN/net.nnue once trained, and tools/work/genN.nnue once accepted.
# Engines and tools with a given image are built in build directories of their own
# under tools/work (the image is compiled in), so the worktree's data/ stays untouched
# until `accept`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$root/tools/work
[ $# -ge 2 ] || { sed -n '2,9p' "$0"; exit 2; }
gen=$1 step=$2
shift 2
prev=$((gen - 1))
mkdir -p "$work/gen$gen"
[ -f "$work/gen0.nnue" ] || cp "$root/data/vestra.nnue" "$work/gen0.nnue"

# build_with IMAGE DIR TARGETS...: a Release build whose program carries IMAGE.
build_with() {
  local image=$1 dir=$2
  shift 2
  cmake -S "$root" -B "$dir" -DVESTRA_NETWORK="$image" -DVESTRA_TESTS=OFF >/dev/null
  cmake --build "$dir" -j2 --target "$@" >/dev/null
}

case $step in
  data)
    positions=${1:-400000} depth=${2:-7}
    build_with "$work/gen$prev.nnue" "$work/build-gen$prev" vestra-datagen
    # A private copy, so that a rebuild cannot pull the program from under a long run.
    cp "$work/build-gen$prev/tools/vestra-datagen" "$work/gen$gen/vestra-datagen"
    "$work/gen$gen/vestra-datagen" --out "$work/gen$gen/data" --positions "$positions" --depth "$depth" \
      --seed "$gen"
    ;;
  train)
    epochs=${1:-12}
    shift || true
    build_with "$work/gen$prev.nnue" "$work/build-gen$prev" vestra-train vestra-netcompare
    resume=()
    [ -f "$work/gen$gen/net.ckpt" ] && resume=(--resume)
    "$work/build-gen$prev/tools/vestra-train" --out "$work/gen$gen/net" --epochs "$epochs" "${resume[@]}" "$@" \
      "$work/gen$gen"/data/part-*.bin
    "$work/build-gen$prev/tools/vestra-netcompare" --ckpt "$work/gen$gen/net.ckpt" --net "$work/gen$gen/net.nnue" \
      "$work/gen$gen"/data/part-*.bin
    ;;
  match)
    games=${1:-400} tc=${2:-10+0.1}
    build_with "$work/gen$gen/net.nnue" "$work/build-gen$gen" vestra
    build_with "$work/gen$prev.nnue" "$work/build-gen$prev" vestra
    mkdir -p "$work/gen$gen/engines"
    cp "$work/build-gen$gen/vestra" "$work/gen$gen/engines/vestra-gen$gen"
    cp "$work/build-gen$prev/vestra" "$work/gen$gen/engines/vestra-gen$prev"
    "$root/tools/match.sh" -g "$games" -t "$tc" -c 1 -p "$work/gen$gen/match-$tc.pgn" \
      "$work/gen$gen/engines/vestra-gen$gen" "$work/gen$gen/engines/vestra-gen$prev"
    ;;
  accept)
    cp "$work/gen$gen/net.nnue" "$work/gen$gen.nnue"
    cp "$work/gen$gen/net.nnue" "$root/data/vestra.nnue"
    echo "data/vestra.nnue is now net $gen; rebuild the engine and commit it"
    ;;
  *)
    sed -n '2,9p' "$0"
    exit 2
    ;;
esac
