// The search: mates and their distances, draws, determinism and easy tactics.
#include <algorithm>
#include <cctype>
#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>
#include "search_fixture.h"
#include "search/report.h"
#include "board/rng.h"

namespace {

// Exhaustive check, independent of the search: the side to move mates within n of its
// own moves.
bool all_replies_mated(SearchThread* t, int n);

bool mates_within(SearchThread* t, int n) {
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(t->top, list);
    for (ScoredMove* e = list; e < end; ++e) {
        make_move(t, e->move, nullptr);
        bool mated = all_replies_mated(t, n);
        --t->top;
        if (mated) return true;
    }
    return false;
}

bool all_replies_mated(SearchThread* t, int n) {
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(t->top, list);
    if (end == list) return t->top->flags & POS_IN_CHECK;
    if (n == 1) return false;
    for (ScoredMove* e = list; e < end; ++e) {
        make_move(t, e->move, nullptr);
        bool mates = mates_within(t, n - 1);
        --t->top;
        if (!mates) return false;
    }
    return true;
}

// The same position with the colours exchanged (board mirrored top to bottom); for
// positions without castling rights or en-passant square.
std::string mirror_fen(const char* fen) {
    char ranks[8][16] = {};
    int r = 0, len = 0;
    const char* p = fen;
    for (; *p && *p != ' '; ++p) {
        if (*p == '/') {
            ++r;
            len = 0;
        } else {
            ranks[r][len++] = char(std::isupper(*p) ? std::tolower(*p) : std::toupper(*p));
        }
    }
    char out[128];
    int n = 0;
    for (int i = 7; i >= 0; --i) {
        for (const char* c = ranks[i]; *c; ++c) out[n++] = *c;
        if (i) out[n++] = '/';
    }
    ++p;  // side
    out[n++] = ' ';
    out[n++] = *p == 'w' ? 'b' : 'w';
    for (++p; *p; ++p) out[n++] = *p;
    out[n] = 0;
    return out;
}

struct MateCase {
    const char* fen;
    int moves;
};

const MateCase MATES[] = {
    {"6k1/5ppp/8/8/8/8/8/R5K1 w - - 0 1", 1},
    {"k7/8/2K5/8/8/8/8/1R6 w - - 0 1", 2},
    {"6k1/4K3/8/8/8/4R3/8/8 w - - 0 1", 3},
};

// The moves of the line that report_line prints for the best root move.
std::vector<std::string> reported_line(SearchThread* t) {
    testing::internal::CaptureStdout();
    report_line(t, 0, NO_SCORE, 0, 0, 0, 1);
    std::string text = testing::internal::GetCapturedStdout();
    std::vector<std::string> moves;
    size_t at = text.find(" pv ");
    if (at == std::string::npos) return moves;
    std::istringstream words(text.substr(at + 4));
    for (std::string w; words >> w;) moves.push_back(w);
    return moves;
}

}  // namespace

using SearchTest = SearchFixture;

// Slack for reductions: how soon the shortest mate shows depends on the network's move
// ordering (net 15 finds the rook mate in 3 at depth 14, net 14 did by 13).
static int mate_depth(int moves) { return 2 * moves + 9; }

TEST_F(SearchTest, MatesAreFoundAtTheirDistanceForBothColours) {
    for (const MateCase& c : MATES) {
        for (int colour = 0; colour < 2; ++colour) {
            std::string fen = colour ? mirror_fen(c.fen) : c.fen;
            SCOPED_TRACE(fen);
            fresh_memory();
            set(fen.c_str());
            ASSERT_TRUE(mates_within(main_thread(), c.moves));
            if (c.moves > 1) {
                ASSERT_FALSE(mates_within(main_thread(), c.moves - 1));
            }
            u32 best = 0;
            // By this depth the shortest mate must have been found.
            i32 score = search_depth(mate_depth(c.moves), &best);
            EXPECT_EQ(score, MATE_VALUE - (2 * c.moves - 1));
            ASSERT_NE(best, 0u);
            // The move played keeps the mate at the same distance.
            make_move(main_thread(), best, nullptr);
            EXPECT_TRUE(all_replies_mated(main_thread(), c.moves));
        }
    }
}

