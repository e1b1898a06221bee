#!/usr/bin/env bash
# Time to depth and nodes per second with 1 and 2 (or more) threads on the ten
# benchmark positions, through the engine's UCI interface.
#
#   tools/thread-bench.sh [-r RUNS] [ENGINE] [DEPTHS] [THREADS...]
#       defaults: 1 run, build/vestra, depth 13, threads 1 2
#
# DEPTHS is one depth or several in quotes ("17 19"): each is searched from a fresh
# table, and the time to depth is summed over them. With several runs the thread
# counts alternate run by run, and the median of the runs' speed-ups is printed too.
# HASH sets the table size in MB (default 256, the engine's default: a smaller table
# costs two threads more than one, as each overwrites the other's entries).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=1
if [ "${1:-}" = -r ]; then runs=$2; shift 2; fi
engine=${1:-$root/build/vestra}
depths=${2:-13}
shift $(( $# > 2 ? 2 : $# ))
threads=("$@")
[ ${#threads[@]} -gt 0 ] || threads=(1 2)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

positions=(
  "1qr3k1/p3bppp/4pn2/1B2n3/N7/P3P2P/1P2QPP1/2R1B2K w - -"
  "2br2k1/r5p1/4p3/5p2/8/pP3B2/1q2RPPP/Q3R1K1 b - -"
  "r5k1/5p2/7p/5qP1/1P1QR3/5P2/r4RK1/8 b - -"
  "r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ -"
  "r2qk2r/3nbpp1/2bBp2p/p3P3/1p6/8/PPPQBPPP/1NKR3R w kq -"
  "3r4/3r2bk/1p4pp/pN2n3/P6P/4Q1P1/1P2B1K1/8 b - h3"
  "6k1/1b2bp2/p3p2p/4P1p1/1pr5/4BP1P/PP2N1P1/3R2K1 b - -"
  "1rr3k1/1q3pp1/pnbQp2p/1p2P3/3B1P2/2PB4/P1P2RPP/R5K1 w - -"
  "2r2rk1/p3qp1p/2b1pp1Q/2b5/1n6/2N2NP1/1P2PPBP/R2R2K1 w - -"
  "8/p4k2/1p3r2/2pPnb2/2Pr3P/PPK3P1/4B1Q1/8 b - -"
)

# One search of every position to depth $2 with $1 threads; prints "ms nodes", the
# time and node count of each search's last full-depth line, summed.
measure() {
  {
    echo "setoption name Threads value $1"
    echo "setoption name Hash value ${HASH:-256}"
    for fen in "${positions[@]}"; do
      echo "ucinewgame"
      echo "position fen $fen"
      echo "go depth $2"
      echo "isready"
    done
    echo "quit"
  } | "$engine" > "$tmp/out.txt"
  awk -v d="$2" '
    $1 == "info" && $5 == d { last_time = $7; last_nodes = $9 }
    $1 == "bestmove" { tt += last_time; nn += last_nodes }
    END { print tt, nn }' "$tmp/out.txt"
}

base=${threads[0]}
for ((r = 1; r <= runs; ++r)); do
  declare -A total_time=() total_nodes=()
  for t in "${threads[@]}"; do
    total_time[$t]=0 total_nodes[$t]=0
    for d in $depths; do
      read -r ms nodes < <(measure "$t" "$d")
      printf 'run %s threads %-3s depth %s: time %6d ms  nodes %10d  nps %9d\n' "$r" "$t" "$d" "$ms" "$nodes" \
        $(( nodes * 1000 / (ms + 1) ))
      total_time[$t]=$(( total_time[$t] + ms )) total_nodes[$t]=$(( total_nodes[$t] + nodes ))
    done
  done
  for t in "${threads[@]}"; do
    [ "$t" = "$base" ] && continue
    awk -v a="${total_time[$base]}" -v b="${total_time[$t]}" -v na="${total_nodes[$base]}" -v nb="${total_nodes[$t]}" \
      -v t="$t" -v base="$base" -v r="$r" -v d="$depths" -v out="$tmp/speedup-$t" 'BEGIN {
        printf "run %s, depths %s: time-to-depth speed-up %s vs %s threads: %.2f; nps ratio: %.2f\n",
          r, d, t, base, a / b, (nb / (b + 1)) / (na / (a + 1))
        print a / b >> out }'
  done
done
if [ "$runs" -gt 1 ]; then
  for t in "${threads[@]}"; do
    [ "$t" = "$base" ] && continue
    sort -n "$tmp/speedup-$t" |
      awk -v t="$t" -v base="$base" -v n="$runs" '{ v[NR] = $1 } END {
        m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
        printf "median of %d runs: time-to-depth speed-up %s vs %s threads: %.2f (spread %.2f-%.2f)\n", n, t, base, m, v[1], v[NR] }'
  done
fi
