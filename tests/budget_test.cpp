// The time budget as a table of clock situations: known values, and limits that keep
// every search inside its clock.
#include <gtest/gtest.h>
#include "search/think.h"

TEST(Budget, KnownSituations) {
    struct Case {
        i64 T, I;
        i32 M, P;
        bool ponder;
        int roots;
        i64 budget, soft, hard, interval;
    } cases[] = {
        {60000, 0, 0, 0, false, 20, 2000, 875, 4000, 10000},
        {60000, 1000, 0, 10, false, 20, 3666, 1603, 7332, 10000},
        {60000, 0, 20, 0, false, 20, 5000, 2187, 10000, 10000},
        {60000, 1000, 0, 10, true, 20, 4032, 1764, 8064, 10000},
        {1000, 5000, 0, 0, false, 20, 450, 196, 900, 4510},
        {60000, 0, 0, 0, false, 1, 200, 87, 400, 2010},
        {60000, 0, 0, 70, false, 20, 4000, 1750, 8000, 10000},
        {1000, 1000, 1, 0, false, 20, 450, 196, 900, 4510},  // movetime 1000
    };
    for (const Case& c : cases) {
        Budget b = compute_budget(c.T, c.I, c.M, c.P, c.ponder, 100, c.roots, 100, 0x7FFFFFFFFFFFFFFFLL);
        EXPECT_EQ(b.budget, c.budget) << c.T << " " << c.I << " " << c.M << " " << c.P;
        EXPECT_EQ(b.soft, c.soft);
        EXPECT_EQ(b.hard, c.hard);
        EXPECT_EQ(b.check_interval, c.interval);
    }
    EXPECT_EQ(compute_budget(60000, 0, 0, 0, false, 100, 20, 100, 5000).check_interval, 5000);
    EXPECT_EQ(compute_budget(60000, 0, 0, 0, false, 100, 20, 50, 5000).check_interval, 1);
}

TEST(Budget, ShortClocksNeverOverstep) {
    // The hard deadline must leave the move overhead on the clock, whatever the
    // increments, moves to go and game length, and stay non-negative.
    for (i64 T : {-50LL, 0LL, 1LL, 50LL, 120LL, 300LL, 700LL, 1500LL, 10000LL})
        for (i64 I : {0LL, 10LL, 100LL, 1000LL, 10000LL})
            for (i32 M : {0, 1, 2, 5, 40})
                for (i32 P : {0, 30, 59, 60, 200})
                    for (i32 overhead : {0, 10, 100, 1000})
                        for (bool ponder : {false, true}) {
                            Budget b = compute_budget(T, I, M, P, ponder, overhead, 30, 100, 0x7FFFFFFFFFFFFFFFLL);
                            EXPECT_GE(b.budget, 0);
                            EXPECT_LE(b.hard, std::max<i64>(0, T - overhead)) << T << " " << I << " " << M;
                            EXPECT_LE(b.soft, b.hard);
                            EXPECT_GE(b.check_interval, 1);
                        }
    // Absurd input is pulled into range rather than overflowing or dividing by zero.
    Budget huge = compute_budget(0x7FFFFFFFFFFFFFFFLL, 0x7FFFFFFFFFFFFFFFLL, -4, -10, true, -100, 30, 100, 1000);
    EXPECT_GT(huge.budget, 0);
    EXPECT_GT(huge.hard, huge.soft);
}