TEST_F(SearchTest, MatedSideScoresItsOwnDistance) {
    // After Kc7 the black king has one move left, and Ra1 mates.
    set("k7/8/2K5/8/8/8/8/1R6 w - - 0 1", "c6c7");
    u32 best = 0;
    EXPECT_EQ(search_depth(4, &best), 2 - MATE_VALUE);
    EXPECT_EQ(text(best), "a8a7");
    // A mated root has no move and the mate score of ply 0.
    set("k7/1Q6/1K6/8/8/8/8/8 b - - 0 1");
    EXPECT_EQ(search_depth(3, &best), -MATE_VALUE);
    EXPECT_EQ(best, 0u);
}

TEST_F(SearchTest, MateScoresSurviveInTheTableAcrossPlies) {
    // The table keeps the entries of the first search; the later searches start two
    // and one plies further down the same line and must read the same mates.
    const char* fen = MATES[2].fen;
    set(fen);
    u32 best = 0;
    ASSERT_EQ(search_depth(mate_depth(MATES[2].moves), &best), MATE_VALUE - 5);
    std::string line = text(best);
    make_move(main_thread(), best, nullptr);
    u32 reply = 0;
    EXPECT_EQ(search_fixed_depth(main_thread(), 10, &reply), 4 - MATE_VALUE);
    line += ' ';
    line += text(reply);
    set(fen, line.c_str());
    EXPECT_EQ(search_depth(8, &best), MATE_VALUE - 3);
}

TEST_F(SearchTest, StalemateRepetitionAndMaterialDrawsScoreDrawValue) {
    engine_options.draw_score = 25;
    u32 best = 0;
    // King and pawn against king in the corner: every line ends in stalemate or in a
    // bare king; the root side gets DrawScore exactly.
    set("k7/P7/1K6/8/8/8/8/8 w - - 0 1");
    EXPECT_EQ(search_depth(8, &best), 25);
    // Knight and king against king.
    set("8/8/4k3/8/8/3NK3/8/8 w - - 0 1");
    EXPECT_EQ(search_depth(6, &best), 25);
    // A stalemated root.
    set("7k/5Q2/6K1/8/8/8/8/8 b - - 0 1");
    EXPECT_EQ(search_depth(3, &best), 25);
    EXPECT_EQ(best, 0u);

    // Three queens down, Black repeats the position once: a draw at an odd ply, seen
    // from the root side as DrawScore.
    engine_options.draw_score = -20;
    set("1n2k3/8/8/8/8/8/QQQ5/4K1N1 w - - 0 1", "g1f3 b8c6 f3g1");
    EXPECT_EQ(search_depth(6, &best), -20);
    EXPECT_EQ(text(best), "c6b8");
}

TEST_F(SearchTest, FiftyMoveRule) {
    engine_options.draw_score = 13;
    u32 best = 0;
    // The key has no move count, so each case starts from a clear table.
    // The mate that makes the count 100 is still mate.
    set("6k1/5ppp/8/8/8/8/8/R5K1 w - - 99 1");
    EXPECT_EQ(search_depth(4, &best), MATE_VALUE - 1);
    // A mate in two cannot finish inside the count: every line is a draw.
    fresh_memory();
    set("k7/8/2K5/8/8/8/8/1R6 w - - 99 1");
    EXPECT_EQ(search_depth(6, &best), 13);
    fresh_memory();
    set("k7/8/2K5/8/8/8/8/1R6 w - - 98 1");
    EXPECT_EQ(search_depth(6, &best), 13);
    // Three plies to go: the mate in two lands on the hundredth.
    fresh_memory();
    set("k7/8/2K5/8/8/8/8/1R6 w - - 97 1");
    EXPECT_EQ(search_depth(6, &best), MATE_VALUE - 3);
}

