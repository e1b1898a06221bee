#!/usr/bin/env bash
# Vestra against the UCI engines from Debian's packages (ethereal-chess, gnuchess,
# glaurung, toga2), against itself with net 0, the hand-made first network (net0), and
# with two threads against itself with one (threads: one game at a time, so that the
# two-thread side has both cores while it thinks), played in pieces so that a long
# gauntlet survives the end of a session:
#
#   tools/gauntlet.sh [-g GAMES] [-n PIECE] [-t TC] [-c N] [OPPONENT...]
#     -g GAMES   games against each opponent in all (default 200)
#     -n PIECE   games per piece (default 50)
#     -t TC      time control (default 10+0.1);  -c N  games at once (default 2)
#     -e TAG     results of this network with a changed engine (a faster search, say)
#                go to tools/results/<net>-<TAG>/, apart from the earlier engine's
#
# Each finished piece is kept, gzipped, in tools/results/<net>/ (<net>: the first
# 12 hex digits of data/vestra.nnue's SHA-256, so results belong to one network); an
# interrupted piece is played again. Commit that directory to keep the games. Openings
# are taken from tests/data/openings.epd in file order, each piece starting where the
# previous one stopped. Every engine plays on one thread (but the two-thread side of
# threads) with 256 MB of hash. Missing Debian opponents are installed with apt-get.
# Prints the score so far against each opponent (default: all five).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
games=200 piece=50 tc=10+0.1 conc=2 tag=""
while getopts "g:n:t:c:e:" opt; do
  case $opt in
    g) games=$OPTARG ;; n) piece=$OPTARG ;; t) tc=$OPTARG ;; c) conc=$OPTARG ;; e) tag=-$OPTARG ;;
    *) sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
opponents=("$@")
[ ${#opponents[@]} -gt 0 ] || opponents=(ethereal-chess gnuchess glaurung toga2 net0)
. "$root/tools/work-dir.sh"
net=$(sha256sum "$root/data/vestra.nnue" | cut -c1-12)
# A private copy of the engine (made below), so that a rebuild during the gauntlet
# cannot change it.
engine=$work/vestra-$net$tag

declare -A command=(
  [gnuchess]="/usr/games/gnuchess --uci option.Hash=256"
  [glaurung]="/usr/games/glaurung option.Threads=1 option.Hash=256"
  [toga2]="/usr/games/toga2 option.Hash=256"
  [ethereal-chess]="/usr/games/ethereal-chess option.Threads=1 option.Hash=256"
  [net0]="$work/vestra-net0"
  [threads]="$engine option.Threads=1"
)
[ -f "$root/build/CMakeCache.txt" ] || cmake -S "$root" -B "$root/build" >/dev/null
cmake --build "$root/build" -j2 --target vestra vestra-makenet >/dev/null
for o in "${opponents[@]}"; do
  [ -n "${command[$o]:-}" ] || { echo "unknown opponent $o (ethereal-chess, gnuchess, glaurung, toga2, net0, threads)"; exit 2; }
  if [ "$o" = net0 ]; then
    # The image is compiled in, so net 0 gets a build of its own.
    [ -f "$work/gen0.nnue" ] || "$root/build/tools/vestra-makenet" "$work/gen0.nnue" >/dev/null
    cmake -S "$root" -B "$work/build-net0" -DVESTRA_NETWORK="$work/gen0.nnue" -DVESTRA_TESTS=OFF >/dev/null
    cmake --build "$work/build-net0" -j2 --target vestra >/dev/null
    cp "$work/build-net0/vestra" "$work/vestra-net0"
  elif [ "$o" != threads ] && [ ! -x "/usr/games/$o" ]; then
    apt-get install -y "$o" >/dev/null
  fi
done

results=$root/tools/results/$net$tag
mkdir -p "$results"
cp "$root/build/vestra" "$engine"

played() {  # games in the finished pieces against $1
  local n=0 f
  for f in "$results/$1"-*.pgn.gz; do
    [ -e "$f" ] && n=$((n + $(zcat "$f" | grep -c '^\[Result ')))
  done
  echo $n
}

for o in "${opponents[@]}"; do
  while :; do
    done_games=$(played "$o")
    [ "$done_games" -lt "$games" ] || break
    n=$((games - done_games < piece ? games - done_games : piece))
    start=$((done_games / 2 + 1))
    pgn=$work/gauntlet-$net$tag-$o-$start.pgn
    rm -f "$pgn"
    echo "== $o: games $((done_games + 1)) to $((done_games + n)), openings from $start"
    first=() c=$conc
    [ "$o" = threads ] && first=(-o option.Threads=2) c=1
    "$root/tools/match.sh" -g "$n" -t "$tc" -c "$c" -s "$start" -p "$pgn" "${first[@]}" \
      "$engine" "${command[$o]}" | grep -E '^(Elo|Games)|loses on time|illegal|disconnect|crash' || true
    got=$(grep -c '^\[Result ' "$pgn" || true)
    [ "$got" -ge "$n" ] || { echo "piece ended after $got of $n games"; exit 1; }
    gzip -c "$pgn" > "$results/$o-$(printf %04d "$start").pgn.gz"
  done
done
for o in "${opponents[@]}"; do
  ls "$results/$o"-*.pgn.gz >/dev/null 2>&1 && "$root/tools/match-score.py" "$results/$o"-*.pgn.gz
done
