// The transposition table and the engine memory block.
#include <cstring>
#include "search_fixture.h"

using TTFixture = SearchFixture;

TEST_F(TTFixture, TableSizeFollowsHashOption) {
    engine_options.hash_mb = 1;
    fresh_memory();
    EXPECT_EQ(search_shared.tt_mask + 1, 65536u);
    engine_options.hash_mb = 3;  // rounded down to 2 MB
    fresh_memory();
    EXPECT_EQ(search_shared.tt_mask + 1, 131072u);
    engine_options.hash_mb = 0;  // taken as 1
    engine_options.threads = 0;  // taken as 1
    fresh_memory();
    EXPECT_EQ(search_shared.tt_mask + 1, 65536u);
    EXPECT_EQ(search_shared.thread_count, 1);
    EXPECT_EQ(reinterpret_cast<char*>(search_shared.main_thread),
              reinterpret_cast<char*>(search_shared.tt) + 16 * 65536);
    EXPECT_EQ(u64(search_shared.tt) % 64, 0u);
    EXPECT_EQ(sizeof(SearchThread) % 64, 0u);
    EXPECT_EQ(search_shared.tt_generation, 0u);
}

TEST_F(TTFixture, ClearingSlicesCoverTableWithoutOverlap) {
    engine_options.hash_mb = 1;
    engine_options.threads = 3;
    fresh_memory();
    ASSERT_EQ(search_shared.thread_count, 3);
    TTEntry* tt = search_shared.tt;
    const u64 entries = search_shared.tt_mask + 1;
    for (u64 i = 0; i < entries; ++i) EXPECT_EQ(tt[i].data.load() | tt[i].check.load(), 0u) << i;

    SearchThread* records = search_shared.main_thread;
    std::memset(static_cast<void*>(tt), 0xff, entries * sizeof(TTEntry));
    for (int r = 0; r < 3; ++r) {
        records[r].history[1][2][3][4] = 77;
        records[r].killers[5][1] = 99;
    }
    // q = 21845, r = 1: thread 1 owns entries 21846 .. 43690.
    clear_thread_memory(records + 1, entries);
    EXPECT_NE(tt[21845].data.load(), 0u);
    EXPECT_EQ(tt[21846].data.load(), 0u);
    EXPECT_EQ(tt[43690].data.load(), 0u);
    EXPECT_NE(tt[43691].data.load(), 0u);
    EXPECT_EQ(records[1].history[1][2][3][4], 0);
    EXPECT_EQ(records[1].killers[5][1], 0u);
    EXPECT_EQ(records[0].history[1][2][3][4], 77);
    EXPECT_EQ(records[2].killers[5][1], 99u);

    clear_thread_memory(records, entries);
    clear_thread_memory(records + 2, entries);
    for (u64 i = 0; i < entries; ++i) ASSERT_EQ(tt[i].data.load() | tt[i].check.load(), 0u) << i;
}

TEST_F(TTFixture, StoreProbeRoundTripAndTornEntries) {
    const u64 key = 0x0123456789abcdefULL;
    const u32 gen = 0x2000000u * 5;
    u64 data = tt_pack(-1, 0x7f34, BOUND_LOWER, gen, -31000, -30966);
    tt_write(key, data);
    u64 read = 0;
    ASSERT_TRUE(tt_read(key, &read));
    EXPECT_EQ(tt_depth_byte(read), 127);
    EXPECT_EQ(tt_move(read), 0x7f34u);
    EXPECT_EQ(tt_bound(read), BOUND_LOWER);
    EXPECT_EQ(tt_generation_bits(read), gen);
    EXPECT_EQ(tt_score(read), -31000);
    EXPECT_EQ(tt_eval(read), -30966);

    u64 exact = tt_pack(12, 0x1234, BOUND_EXACT, gen, 32760, NO_SCORE);
    tt_write(key, exact);
    ASSERT_TRUE(tt_read(key, &read));
    EXPECT_EQ(tt_depth_byte(read), 140);
    EXPECT_EQ(tt_bound(read), BOUND_EXACT);
    EXPECT_EQ(tt_score(read), 32760);
    EXPECT_EQ(tt_eval(read), NO_SCORE);

    // Another key in the same slot replaces the entry and hides it.
    const u64 other = key ^ ((search_shared.tt_mask + 1) << 3);
    ASSERT_EQ(tt_slot(other), tt_slot(key));
    tt_write(other, data);
    EXPECT_FALSE(tt_read(key, &read));
    EXPECT_TRUE(tt_read(other, &read));

    // A torn pair: the check word of one write and the data word of another.
    tt_write(key, exact);
    tt_slot(key)->data.store(data);
    EXPECT_FALSE(tt_read(key, &read));
    EXPECT_FALSE(tt_read(other, &read));
}

TEST_F(TTFixture, LargePagesAreOptionalAndAnnouncedOnlyOnSuccess) {
    engine_options.large_pages = true;
    engine_options.hash_mb = 2;
    testing::internal::CaptureStdout();
    fresh_memory();
    std::string said = testing::internal::GetCapturedStdout();
    EXPECT_EQ(said, large_page_mark ? "Allocated large pages\n" : "");
    ASSERT_NE(search_shared.tt, nullptr);
    EXPECT_EQ(search_shared.tt_mask + 1, 131072u);
    tt_write(42, tt_pack(3, 0, BOUND_EXACT, 0, 1, 2));
    u64 data;
    EXPECT_TRUE(tt_read(42, &data));
    // The next allocation releases the block by the way it was made.
    engine_options.large_pages = false;
    fresh_memory();
    EXPECT_EQ(large_page_mark, 0);
}
