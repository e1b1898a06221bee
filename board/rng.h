// The xorshift64* generator: the zobrist keys come from it, and tools and tests use it
// wherever a reproducible stream of random numbers is wanted.
#pragma once
#include "board/bitops.h"

struct Rng {
    u64 s;
    u64 next() {
        s ^= s >> 12;
        s ^= s << 25;
        s ^= s >> 27;
        return s * 0x2545f4914f6cdd1dULL;
    }
    int below(int n) { return int(next() % u64(n)); }
    int range(int lo, int hi) { return lo + below(hi - lo + 1); }
};
