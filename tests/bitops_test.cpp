#include <gtest/gtest.h>
#include "board/bitops.h"

TEST(BitOps, ScalarMatchesInstructions) {
    u64 x = 0x9e3779b97f4a7c15ULL;
    for (int i = 0; i < 10000; ++i) {
        x ^= x << 13; x ^= x >> 7; x ^= x << 17;
        u64 v = x & (x >> (i % 64));
        EXPECT_EQ(popcount_scalar(v), __builtin_popcountll(v));
        EXPECT_EQ(bswap64_scalar(v), __builtin_bswap64(v));
        if (v) {
            EXPECT_EQ(lsb_scalar(v), __builtin_ctzll(v));
            EXPECT_EQ(msb_scalar(v), 63 - __builtin_clzll(v));
        }
    }
}
