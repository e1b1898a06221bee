#!/bin/sh
# Full-depth perft of every reference position (minutes; not part of the test run).
# Usage: tools/perft-full.sh [BUILD_DIR]
set -e
build=${1:-build}
data=$(dirname "$0")/../tests/data
"$build/tools/vestra-perft" --epd "$data/perft_classic.epd"
"$build/tools/vestra-perft" --epd "$data/perft_std.epd"
"$build/tools/vestra-perft" --960 --epd "$data/perft_960.epd"
