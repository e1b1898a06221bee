#!/usr/bin/env bash
# The include order of the engine's subsystems runs one way only:
#   uci -> search -> eval, book, tb -> board
# A file may include its own directory and the directories below it; any other
# project include is printed and the script fails.
set -euo pipefail
root=${1:-$(cd "$(dirname "$0")/.." && pwd)}
declare -A allowed=(
  [board]="board"
  [eval]="eval board"
  [book]="book board"
  [tb]="tb board"
  [search]="search eval book tb board"
  [uci]="uci search eval book tb board"
)
bad=0
for dir in "${!allowed[@]}"; do
  while IFS=: read -r file _ line; do
    target=$(sed -E 's/.*#include "([^/"]+)\/.*/\1/' <<< "$line")
    case " ${allowed[$dir]} " in
      *" $target "*) ;;
      *) echo "$file includes $target/, above $dir/"; bad=1 ;;
    esac
  done < <(grep -Hn '^#include "[^/"]*/' "$root/$dir"/*.h "$root/$dir"/*.cpp 2>/dev/null || true)
done
[ $bad = 0 ] && echo "include order: one way"
exit $bad
