#!/usr/bin/env bash
# One generation of the network, step by step (each step can be rerun or resumed):
#
#   tools/train-generation.sh N data  [POSITIONS] [DEPTH] [WORKERS] [SEED] [options...]
#                     self-play with net N-1 (seed N by default; options go to
#                      vestra-datagen, e.g. --balance 160)
#   tools/train-generation.sh N train [EPOCHS] [extra vestra-train options...]
#                     (DATA_GENS="1 2 work/pool6" trains on the records of those
#                      generations or directories; by default on generation N's own;
#                      "21@0.75" scales generation 21's scores by 0.75)
#   tools/train-generation.sh N match [GAMES] [TC] [CONCURRENCY]   net N against net N-1
#                     (SPRT="E0 E1" stops it by a sequential test, GAMES at most, in
#                      Elo of SPRT_MODEL, logistic or normalized; OPENINGS=FILE plays
#                      those openings; CANDIDATE=FILE plays that image instead of net
#                      N's best epoch; a rerun plays a further piece from the openings
#                      not played yet and scores all pieces together)
#   tools/train-generation.sh N accept                       copy net N to data/vestra.nnue
#
# Net 0 is the hand-made first network (tools/NETWORK.md); net N lives in
# tools/work/genN/net-best.nnue once trained, and tools/work/genN.nnue once accepted.
# PREV_NET=FILE replaces net N-1 (e.g. a net that was not accepted but made the data).
# Engines and tools with a given image are built in build directories of their own
# under tools/work, one per image (the image is compiled in), so the worktree's data/
# stays untouched until `accept`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/work-dir.sh"
[ $# -ge 2 ] || { sed -n '2,17p' "$0"; exit 2; }
gen=$1 step=$2
shift 2
prev=$((gen - 1))
mkdir -p "$work/gen$gen"
if [ -z "${PREV_NET:-}" ] && [ ! -f "$work/gen$prev.nnue" ]; then
  # data/vestra.nnue is the latest accepted net, not net 0, so net 0 is made afresh.
  echo "no $work/gen$prev.nnue: net 0 comes from 'build/tools/vestra-makenet $work/gen0.nnue'," \
    "net N from 'tools/train-generation.sh N accept'" >&2
  exit 2
fi
prev_net=$(realpath "${PREV_NET:-$work/gen$prev.nnue}")
# The trainer keeps the epoch with the lowest held-out loss as net-best.nnue; that one
# is the candidate (later epochs may have begun to overfit).
new_net=$work/gen$gen/net.nnue
[ -f "$work/gen$gen/net-best.nnue" ] && new_net=$work/gen$gen/net-best.nnue
[ -n "${CANDIDATE:-}" ] && new_net=$(realpath "$CANDIDATE")

# build_for IMAGE TARGETS...: a Release build whose programs carry IMAGE, in a build
# directory named after the image; prints the directory.
build_for() {
  local image=$1
  shift
  local dir=$work/build-$(realpath --relative-to="$work" "$image" | tr '/.' '--')
  cmake -S "$root" -B "$dir" -DVESTRA_NETWORK="$image" -DVESTRA_TESTS=OFF >/dev/null
  cmake --build "$dir" -j2 --target "$@" >/dev/null
  echo "$dir"
}

case $step in
  data)
    positions=${1:-400000} depth=${2:-7} workers=${3:-1} seed=${4:-$gen}
    shift $(($# < 4 ? $# : 4))
    dir=$(build_for "$prev_net" vestra-datagen)
    # A private copy, so that a rebuild cannot pull the program from under a long run.
    cp "$dir/tools/vestra-datagen" "$work/gen$gen/vestra-datagen"
    "$work/gen$gen/vestra-datagen" --out "$work/gen$gen/data" --positions "$positions" --depth "$depth" \
      --workers "$workers" --seed "$seed" "$@"
    ;;
  train)
    epochs=${1:-12}
    shift || true
    dir=$(build_for "$prev_net" vestra-train vestra-netcompare)
    resume=()
    [ -f "$work/gen$gen/net.ckpt" ] && resume=(--resume)
    files=() data=()
    for g in ${DATA_GENS:-$gen}; do
      # GEN@X: that generation's scores times X (records played at another eval scale)
      factor=1
      [[ $g == *@* ]] && factor=${g#*@} g=${g%@*}
      case $g in
        *[!0-9]*) part=("$root/tools/$g"/data/part-*.bin) ;;   # a directory under tools/
        *) part=("$work/gen$g"/data/part-*.bin) ;;
      esac
      files+=("${part[@]}")
      data+=(--score-scale "$factor" "${part[@]}")
    done
    "$dir/tools/vestra-train" --out "$work/gen$gen/net" --epochs "$epochs" "${resume[@]}" "$@" \
      "${data[@]}"
    "$dir/tools/vestra-netcompare" --ckpt "$work/gen$gen/net.ckpt" --net "$work/gen$gen/net.nnue" \
      "${files[@]}"
    ;;
  match)
    games=${1:-400} tc=${2:-10+0.1} conc=${3:-1}
    new_dir=$(build_for "$new_net" vestra)
    prev_dir=$(build_for "$prev_net" vestra)
    mkdir -p "$work/gen$gen/engines"
    tag=$(sha256sum "$new_net" | cut -c1-8)
    # The opponent's name carries its image too, so a wrong net N-1 shows in every log.
    prev_tag=$(sha256sum "$prev_net" | cut -c1-8)
    echo "candidate $new_net ($tag) against $prev_net ($prev_tag)"
    new_engine=$work/gen$gen/engines/vestra-gen$gen-$tag
    prev_engine=$work/gen$gen/engines/vestra-gen$prev-$prev_tag
    cp "$new_dir/vestra" "$new_engine"
    cp "$prev_dir/vestra" "$prev_engine"
    # A match longer than a session is played in pieces: each run writes piece K+1 from
    # the openings that pieces 1..K did not play, and the pieces are then scored as one.
    # Finished or not, every piece is kept gzipped in tools/results/<candidate>/ (commit
    # it), where a new machine finds it again.
    sfx=$tc${SPRT:+-sprt}
    base=$work/gen$gen/match-$tag-$sfx
    keep=$root/tools/results/$(sha256sum "$new_net" | cut -c1-12)
    keep_name=net$prev-$prev_tag-$sfx
    piece_no() { local n=${1%.pgn*}; echo "${n##*-}"; }   # .../NAME-K.pgn[.gz] -> K
    mkdir -p "$keep"
    for z in "$keep/$keep_name"-*.pgn.gz; do
      p=$base-$(piece_no "$z").pgn
      [ -f "$z" ] && [ ! -f "$p" ] && gunzip -c "$z" > "$p"
    done
    pieces=("$base"-*.pgn)
    [ -f "${pieces[0]}" ] || pieces=()
    book=${OPENINGS:-$root/tests/data/openings.epd}
    if [ ${#pieces[@]} -gt 0 ]; then
      grep -h '^\[FEN' "${pieces[@]}" | cut -d'"' -f2 | sort -u > "$base.played"
      grep -v -x -F -f "$base.played" "$book" > "$base.rest.epd" || true
      book=$base.rest.epd
      echo "piece $((${#pieces[@]} + 1)): $(wc -l < "$book") openings not played by the earlier pieces"
    fi
    piece=$base-$((${#pieces[@]} + 1)).pgn
    # Only this run's piece and pieces never kept are written: a restored piece has a new
    # mtime, which gzip would record, churning the committed copy for nothing.
    save() {
      local p k
      for p in "$base"-*.pgn; do
        k=$keep/$keep_name-$(piece_no "$p").pgn.gz
        [ -s "$p" ] && { [ "$p" = "$piece" ] || [ ! -f "$k" ]; } && gzip -c "$p" > "$k"
      done
      return 0
    }
    match_opts=() score_opts=()
    [ -n "${SPRT:-}" ] && match_opts=(-S "$SPRT" -m "${SPRT_MODEL:-logistic}") score_opts=(--sprt $SPRT)
    [ "${SPRT_MODEL:-}" = normalized ] && score_opts+=(--normalized)
    # fastchess tests this piece's games alone, but the earlier pieces count too, and
    # together they often decide long before this piece would: after each new game a
    # watcher scores all pieces as one, at idle priority so that the engines keep the
    # cores, and stops the runner once they have decided.
    watcher=""
    if [ -n "${SPRT:-}" ] && [ ${#pieces[@]} -gt 0 ]; then
      (
        scored=0
        while sleep 20; do
          [ -s "${piece%.pgn}.pid" ] && [ -s "$piece" ] || continue
          size=$(stat -c %s "$piece")
          [ "$size" != "$scored" ] || continue
          scored=$size
          if "$root/tools/idle.sh" "$root/tools/match-score.py" "${score_opts[@]}" --decided "${pieces[@]}" "$piece" \
            >/dev/null 2>&1; then
            echo "all pieces together have decided: this piece stops here"
            kill -- -"$(cat "${piece%.pgn}.pid")" 2>/dev/null || true
            break
          fi
        done
      ) &
      watcher=$!
    fi
    trap '{ [ -z "$watcher" ] || kill $watcher 2>/dev/null || true; }; save' EXIT
    "$root/tools/match.sh" -g "$games" -t "$tc" -c "$conc" "${match_opts[@]}" -b "$book" -p "$piece" \
      "$new_engine" "$prev_engine" || true
    "$root/tools/match-score.py" "${score_opts[@]}" "$base"-*.pgn
    ;;
  accept)
    cp "$new_net" "$work/gen$gen.nnue"
    cp "$new_net" "$root/data/vestra.nnue"
    echo "data/vestra.nnue is now net $gen; rebuild the engine and commit it"
    ;;
  *)
    sed -n '2,17p' "$0"
    exit 2
    ;;
esac
