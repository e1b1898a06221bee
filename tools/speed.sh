#!/usr/bin/env bash
# Speed report on one machine, in one run: search nodes/s (median of N runs, old and
# new binary alternating when two are given; by the wall clock and by the search
# thread's processor time, which a loaded machine disturbs less; with two binaries also the
# median of the two runs' ratio round by round), the same figure as a ratio to the
# Debian package ethereal-chess's `bench` (a stopwatch only, installed when missing),
# perft times of the start position and Kiwipete, and optionally the thread bench.
#
#   tools/speed.sh [-n RUNS] [-d DEPTH] [--no-ethereal] [--threads] [NEW_BENCH | OLD_BENCH NEW_BENCH]
#
# A BENCH is a vestra-bench binary (default build/tools/vestra-bench); vestra-perft and
# vestra are taken from the same build. With two binaries the node totals of every
# position must agree, or the two builds do not search the same tree.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=5
depth=16
ethereal=1
threads=0
benches=()
while [ $# -gt 0 ]; do
  case $1 in
    -n) runs=$2; shift 2 ;;
    -d) depth=$2; shift 2 ;;
    --no-ethereal) ethereal=0; shift ;;
    --threads) threads=1; shift ;;
    -h|--help) sed -n 2,12p "$0"; exit 0 ;;
    *) benches+=("$1"); shift ;;
  esac
done
[ ${#benches[@]} -gt 0 ] || benches=("$root/build/tools/vestra-bench")
[ ${#benches[@]} -le 2 ] || { echo "at most two bench binaries" >&2; exit 2; }
for b in "${benches[@]}"; do [ -x "$b" ] || { echo "no such binary: $b" >&2; exit 2; }; done

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

median() { sort -n | awk '{ v[NR] = $1 } END { if (NR % 2) print v[(NR + 1) / 2]; else printf "%d\n", (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
# The value that follows the word $1 on each line (bench lines are "... nodes N ... nps R").
field() { awk -v w="$1" '{ for (i = 1; i < NF; ++i) if ($i == w) print $(i + 1) }'; }
spread() { sort -n | awk 'NR == 1 { lo = $1 } { hi = $1 } END { printf "%s-%s", lo, hi }'; }

# Search: alternate the binaries run by run, so that a change in the machine's load
# falls on both alike, and swap their order every round.
for ((r = 1; r <= runs; ++r)); do
  order=("${!benches[@]}")
  [ ${#benches[@]} -eq 1 ] || [ $((r % 2)) = 1 ] || order=(1 0)
  for i in "${order[@]}"; do
    "${benches[$i]}" --depth "$depth" > "$tmp/bench-$i-$r.txt"
    awk '$1 == "total"' "$tmp/bench-$i-$r.txt" | field nps >> "$tmp/nps-$i"
    awk '$1 == "total"' "$tmp/bench-$i-$r.txt" | field cpu-nps >> "$tmp/cpu-$i"
  done
done
label=(new)
[ ${#benches[@]} -eq 2 ] && label=(old new)
for i in "${!benches[@]}"; do
  nodes=$(awk '$1 == "total"' "$tmp/bench-$i-1.txt" | field nodes)
  printf 'vestra-bench %-3s depth %s, %s runs: median %s nodes/s (spread %s), of processor time %s (spread %s), nodes %s  [%s]\n' \
    "${label[$i]}" "$depth" "$runs" "$(median < "$tmp/nps-$i")" "$(spread < "$tmp/nps-$i")" \
    "$(median < "$tmp/cpu-$i")" "$(spread < "$tmp/cpu-$i")" "$nodes" "${benches[$i]}"
done
if [ ${#benches[@]} -eq 2 ]; then
  if diff <(field nodes < "$tmp/bench-0-1.txt") <(field nodes < "$tmp/bench-1-1.txt") > /dev/null; then
    echo "node counts: identical at every position"
  else
    echo "node counts: DIFFERENT, the two builds do not search the same tree"
  fi
  awk -v a="$(median < "$tmp/nps-0")" -v b="$(median < "$tmp/nps-1")" -v c="$(median < "$tmp/cpu-0")" \
    -v d="$(median < "$tmp/cpu-1")" 'BEGIN { printf "new / old: %.3f by the wall clock, %.3f by processor time\n", b / a, d / c }'
  # The two runs of a round lie next to each other in time, so that the ratio within a
  # round sees less of a machine whose speed drifts (a shared one) than the medians do.
  paste "$tmp/cpu-0" "$tmp/cpu-1" | awk '{ print $2 / $1 }' | sort -n | awk '{ v[NR] = $1 }
    END { printf "new / old by rounds (processor time): median %.3f, quartiles %.3f-%.3f over %d rounds\n",
          (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2, v[int((NR + 3) / 4)], v[NR + 1 - int((NR + 3) / 4)], NR }'
fi
new_bench=${benches[${#benches[@]} - 1]}
new_nps=$(median < "$tmp/nps-$(( ${#benches[@]} - 1 ))")

if [ "$ethereal" = 1 ]; then
  eth=$(command -v ethereal-chess || true)
  [ -n "$eth" ] || [ ! -x /usr/games/ethereal-chess ] || eth=/usr/games/ethereal-chess
  if [ -z "$eth" ]; then
    echo "installing ethereal-chess (used as a stopwatch only)" >&2
    if [ "$(id -u)" = 0 ]; then apt-get install -y ethereal-chess > /dev/null; else sudo apt-get install -y ethereal-chess > /dev/null; fi
    eth=$(command -v ethereal-chess || echo /usr/games/ethereal-chess)
  fi
  # Its bench ends with a line "NPS : <nodes per second>".
  for ((r = 1; r <= (runs + 1) / 2; ++r)); do
    "$eth" bench 2>/dev/null | awk '$1 == "NPS" { print $3 }' >> "$tmp/eth"
  done
  eth_nps=$(median < "$tmp/eth")
  awk -v v="$new_nps" -v e="$eth_nps" -v n="$(wc -l < "$tmp/eth")" -v s="$(spread < "$tmp/eth")" 'BEGIN {
    printf "ethereal-chess bench, %d runs: median %d nodes/s (spread %s); vestra / ethereal: %.3f\n", n, e, s, v / e }'
fi

perft=$(dirname "$new_bench")/vestra-perft
if [ -x "$perft" ]; then
  for job in "6|rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1|start position" \
              "5|r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1|Kiwipete"; do
    IFS='|' read -r d fen name <<< "$job"
    # vestra-perft prints "nodes N seconds S nps R"; the best of three runs.
    for r in 1 2 3; do "$perft" "$d" "$fen"; done | sort -k4 -n | head -1 |
      awk -v d="$d" -v name="$name" '{ printf "perft %-14s depth %s: %s nodes, %s s, %d nodes/s (best of 3)\n", name, d, $2, $4, $6 }'
  done
fi

if [ "$threads" = 1 ]; then
  engine=$(dirname "$(dirname "$new_bench")")/vestra
  "$root/tools/thread-bench.sh" "$engine"
fi
