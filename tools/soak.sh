#!/usr/bin/env bash
# Match soak: Vestra against itself, 2 threads on one side, through fastchess (via
# tools/match.sh), then counts every game that did not end by the rules of chess.
#   tools/soak.sh [-g GAMES] [-t TC] [-e ENGINE] [-c CONCURRENCY]
# Defaults: 1000 games, 1+0.01, build/vestra, 1 game at a time. FASTCHESS may point at
# the runner (default ../shared/tools/fastchess). Prints one verdict line; exit status 1
# on any crash, time loss, illegal move, disconnect or stall, or a short match.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
games=1000 tc=1+0.01 engine=$root/build/vestra concurrency=1
while getopts "g:t:e:c:" opt; do
  case $opt in
    g) games=$OPTARG ;; t) tc=$OPTARG ;; e) engine=$OPTARG ;; c) concurrency=$OPTARG ;;
    *) sed -n '2,8p' "$0"; exit 2 ;;
  esac
done
[ -x "$engine" ] || { echo "match soak: FAIL (no engine at $engine)"; exit 1; }
mkdir -p "$root/tools/work"
pgn=$root/tools/work/soak-$(date +%Y%m%d-%H%M%S).pgn
log=${pgn%.pgn}.log
start=$(date +%s)
"$root/tools/match.sh" -g "$games" -t "$tc" -c "$concurrency" -o "option.Threads=2" -p "$pgn" \
  "$engine" "$engine" >/dev/null
rc=$?
seconds=$(( $(date +%s) - start ))

count() { grep -c -E "$1" "$2" 2>/dev/null || true; }
played=$(count '^\[Result "(1-0|0-1|1/2-1/2)"\]' "$pgn")
unfinished=$(count '^\[Result "\*"\]' "$pgn")
# The PGN names how each game ended; the log has fastchess's own warnings.
time_losses=$(( $(count 'loses on time' "$pgn") ))
illegal=$(( $(count 'illegal move' "$pgn") + $(count '^Warning; Illegal move' "$log") ))
disconnects=$(( $(count 'disconnects|connection stalls' "$pgn") ))
crashes=$(( $(count 'Engine crashed|stalled / disconnected' "$log") ))
white=$(count '^\[Result "1-0"\]' "$pgn") black=$(count '^\[Result "0-1"\]' "$pgn")
draws=$(count '^\[Result "1/2-1/2"\]' "$pgn")

figures="$played of $games games in ${seconds}s (+$white -$black =$draws by colour), $crashes crashes, $time_losses time losses, $illegal illegal moves, $disconnects disconnects/stalls, $unfinished unfinished; pgn $pgn"
if [ $rc -ne 0 ] || [ "$played" -lt "$games" ] || [ $((crashes + time_losses + illegal + disconnects + unfinished)) -gt 0 ]; then
  echo "match soak: FAIL ($figures)"
  exit 1
fi
echo "match soak: PASS ($figures)"
