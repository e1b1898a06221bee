#!/usr/bin/env bash
# Profile-guided build of the engine: instrument, run the built-in benchmark, rebuild
# with the profile. The result is build-pgo/vestra.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$root/build-pgo
profile=$dir/pgo-data
rm -rf "$profile"
cmake -S "$root" -B "$dir" -DCMAKE_BUILD_TYPE=Release -DVESTRA_TESTS=OFF -DVESTRA_PGO=generate -DVESTRA_PGO_DIR="$profile"
cmake --build "$dir" -j"$(nproc)" --target vestra
"$dir/vestra" pgo >/dev/null
cmake -S "$root" -B "$dir" -DVESTRA_PGO=use
cmake --build "$dir" -j"$(nproc)" --target vestra
echo "profile-guided engine: $dir/vestra"
