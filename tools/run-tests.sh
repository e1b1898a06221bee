#!/usr/bin/env bash
# Builds Vestra (warnings as errors) and runs every test of the default suite.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
if [ -x tools/install-test-deps.sh ]; then tools/install-test-deps.sh || true; fi
cmake -B build -DCMAKE_BUILD_TYPE=Release -DVESTRA_WERROR=ON
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
