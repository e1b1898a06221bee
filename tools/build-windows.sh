#!/usr/bin/env bash
# Cross-compiles Vestra for Windows x86-64 with mingw-w64 and leaves
# build-windows/vestra.exe (and build-windows/tools/vestra-perft.exe).
# Installs the cross compiler with apt-get when it is missing.
#   tools/build-windows.sh [BUILD_DIR] [extra cmake arguments, e.g. -DVESTRA_ARCH=portable]
# The default instruction set is avx2 (a .exe is for other machines); build with
# -DVESTRA_ARCH=portable for processors without AVX2.
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build-windows}
shift || true
jobs=$(nproc 2>/dev/null || echo 2)

if ! command -v x86_64-w64-mingw32-g++-posix >/dev/null 2>&1; then
    SUDO=
    [ "$(id -u)" = 0 ] || SUDO="sudo -n"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq
    $SUDO apt-get install -y -qq --no-install-recommends g++-mingw-w64-x86-64-posix
fi

cmake -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$PWD/tools/cross/mingw-w64.cmake" \
      -DCMAKE_BUILD_TYPE=Release -DVESTRA_ARCH=avx2 "$@"
cmake --build "$dir" -j"$jobs" --target vestra vestra-perft
ls -l "$dir/vestra.exe"
