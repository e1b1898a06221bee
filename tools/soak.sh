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
    *) sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2 ;;
  esac
done
[ -x "$engine" ] || { echo "match soak: FAIL (no engine at $engine)"; exit 1; }
. "$root/tools/work-dir.sh"
pgn=$work/soak-$(date +%Y%m%d-%H%M%S).pgn
log=${pgn%.pgn}.log
start=$(date +%s)
"$root/tools/match.sh" -g "$games" -t "$tc" -c "$concurrency" -o "option.Threads=2" -p "$pgn" \
  "$engine" "$engine" >"${pgn%.pgn}.summary" 2>&1
rc=$?
if [ ! -f "$pgn" ]; then
  echo "match soak: FAIL (no games played: $(head -1 "${pgn%.pgn}.summary"))"
  exit 1
fi
seconds=$(( $(date +%s) - start ))

count() { local n; n=$(grep -c -E "$1" "$2" 2>/dev/null); echo "${n:-0}"; }
# fastchess logs one line per game: "Finished game N (WHITE vs BLACK): RESULT {reason}";
# the reason names every ending that is not over the board.
played=$(count '^Finished game' "$log")
unfinished=$(count '^Finished game .*\): \*' "$log")
time_losses=$(count '^Finished game .*loses on time' "$log")
illegal=$(count '^Finished game .*(illegal move|Illegal move)' "$log")
disconnects=$(count '^Finished game .*(disconnects|stalls)' "$log")
crashes=$(count 'Engine crashed|is not responsive' "$log")
# Score of the engine with 2 threads (the first one, named ...-0).
score=$(grep -E '^Finished game' "$log" | awk '
  { first_white = $4 ~ /-0$/
    if ($7 == "1-0") { if (first_white) w++; else l++ }
    else if ($7 == "0-1") { if (first_white) l++; else w++ }
    else if ($7 == "1/2-1/2") d++ }
  END { printf "+%d -%d =%d", w, l, d }')
figures="$played of $games games in ${seconds}s (2 threads against 1: $score), $crashes crashes, $time_losses time losses, $illegal illegal moves, $disconnects disconnects/stalls, $unfinished unfinished; pgn $pgn"
if [ $rc -ne 0 ] || [ "$played" -lt "$games" ] || [ $((crashes + time_losses + illegal + disconnects + unfinished)) -gt 0 ]; then
  echo "match soak: FAIL ($figures)"
  exit 1
fi
echo "match soak: PASS ($figures)"
