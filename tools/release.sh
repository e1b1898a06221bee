#!/usr/bin/env bash
# Builds the release set in release/vestra-<version>/: static Linux x86-64 binaries and
# Windows .exe's, each for AVX2 and for any x86-64 (portable), checks that all four
# print the same `pgo` node total (the Windows ones under wine), and writes SHA256SUMS
# and a README for players. The version is the one in CMakeLists.txt's project().
# Installs the cross compiler and wine when missing. Needs a processor with AVX2, to
# run the AVX2 binaries' check.
#   tools/release.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
version=$(sed -n 's/^project(vestra VERSION \([0-9][0-9.]*\).*/\1/p' CMakeLists.txt)
[ -n "$version" ] || { echo "release: no version in CMakeLists.txt" >&2; exit 1; }
jobs=$(nproc 2>/dev/null || echo 2)
out=release/vestra-$version
rm -rf "$out"
mkdir -p "$out"

for arch in avx2 portable; do
    dir=build-release/linux-$arch
    cmake -B "$dir" -DCMAKE_BUILD_TYPE=Release -DVESTRA_ARCH=$arch -DVESTRA_STATIC=ON -DVESTRA_TESTS=OFF >/dev/null
    cmake --build "$dir" -j"$jobs" --target vestra >/dev/null
    cp "$dir/vestra" "$out/vestra-$version-linux-x86-64-$arch"
    tools/build-windows.sh build-release/windows-$arch -DVESTRA_ARCH=$arch >/dev/null
    cp build-release/windows-$arch/vestra.exe "$out/vestra-$version-windows-x86-64-$arch.exe"
done
strip "$out"/vestra-*-linux-* 
x86_64-w64-mingw32-strip "$out"/vestra-*.exe

# Every binary must search exactly alike.
if ! command -v wine >/dev/null 2>&1; then
    SUDO=
    [ "$(id -u)" = 0 ] || SUDO="sudo -n"
    export DEBIAN_FRONTEND=noninteractive
    $SUDO apt-get update -qq && $SUDO apt-get install -y -qq --no-install-recommends wine wine64 >/dev/null
fi
export WINEPREFIX=${WINEPREFIX:-/tmp/vestra-wine-$(id -u)} WINEDEBUG=-all
[ -d "$WINEPREFIX" ] || wine wineboot -i >/dev/null 2>&1
reference=
for f in "$out"/vestra-*; do
    case $f in *.exe) total=$(wine "$f" pgo | tail -n 1) ;; *) total=$("$f" pgo | tail -n 1) ;; esac
    echo "$(basename "$f"): $total"
    case $total in "Total nodes searched: "[0-9]*) ;; *) echo "release: $f gave no node total" >&2; exit 1 ;; esac
    reference=${reference:-$total}
    [ "$total" = "$reference" ] || { echo "release: $f differs from the others" >&2; exit 1; }
done

sed "s/@VERSION@/$version/g" tools/release-README.txt > "$out/README.txt"
(cd "$out" && sha256sum vestra-* README.txt > SHA256SUMS)
echo "release set in $out:"
ls -l "$out"
