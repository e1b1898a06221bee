#!/usr/bin/env bash
# Plays a match or gauntlet with fastchess and prints the result.
#
#   tools/match.sh [options] ENGINE_A ENGINE_B [ENGINE_C ...]
#     -g GAMES      games against each opponent (default 100, rounded up to pairs)
#     -t TC         time control, fastchess syntax (default 1+0.01)
#     -c N          games at once (default 1)
#     -o "OPTS"     UCI options for the first engine, e.g. "option.Threads=2"
#     -p FILE       PGN output (default tools/work/match-<time>.pgn)
#     -s N          openings in file order from the Nth (default: random order), so a
#                   long match can be played in pieces without repeating openings
#     -S "E0 E1"    stop early by a sequential probability ratio test of Elo E0 against
#                   E1 (alpha = beta = 0.05); -g is then the most games
#     -m MODEL      Elo of -S: logistic (default) or normalized
#     -b FILE       openings (EPD), default tests/data/openings.epd; for two nets of
#                   nearly equal strength tests/data/openings-unbalanced.epd draws less
#   ENGINE is a path to a UCI binary, optionally with arguments and UCI options of its
#   own: "path [args] [option.NAME=VALUE...]" (e.g. "/usr/games/glaurung option.Threads=1")
#
# The first engine plays every other one (a gauntlet). Openings are played in random
# order unless -s is given, each with both colours.
# FASTCHESS may point at the runner; by default ../shared/tools/fastchess is used.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
fastchess=${FASTCHESS:-$root/../shared/tools/fastchess}
games=100 tc=1+0.01 concurrency=1 first_opts="" pgn="" order=(order=random) sprt=() model=logistic
book=$root/tests/data/openings.epd
while getopts "g:t:c:o:p:s:S:m:b:" opt; do
  case $opt in
    g) games=$OPTARG ;; t) tc=$OPTARG ;; c) concurrency=$OPTARG ;;
    o) first_opts=$OPTARG ;; p) pgn=$OPTARG ;; s) order=(order=sequential "start=$OPTARG") ;;
    S) read -r e0 e1 <<< "$OPTARG" ;;
    m) model=$OPTARG ;;
    b) book=$(realpath "$OPTARG") ;;
    *) sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -ge 2 ] || { sed -n '2,/^[^#]/{/^#/p}' "$0"; exit 2; }
[ -n "${e0:-}" ] && sprt=(-sprt "elo0=$e0" "elo1=$e1" alpha=0.05 beta=0.05 "model=$model")
[ -f "$book" ] || { echo "no openings file $book"; exit 2; }
[ -x "$fastchess" ] || { echo "fastchess not found at $fastchess (set FASTCHESS)"; exit 2; }
. "$root/tools/work-dir.sh"
pgn=${pgn:-$work/match-$(date +%Y%m%d-%H%M%S).pgn}
case $pgn in /*) ;; *) pgn=$PWD/$pgn ;; esac

engine_args=()
i=0
for e in "$@"; do
  read -r -a words <<< "$e"
  cmd=${words[0]} args="" opts=()
  for w in "${words[@]:1}"; do
    case $w in option.*) opts+=("$w") ;; *) args+="${args:+ }$w" ;; esac
  done
  [ -e "$cmd" ] && cmd=$(cd "$(dirname "$cmd")" && pwd)/$(basename "$cmd")
  name=$(basename "$cmd")-$i
  entry=(-engine "cmd=$cmd" "name=$name")
  [ -n "$args" ] && entry+=("args=$args")
  entry+=("${opts[@]}")
  if [ $i -eq 0 ] && [ -n "$first_opts" ]; then
    for o in $first_opts; do entry+=("$o"); done
  fi
  engine_args+=("${entry[@]}")
  i=$((i + 1))
done

rounds=$(( (games + 1) / 2 ))
# fastchess leaves a config.json in its working directory: keep it in tools/work.
cd "$work"
log=${pgn%.pgn}.log
: > "$log"
# The runner gets a process group of its own, and the group goes when the script does:
# an engine it leaves behind (it has been seen to vanish when gnuchess crashed) would
# otherwise keep the log's pipe open, and the match would wait on it for ever.
setsid "$fastchess" "${engine_args[@]}" -each tc="$tc" proto=uci \
  -tournament gauntlet -seeds 1 -rounds "$rounds" -games 2 -repeat \
  -concurrency "$concurrency" -recover "${sprt[@]}" \
  -openings file="$book" format=epd "${order[@]}" \
  -pgnout file="$pgn" > "$log" 2>&1 < /dev/null &
runner=$!
# The runner's process group, for a caller that stops the match early (kill -- -PID).
echo $runner > "${pgn%.pgn}.pid"
trap 'kill -- -$runner 2>/dev/null || true; rm -f "${pgn%.pgn}.pid"' EXIT
trap 'exit 130' INT TERM
tail -n +1 -f --pid=$runner "$log" | grep --line-buffered -E -i '^(Results of|Elo|Games|Ptnml|LOS|LLR)|loses on time|timeout|illegal|disconnect|crash|Finished' || true
wait $runner || true
echo "PGN: $pgn"
echo "log: $log"
