#!/bin/sh
# Installs clang with the libFuzzer and sanitizer runtimes (Debian packages), which
# tools/build-fuzz.sh needs. Nothing is done when -fsanitize=fuzzer already links.
set -e
probe() {
    dir=$(mktemp -d)
    printf 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }\n' > "$dir/f.cpp"
    clang++ -fsanitize=fuzzer,address,undefined "$dir/f.cpp" -o "$dir/f" >/dev/null 2>&1
    rc=$?
    rm -rf "$dir"
    return $rc
}
if command -v clang++ >/dev/null 2>&1 && probe; then exit 0; fi

SUDO=
if [ "$(id -u)" != 0 ]; then SUDO="sudo -n"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# clang-14 is the Debian 12 compiler; libclang-rt-14-dev holds libFuzzer and the
# sanitizer runtimes. Other releases: the unversioned names.
$SUDO apt-get install -y -qq --no-install-recommends clang libclang-rt-14-dev ||
    $SUDO apt-get install -y -qq --no-install-recommends clang libclang-rt-dev
probe || { echo "install-fuzz-deps: clang cannot build libFuzzer targets" >&2; exit 1; }
