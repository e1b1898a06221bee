#!/usr/bin/env bash
# Pilots a generation's records as they stand, while self-play may still be adding to
# them: each part is cut into its first 95 % and its last 5 % (whole records), four
# candidates are trained side by side on the heads from PARENT at idle priority, and
# the parent and each of them are scored on the tails, games that none has seen.
#
#   tools/pilot.sh [--seed N] GEN[+GEN...] PARENT OUT_DIR [EPOCHS]
#
# Several generations joined by + (26+27) are cut and trained on together, each of their
# parts with a 5 % tail of its own; every image is then scored on the newest generation's
# tails alone as well, the games of the net that played it, where a gain counts most.
#
# The cut is made once: when OUT_DIR already holds heads and tails they are trained and
# scored on again, so that `--seed 2` (runs named Fs2, RK4s2, RK4L10s2, RK4L85s2) repeats
# the four on the same games while the generation grows. A recipe is judged on two seeds
# at least.
#
#   F     the dense layers only, the first layer frozen
#   RK4   both kinds of first-layer row as well, each held near PARENT by an anchor
#   RK4L10  RK4 on the search scores alone: with three tenths of result, RK4's gain on
#         generation 26 was nearly all in the outcomes of games played at depth 6
#   RK4L85  RK4 with three twentieths of result, between the two: on generation 29's
#         depth-12 scores it gained on the scores and the results at once
#
# All at the chain's scale (`--scale 204`, scores times 0.94 to hold the drift; see
# tools/TRAINING.md, *Evaluation scale*), F and RK4 with three tenths of game result.
# SCORE_SCALE replaces the 0.94 for records played by a net of another size: for a
# player that is PARENT with its output times X, 0.94 / X brings them to PARENT's.
# Prints each one's held-out losses, then every image (PARENT's too) scored on the tails
# against that target, the scores alone and the results alone, the SHA-256 of its best
# image, how much of the first layer moved and how large its evaluations are against
# PARENT's.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/pilot-common.sh"

IFS=+ read -ra gen_list <<< "$gens"
earlier=" (cut earlier)"
if ! compgen -G "$out/head-*.bin" > /dev/null; then
  earlier=
  for gen in "${gen_list[@]}"; do
    # A single generation keeps the names of the cuts made before several could be.
    prefix=
    [ ${#gen_list[@]} -eq 1 ] || prefix=g$gen-
    for part in "$work/gen$gen"/data/part-*.bin; do
      p=$prefix$(basename "$part" .bin)
      n=$(($(stat -c %s "$part") / 32))
      h=$((n * 95 / 100))
      head -c $((h * 32)) "$part" > "$out/head-$p.bin"
      # head reads the file and tail the pipe, so a part that self-play is still
      # growing cannot end the pipe early.
      head -c $((n * 32)) "$part" | tail -c +$((h * 32 + 1)) > "$out/tail-$p.bin"
    done
  done
fi
heads=() held=()
for h in "$out"/head-*.bin; do
  p=${h#"$out/head-"}
  t=$out/tail-$p
  [ -f "$t" ] || { echo "$h has no tail $t"; exit 1; }
  heads+=("$h")
  held+=(--held-out "$t")
  echo "${p%.bin}: $(($(stat -c %s "$h") / 32)) records for training," \
    "$(($(stat -c %s "$t") / 32)) held out$earlier"
done

common=(--init "$parent" "${train_common[@]}")
runs=() pids=()
train() {
  local name=$1$suffix; shift
  "$root/tools/idle.sh" "$bin/vestra-train" --out "$out/$name" "${common[@]}" "$@" \
    "${heads[@]}" "${held[@]}" > "$out/$name.log" 2>&1 &
  runs+=("$name") pids+=($!)
}
train F "${recipe_f[@]}"
train RK4 "${recipe_rk4[@]}"
train RK4L10 "${recipe_rk4[@]}" --lambda 1.0
train RK4L85 "${recipe_rk4[@]}" --lambda 0.85
# Waiting on each job by its own pid hands a failed training's status to set -e, instead of
# going on to score images that were never written.
for i in "${!runs[@]}"; do
  wait "${pids[i]}" || { echo "${runs[i]} failed: $out/${runs[i]}.log"; exit 1; }
done

first_tail=${held[1]}
newest=()
if [ ${#gen_list[@]} -gt 1 ]; then
  for t in "$out/tail-g${gen_list[-1]}"-*.bin; do newest+=(--held-out "$t"); done
fi
# three_losses IMAGE [TAIL_ARGS...]: its losses against 0.7, the scores alone and the results
# alone, on those tails (all of them by default).
three_losses() {
  local image=$1; shift
  echo "against 0.7 $(score "$image" 0.7 "$@"), the scores alone $(score "$image" 1 "$@")," \
    "the results alone $(score "$image" 0 "$@")"
}
# on_newest IMAGE: the same three on the newest generation's tails alone.
on_newest() {
  [ ${#newest[@]} -gt 0 ] || return 0
  echo "  on generation ${gen_list[-1]}'s tails alone: $(three_losses "$1" "${newest[@]}")"
}
echo "held-out loss on the tails: $(grep -m1 'at start' "$out/F$suffix.log" | awk '{print $NF}') for the parent"
echo "parent against the scores alone $(score "$parent" 1), the results alone $(score "$parent" 0)"
on_newest "$parent"
for run in "${runs[@]}"; do
  losses=$(awk '/^epoch [0-9]+ +lr/ {for (i = 1; i < NF; ++i) if ($i == "quantised") print $(i + 1)}' \
    "$out/$run.log" | paste -sd' ')
  image=$out/$run-best.nnue
  moved=$("$bin/vestra-net" --net "$parent" --diff "$image" | awk '/^(feature|castling)_/ {n += $4} END {print n + 0}')
  ratio=$("$bin/vestra-net" --net "$parent" --ratio "$image" "$first_tail" |
    sed -n 's/.*evaluations are \([0-9.]*\) times.*/\1/p')
  echo "$run: quantised held-out loss by epoch $losses; best image $(sha256sum "$image" | cut -c1-12);" \
    "$(three_losses "$image");" \
    "first-layer values moved $moved; evaluations $ratio times the parent's"
  on_newest "$image"
done