TEST_F(SearchTest, ReportedLinesEndAtTheFiftyMoveRule) {
    // Rook against king: every move is reversible, so the clock only grows along the
    // line. The table's keys do not hold the clock, so the same entries serve a root
    // whose clock is close to 100, and the printed line must stop at the draw there.
    set("8/8/4k3/8/8/3K4/8/R7 w - - 0 1");
    u32 best = 0;
    search_depth(10, &best);
    SearchThread* t = main_thread();
    std::vector<std::string> full = reported_line(t);
    ASSERT_GE(full.size(), 5u);
    EXPECT_EQ(full[0], text(best));
    for (int clock : {95, 97, 99}) {
        t->top->halfmove_clock = u8(clock);
        std::vector<std::string> cut = reported_line(t);
        std::vector<std::string> expected(full.begin(), full.begin() + (100 - clock));
        EXPECT_EQ(cut, expected) << "clock " << clock;
    }
    // A capture resets the clock: the line goes on past where the old count ended.
    set("8/8/4k3/8/8/3K4/8/R6r w - - 98 1");
    search_depth(10, &best);
    ASSERT_EQ(text(best), "a1h1");
    EXPECT_GT(reported_line(t).size(), 2u);
}

TEST_F(SearchTest, FixedDepthSearchIsDeterministic) {
    const char* fens[] = {
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ - 0 1",
        "3r4/3r2bk/1p4pp/pN2n3/P6P/4Q1P1/1P2B1K1/8 b - - 0 1",
        "8/p4k2/1p3r2/2pPnb2/2Pr3P/PPK3P1/4B1Q1/8 b - - 0 1",
    };
    for (const char* fen : fens) {
        SCOPED_TRACE(fen);
        u32 first_move = 0, second_move = 0;
        fresh_memory();
        set(fen);
        i32 first = search_depth(7, &first_move);
        i64 first_nodes = main_thread()->nodes.load();
        fresh_memory();
        set(fen);
        i32 second = search_depth(7, &second_move);
        EXPECT_EQ(first, second);
        EXPECT_EQ(first_move, second_move);
        EXPECT_EQ(first_nodes, main_thread()->nodes.load());
        EXPECT_NE(first_move, 0u);
        EXPECT_EQ(search_shared.completed_depth.load(), 7);
    }
}

TEST_F(SearchTest, EasyTactics) {
    struct Case {
        const char* fen;
        const char* move;
    };
    const Case cases[] = {
        {"4k3/8/8/3q4/8/8/3R4/4K3 w - - 0 1", "d2d5"},          // a hanging queen
        {"r3k3/8/8/3N4/8/8/8/4K3 w - - 0 1", "d5c7"},           // a knight fork of king and rook
    };
    u32 best = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fen);
        fresh_memory();
        set(c.fen);
        search_depth(6, &best);
        EXPECT_EQ(text(best), c.move);
    }

    // White's rook alone guards the back rank; taking the queen with it loses to
    // Rd1 mate, so the search must play something else and survive the next move.
    fresh_memory();
    set("3r2k1/5ppp/2q5/8/8/8/5PPP/2R3K1 w - - 0 1");
    i32 score = search_depth(6, &best);
    EXPECT_NE(text(best), "c1c6");
    EXPECT_GT(score, -MATE_THRESHOLD);
    make_move(main_thread(), best, nullptr);
    EXPECT_FALSE(mates_within(main_thread(), 1));
}

TEST_F(SearchTest, TimedSearchStopsWithALegalMove) {
    set("rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1");
    u32 best = 0;
    i64 start = now_ms();
    search_with_limits(main_thread(), 127, 200, &best);
    i64 elapsed = now_ms() - start;
    EXPECT_GE(search_shared.completed_depth.load(), 1);
    EXPECT_LT(elapsed, 5000);  // stops at the deadline rather than at depth 127
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(main_thread()->top, list);
    bool legal = false;
    for (ScoredMove* e = list; e < end; ++e) legal |= e->move == best;
    EXPECT_TRUE(legal);
}

TEST_F(SearchTest, MultiPVKeepsTheLinesInOrder) {
    engine_options.multi_pv = 3;
    set("4k3/8/8/3q4/8/8/3R4/4K3 w - - 0 1");
    u32 best = 0;
    search_depth(7, &best);
    SearchThread* t = main_thread();
    EXPECT_EQ(search_shared.multi_pv_count, 3);
    EXPECT_EQ(text(t->root_moves[0].move), "d2d5");
    EXPECT_GE(t->root_scores[1], t->root_scores[2]);
    // The other lines are searched with their own windows, not as bounds below the
    // first: giving up the queen capture costs about a queen.
    EXPECT_GT(t->root_scores[0] - t->root_scores[1], 500);
    EXPECT_GT(t->root_scores[1], -MATE_THRESHOLD);
}

