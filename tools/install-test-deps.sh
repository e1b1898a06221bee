#!/bin/sh
# Installs the packages that the tests use, with apt-get, when they are missing.
#   libgtest-dev: GoogleTest, needed to build the tests at all. Without it the
#     configure step of tools/run-tests.sh stops with a message saying so.
#   gnuchess-book: a published Polyglot book (data only), read by the book tests;
#     they skip themselves without it.
# Failures are reported and tolerated here; the build decides what is fatal.

want=
if [ ! -f /usr/include/gtest/gtest.h ] && [ ! -f /usr/local/include/gtest/gtest.h ]; then
    want="$want libgtest-dev"
fi
[ -f /usr/share/games/gnuchess/book.bin ] || want="$want gnuchess-book"
[ -z "$want" ] && exit 0

SUDO=
if [ "$(id -u)" != 0 ]; then
    if command -v sudo >/dev/null 2>&1; then SUDO="sudo -n"; else
        echo "install-test-deps: not root, cannot install:$want" >&2; exit 0
    fi
fi
if ! command -v apt-get >/dev/null 2>&1; then
    echo "install-test-deps: no apt-get, cannot install:$want" >&2; exit 0
fi
export DEBIAN_FRONTEND=noninteractive
for pkg in $want; do
    if ! $SUDO apt-get install -y -qq --no-install-recommends "$pkg" >/dev/null 2>&1; then
        # A fresh machine may not have package lists yet.
        [ -n "$updated" ] || { $SUDO apt-get update -qq >/dev/null 2>&1; updated=1; }
        $SUDO apt-get install -y -qq --no-install-recommends "$pkg" >/dev/null 2>&1 ||
            echo "install-test-deps: could not install $pkg" >&2
    fi
done
exit 0
