#!/usr/bin/env bash
# Draws tools/generations.png from tools/results/generations.csv: each accepted net's
# Elo over net 0 (the acceptance matches chained, their 95% errors added in quadrature,
# and any direct match against net 0), and each net's held-out loss beside its parent's
# on the same records. Needs gnuplot (installed with apt-get when missing).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
csv=$root/tools/results/generations.csv
out=${1:-$root/tools/generations.png}
command -v gnuplot >/dev/null || apt-get install -y gnuplot-nox >/dev/null
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
# Chained Elo: net N over net 0 is the sum of the steps from net 0 to net N.
awk -F, '!/^#/ && $1 ~ /^[0-9]+$/ {
  sum += $3; var += $4 * $4
  printf "%s %.1f %.1f %s %s %s %s %s\n", $1, sum, sqrt(var), $7, $8, ($9 == "" ? "NaN" : $9), ($10 == "" ? "NaN" : $10), $3
}' "$csv" > "$tmp/chain.dat"
gnuplot <<GP
set terminal pngcairo size 1000,420 font "Sans,10"
set output "$out"
set multiplot layout 1,2 title "Vestra's networks by generation"
set grid
set xlabel "net"
set xtics 1
set key top left
set ylabel "Elo over net 0"
plot [2.5:*][0:*] "$tmp/chain.dat" using 1:2:3 with yerrorlines lw 2 pt 7 title "acceptance matches chained (95%)", \
     "" using (\$1+0.1):6:7 with yerrorbars pt 5 ps 1.2 lw 2 title "direct match against net 0 (95%)"
set ylabel "held-out loss (own records)"
set key top right
set style data histograms
set style histogram clustered gap 1
set style fill solid 0.8 border -1
set boxwidth 0.9
plot [][0:*] "$tmp/chain.dat" using 5:xtic(1) title "previous net", "" using 4 title "this net"
unset multiplot
GP
echo "$out"
