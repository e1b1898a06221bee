#!/bin/sh
# Builds the libFuzzer targets of fuzz/ with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer into build-fuzz/ (or BUILD_DIR).
#   tools/build-fuzz.sh [BUILD_DIR]
set -e
cd "$(dirname "$0")/.."
dir=${1:-build-fuzz}
command -v clang++ >/dev/null 2>&1 || tools/install-fuzz-deps.sh
CC=clang CXX=clang++ cmake -B "$dir" -DVESTRA_FUZZ=ON -DVESTRA_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
    -DVESTRA_WERROR=ON >/dev/null
cmake --build "$dir" -j"${JOBS:-2}"