namespace {
void* run_worker(void* record) {
    search_root(static_cast<SearchThread*>(record));
    return nullptr;
}
}  // namespace

TEST_F(SearchTest, SeveralThreadsShareTheDepths) {
    engine_options.threads = 3;
    fresh_memory();
    ASSERT_EQ(search_shared.thread_count, 3);
    set("r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ - 0 1");
    SearchShared& sh = search_shared;
    SearchThread* main = main_thread();
    main->root_end = generate_root_moves(main, main->root_moves);

    // What the driver of a search prepares before it starts the workers.
    search_limits.mode.store(0);
    search_limits.node_limit = INT64_MAX;
    search_limits.depth_limit = 9;
    search_limits.stop.store(0);
    search_limits.soft_deadline = search_limits.hard_deadline = i64(1) << 60;
    search_limits.check_interval = search_limits.next_check = 10000;
    sh.start_time = now_ms();
    sh.tb_root_score = NO_SCORE;
    sh.tb_probe_limit = 0;
    sh.multi_pv_count = 1;
    int height = int(main->top - main->stack);
    std::memcpy(sh.root_stack, main->stack, sizeof(Position) * size_t(height + 1));
    sh.root_top = sh.root_stack + height;
    int count = int(main->root_end - main->root_moves);
    std::memcpy(sh.root_moves_copy, main->root_moves, sizeof(ScoredMove) * size_t(count));
    sh.root_moves_end = sh.root_moves_copy + count;
    sh.tt_generation += 0x2000000;
    sh.completed_depth.store(0);
    sh.depth_lock.store(0);
    for (int i = 0; i < 3; ++i) main[i].nodes.store(0);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 16u << 20);
    bool started[3] = {};
    for (int i = 1; i < 3; ++i) started[i] = pthread_create(&main[i].thread_handle, &attr, run_worker, main + i) == 0;
    pthread_attr_destroy(&attr);
    search_root(main);
    set_stop();
    for (int i = 1; i < 3; ++i)
        if (started[i]) pthread_join(main[i].thread_handle, nullptr);

    EXPECT_EQ(sh.completed_depth.load(), 9);
    ScoredMove legal[MAX_MOVES];
    ScoredMove* end = gen_legal(main->top, legal);
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(i);
        if (i > 0 && !started[i]) continue;
        // A worker scheduled late may find the search already stopped: only the main
        // thread is sure to have searched.
        if (i == 0) {
            EXPECT_GT(main[i].nodes.load(), 0);
        }
        EXPECT_EQ(main[i].top, main[i].stack + height);  // back at the root after the stop
        bool found = false;
        for (ScoredMove* e = legal; e < end; ++e) found |= e->move == main[i].root_moves[0].move;
        EXPECT_TRUE(found);
        EXPECT_LE(main[i].progress.load() >> 24, 9);
    }
    // The root entry holds the move of the thread that finished depth 9 first.
    u64 data;
    ASSERT_TRUE(tt_read(main->top->key, &data));
    EXPECT_EQ(tt_depth_byte(data), 128 + 9);
    EXPECT_EQ(tt_bound(data), BOUND_EXACT);
}

TEST_F(SearchTest, LinesStopAtTheEndOfThePositionStack) {
    // A root seven records below the end of the stack: every line must end there.
    set("r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ - 0 1");
    SearchThread* t = main_thread();
    Position* high = t->stack + (STACK_SIZE - 8);
    *high = *t->top;
    t->top = high;
    std::memset(static_cast<void*>(&t->stack[STACK_SIZE - 1]), 0, sizeof(Position));
    u32 best = 0;
    i32 score = search_depth(12, &best);
    // Lines reached the last record, and nothing behind the stack was overwritten.
    EXPECT_NE(t->stack[STACK_SIZE - 1].key, 0u);
    EXPECT_EQ(t->top, high);
    EXPECT_NE(best, 0u);
    EXPECT_LT(score < 0 ? -score : score, MATE_THRESHOLD);
}

