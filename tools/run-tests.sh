#!/usr/bin/env bash
# Builds Vestra (warnings as errors) and runs every test of the default suite,
# installing GoogleTest first when it is missing.
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc 2>/dev/null || echo 2)
tools/install-test-deps.sh || true
cmake -B build -DCMAKE_BUILD_TYPE=Release -DVESTRA_WERROR=ON -DVESTRA_TESTS=ON
cmake --build build -j"$jobs"
# An empty test list (tests not discovered, say) is a failure, not a pass.
ctest --test-dir build --output-on-failure --no-tests=error -j"$jobs"
