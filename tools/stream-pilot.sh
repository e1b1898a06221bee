#!/usr/bin/env bash
# Asks whether what a net learns from one session's games survives the next session's
# training, so that a chain of nets can carry the games of many machines in its weights
# when the records themselves are lost with each machine. The last part of a generation
# (the games of its last worker) is held out whole as T, so that the small gains of a
# session's games are measured on tens of thousands of games instead of a 5 % tail; every
# other part is cut into A (its first half) and B (the rest). Then, for the recipes F
# and RK4 of tools/pilot.sh:
#
#   A     PARENT trained on A alone
#   A>B   A's best image trained on B alone, as the next session would train it
#   AB    PARENT trained on A and B together, which no session can do once A is gone
#
# and PARENT and every image are scored on T, games that none of them has seen. If A>B
# gains on A about as much as AB does, a chain trained one session at a time loses
# little against keeping every session's records. Each run keeps the image of its best
# epoch on T, its starting image included, so none scores worse than where it started;
# the epochs' own losses are in OUT_DIR/<run>.log.
#
#   tools/stream-pilot.sh [--seed N] GEN PARENT OUT_DIR [EPOCHS]
#
# SCORE_SCALE as in tools/pilot.sh (0.94 by default; 0.94 / X for a player that is a net
# of X times PARENT's size).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tools/pilot-common.sh"
gen=$gens

# The cut is made once, so that a second seed trains on the same games.
if ! compgen -G "$out/A-*.bin" > /dev/null; then
  parts=("$work/gen$gen"/data/part-*.bin)
  [ ${#parts[@]} -ge 2 ] || { echo "generation $gen needs two parts or more"; exit 1; }
  for part in "${parts[@]}"; do
    p=$(basename "$part" .bin)
    n=$(($(stat -c %s "$part") / 32))
    # head reads the file and tail the pipe, so a part that self-play is still growing
    # cannot end the pipe early.
    if [ "$part" = "${parts[-1]}" ]; then
      head -c $((n * 32)) "$part" > "$out/T-$p.bin"
      continue
    fi
    a=$((n / 2))
    head -c $((a * 32)) "$part" > "$out/A-$p.bin"
    head -c $((n * 32)) "$part" | tail -c +$((a * 32 + 1)) > "$out/B-$p.bin"
  done
fi
held=()
for t in "$out"/T-*.bin; do held+=(--held-out "$t"); done
a_files=("$out"/A-*.bin) b_files=("$out"/B-*.bin)
records() { local n=0 f; for f; do n=$((n + $(stat -c %s "$f") / 32)); done; echo "$n"; }
echo "A: $(records "${a_files[@]}") records, B: $(records "${b_files[@]}"), T: $(records "$out"/T-*.bin)"

# train NAME INIT RECIPE... -- FILES...: one run at idle priority, in the background.
pids=() names=()
train() {
  local name=$1$suffix init=$2; shift 2
  local args=()
  while [ "$1" != -- ]; do args+=("$1"); shift; done
  shift
  "$root/tools/idle.sh" "$bin/vestra-train" --out "$out/$name" --init "$init" "${train_common[@]}" \
    "${args[@]}" "$@" "${held[@]}" > "$out/$name.log" 2>&1 &
  pids+=($!) names+=("$name")
}
wait_all() {
  for i in "${!pids[@]}"; do
    wait "${pids[i]}" || { echo "${names[i]} failed: $out/${names[i]}.log"; exit 1; }
  done
  pids=() names=()
}
train F-A "$parent" "${recipe_f[@]}" -- "${a_files[@]}"
train RK4-A "$parent" "${recipe_rk4[@]}" -- "${a_files[@]}"
wait_all
train F-AB "$parent" "${recipe_f[@]}" -- "${a_files[@]}" "${b_files[@]}"
train F-A-B "$out/F-A$suffix-best.nnue" "${recipe_f[@]}" -- "${b_files[@]}"
wait_all
train RK4-AB "$parent" "${recipe_rk4[@]}" -- "${a_files[@]}" "${b_files[@]}"
train RK4-A-B "$out/RK4-A$suffix-best.nnue" "${recipe_rk4[@]}" -- "${b_files[@]}"
wait_all

echo "on T, against 0.7 / the scores alone:"
echo "  parent $(score "$parent" 0.7) / $(score "$parent" 1)"
for run in F-A F-A-B F-AB RK4-A RK4-A-B RK4-AB; do
  image=$out/$run$suffix-best.nnue
  echo "  ${run/-A-B/-A>B}$suffix $(score "$image" 0.7) / $(score "$image" 1)" \
    "(image $(sha256sum "$image" | cut -c1-12))"
done