// The move picker's choice: the highest score, and of the entries that hold it the one
// nearest the end. Lists of every length up to well past a vector's width, with scores
// from a few values (so that ties abound) among them the extremes of the range, and
// moves that repeat the scores' bit patterns.
TEST(MovePicking, HighestScoreNearestTheEndIsMovedLast) {
    Rng r{99};
    const i32 values[] = {INT32_MIN, INT32_MIN + 1, -5, 0, 7, SCORE_KILLER, SCORE_WINNING, INT32_MAX};
    int ties = 0;
    for (int round = 0; round < 4000; ++round) {
        const int n = 1 + r.below(80);
        const int spread = 2 + r.below(7);
        ScoredMove list[MAX_MOVES];
        for (int i = 0; i < n; ++i) {
            list[i].score = values[r.below(spread)];
            list[i].move = r.below(2) ? u32(values[r.below(8)]) : u32(i);
        }
        int expected = 0, holders = 0;
        for (int i = 0; i < n; ++i)
            if (list[i].score >= list[expected].score) expected = i;
        for (int i = 0; i < n; ++i) holders += list[i].score == list[expected].score;
        ties += holders > 1;
        ScoredMove before[MAX_MOVES];
        std::memcpy(before, list, sizeof(ScoredMove) * size_t(n));
        pick_best(list, list + n);
        ASSERT_EQ(list[n - 1].score, before[expected].score) << "length " << n;
        ASSERT_EQ(list[n - 1].move, before[expected].move) << "length " << n;
        // The entry that stood last takes the chosen one's place; the rest stay put.
        ASSERT_EQ(list[expected].move, before[n - 1].move) << "length " << n;
        for (int i = 0; i < n - 1; ++i) {
            if (i != expected) {
                ASSERT_EQ(list[i].move, before[i].move) << "length " << n;
            }
        }
    }
    EXPECT_GT(ties, 1000);
}

// The late-move tail must give the spared moves in the order, and with the move counts,
// that picking one at a time and discarding the passed-over ones would.
TEST(MovePicking, LateTailMatchesPickingOneAtATime) {
    Rng r{7};
    auto passed = [](u32 m) { return (m & 3) != 0; };    // three in four are passed over
    auto returned = [](u32 m) { return (m & 28) != 0; };  // one in eight the picker drops
    int fast = 0, fast_with_counts = 0, elided_seen = 0, refused = 0;
    for (int round = 0; round < 6000; ++round) {
        const int n = 1 + r.below(60);
        const int spread = 2 + r.below(400);
        const bool counts = r.below(2);
        ScoredMove list[MAX_MOVES];
        for (int i = 0; i < n; ++i) list[i] = {i32(r.below(spread)) - 200, u32(i) << 8 | u32(r.below(32))};
        // What the picker would return, and how many returned moves before each spared one.
        ScoredMove copy[MAX_MOVES];
        std::memcpy(copy, list, sizeof(ScoredMove) * size_t(n));
        std::vector<u32> expected_moves;
        std::vector<int> expected_counts;
        int since = 0;
        for (ScoredMove* end = copy + n; end > copy; --end) {
            pick_best(copy, end);
            const u32 m = end[-1].move;
            if (!returned(m)) continue;
            if (passed(m)) {
                ++since;
            } else {
                expected_moves.push_back(m);
                expected_counts.push_back(since);
                since = 0;
            }
        }
        u8 elided[MAX_TAIL];
        const int count = order_late_tail(list, list + n, counts, passed, returned, elided);
        if (count < 0) {
            ++refused;
            continue;
        }
        ++fast;
        fast_with_counts += counts;
        ASSERT_EQ(size_t(count), expected_moves.size()) << "round " << round;
        for (int i = 0; i < count; ++i) {
            // The picker takes the tail from the end.
            ASSERT_EQ(list[count - 1 - i].move, expected_moves[size_t(i)]) << "round " << round << " entry " << i;
            if (counts) {
                ASSERT_EQ(elided[count - 1 - i], std::min(expected_counts[size_t(i)], 127)) << "round " << round;
                elided_seen += expected_counts[size_t(i)] > 0;
            }
        }
    }
    EXPECT_GT(fast_with_counts, 500);
    EXPECT_GT(fast - fast_with_counts, 500);
    EXPECT_GT(elided_seen, 500);
    EXPECT_GT(refused, 500);
}
