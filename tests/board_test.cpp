#include <set>
#include <vector>
#include "board_test_util.h"

static const char* START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";
static const char* KIWIPETE = "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1";

TEST_F(BoardTest, KeysAndTables) {
    EXPECT_EQ(zobrist[0], 0x3e48ca43f3b16d8cULL);
    EXPECT_EQ(zobrist[2], 0x631ac4c039a9aedfULL);
    EXPECT_EQ(zobrist[1036], 0x8c451ea563ef7aa6ULL);
    EXPECT_EQ(key_of(START), 0x4e17ca51ae670349ULL);
    EXPECT_EQ(setup(START)->castling, 0x0707);
    EXPECT_EQ(setup(KIWIPETE)->key, 0xeaf27c6e37d37f18ULL);
    EXPECT_EQ(setup("8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1")->key, 0x9c5f634edf4dd869ULL);
    EXPECT_EQ(setup("8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1")->castling, 0x8888);

    Position white = *setup(START);
    const Position* black = setup("rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR b KQkq - 0 1");
    for (int i = 0; i < 8; ++i) EXPECT_EQ(white.boards[i], black->boards[i]);
    EXPECT_EQ(white.key ^ black->key, zobrist[1036]);
    EXPECT_EQ(white.flags ^ black->flags, POS_BLACK);

    EXPECT_EQ(between_table[0][7], 0xfeULL);
    EXPECT_EQ(direction_table[0][7], 0u);
    EXPECT_EQ(between_table[1][10], bit(10));
    EXPECT_EQ(direction_table[1][10], 4u);
    EXPECT_EQ(between_table[0][10], 0u);
    EXPECT_EQ(direction_table[0][10], 8u);
    EXPECT_EQ(direction_table[63][0], 5u);
    EXPECT_EQ(ep_capturers_rank5[0], bit(33));
    EXPECT_EQ(ep_capturers_rank5[7], bit(38));
    // Sliding attacks through the magic tables against a hand count.
    EXPECT_EQ(rook_attacks(0, bit(3) | bit(16)), bit(1) | bit(2) | bit(3) | bit(8) | bit(16));
    EXPECT_EQ(popcount(bishop_attacks(27, 0)), 13);
}

TEST_F(BoardTest, FenFields) {
    // An en-passant file with no pawn to take hashes as '-'.
    EXPECT_EQ(key_of("4k3/8/8/3p4/8/8/8/4K3 w - d6 0 1"), key_of("4k3/8/8/3p4/8/8/8/4K3 w - - 0 1"));
    const Position* ep = setup("4k3/8/8/3pP3/8/8/8/4K3 w - d6 0 1");
    EXPECT_EQ(ep_file(ep->flags), 3);
    u64 ep_key = ep->key;
    EXPECT_EQ(ep_key ^ key_of("4k3/8/8/3pP3/8/8/8/4K3 w - - 0 1"), zobrist[1028 + 3]);
    EXPECT_EQ(setup("4k3/8/8/8/3pP3/8/8/4K3 b - e3")->halfmove_clock, 0);
    EXPECT_EQ(ep_file(thread->top->flags), 4);
    EXPECT_EQ(setup("4k3/8/8/8/8/8/8/4K3 w - - 37 80")->halfmove_clock, 37);

    // File letters and KQkq name the same rights on a classic array.
    Position classic = *setup("r3k2r/8/8/8/8/8/8/R3K2R w HAha - 0 1");
    EXPECT_EQ(classic.key, key_of("r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1"));
    EXPECT_EQ(classic.castling, thread->top->castling);
    engine_options.chess960 = true;
    // King on b1: the a-file right is the long one, the h-file right the short one.
    EXPECT_EQ(setup("1r4kr/8/8/8/8/8/8/RK5R w AH - 0 1")->castling, 0x8807);
    // A rook on d1 with the king on f1 gives nibble 3.
    EXPECT_EQ(setup("4k3/8/8/8/8/8/8/3R1K2 w D - 0 1")->castling, 0x8838);
    // Rights without their rook are dropped.
    EXPECT_EQ(setup("4k3/8/8/8/8/8/8/4K3 w KQkq - 0 1")->castling, 0x8888);
    u64 bare = thread->top->key;
    EXPECT_EQ(bare, key_of("4k3/8/8/8/8/8/8/4K3 w - - 0 1"));
    EXPECT_EQ(setup("4k3/8/8/8/8/8/8/4K2R w K - 0 1")->castling, 0x8887);
    EXPECT_TRUE(setup("4k3/8/8/8/8/8/4r3/4K3 w - - 0 1")->flags & POS_IN_CHECK);
}

TEST_F(BoardTest, UnsafeFensAreRefused) {
    EXPECT_TRUE(fen_is_acceptable(START));
    EXPECT_TRUE(fen_is_acceptable("4k3/8/8/8/8/8/8/4K3 w - -"));
    const char* bad[] = {
        "4k3/8/8/8/8/8/8/8 w - - 0 1",              // no white king
        "4k3/8/8/8/8/8/8/3KK3 w - - 0 1",           // two white kings
        "4k3/8/8/8/8/8/8/4K3 w -",                  // three words
        "4k3/8/8/8/8/8/8/4K2 w - - 0 1",            // 63 squares
        "4k3/8/8/8/8/8/8/4K3/8 w - - 0 1",          // 72 squares
        "4k2P/8/8/8/8/8/8/4K3 w - - 0 1",           // pawn on the last rank
        "4k3/8/8/8/8/8/8/p3K3 w - - 0 1",           // pawn on the first rank
        "4k3/8/8/8/8/8/8/4R1K1 w - - 0 1",          // the king not to move is in check
        "4k3/8/8/8/8/8/3p4/4K3 b - - 0 1",          // likewise, by a pawn
        "3k4/3K4/8/8/8/8/8/8 w - - 0 1",            // kings side by side
        "4k3/pppppppp/p7/8/8/8/8/4K3 w - - 0 1",    // nine black pawns
        "4k3/8/8/8/8/8/8/4K3 w - - 0 1                                                                                                           ",
        "",
        nullptr,
    };
    for (const char* fen : bad) EXPECT_FALSE(fen_is_acceptable(fen)) << (fen ? fen : "null");
}

TEST_F(BoardTest, MoveText) {
    setup("r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1");
    EXPECT_NE(find("e1g1"), 0u);
    EXPECT_NE(find("e1c1"), 0u);
    setup("r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1");
    EXPECT_NE(find("e8g8"), 0u);
    EXPECT_NE(find("e8c8"), 0u);
    EXPECT_NE(find("e8f7"), 0u);
    setup("4k3/1P6/8/8/8/8/8/4K3 w - - 0 1");
    EXPECT_NE(find("b7b8n"), 0u);
    EXPECT_NE(find("b7b8q"), 0u);
    engine_options.chess960 = true;
    setup("r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1");
    EXPECT_NE(find("e8h8"), 0u);
    EXPECT_NE(find("e8a8"), 0u);
    EXPECT_EQ(find("e8g8"), 0u);
    // The rook leaving b1 would open a1's line to the king on c1.
    setup("4k3/8/8/8/8/8/8/1R1K4 w B - 0 1");
    EXPECT_NE(find("d1b1"), 0u);
    setup("4k3/8/8/8/8/8/8/rR1K4 w B - 0 1");
    EXPECT_EQ(find("d1b1"), 0u);
}

// Network features of a position, from the view of its side to move.
static std::set<u32> features(const Position& p) {
    std::set<u32> f;
    for (int pc = PAWN; pc <= QUEEN; ++pc)
        for (u64 b = p.boards[pc]; b;) {
            int sq = pop_lsb(b);
            f.insert((p.own & bit(sq)) ? u32((pc - 1) * 64 + sq) : u32(256 + pc * 64 + sq));
        }
    if ((p.castling & 15) != 8) f.insert(1024);
    if (((p.castling >> 4) & 15) != 8) f.insert(4096);
    if (((p.castling >> 8) & 15) != 8) f.insert(2048);
    if (((p.castling >> 12) & 15) != 8) f.insert(8192);
    return f;
}

static Position unflip(const Position& q) {
    Position p = q;
    for (int i = 0; i < 8; ++i) p.boards[i] = bswap64(q.boards[i]);
    p.own = p.occupied ^ p.own;
    p.castling = u16(q.castling >> 8 | q.castling << 8);
    return p;
}

// Makes `m` with a FeatureDelta and checks the delta against the boards.
static void make_checked(SearchThread* t, u32 m) {
    const Position before = *t->top;
    FeatureDelta d;
    make_move(t, m, &d);
    std::set<u32> f = features(before);
    for (int i = 0; i < d.removed_count; ++i) EXPECT_EQ(f.erase(d.removed[i]), 1u) << "removed " << d.removed[i];
    for (int i = 0; i < d.added_count; ++i) EXPECT_TRUE(f.insert(d.added[i]).second) << "added " << d.added[i];
    EXPECT_EQ(f, features(unflip(*t->top)));
    EXPECT_EQ(d.king_moved, move_piece(m) == KING && move_from(m) != move_to(m));
}

// Random games: every position reached by moves must equal the one set up from its FEN,
// every quiet move's check mark must agree with tag_check, and every legal move must
// survive packing and validation.
TEST_F(BoardTest, RandomGamesAgreeWithSetUp) {
    struct Game { const char* fen; bool chess960; };
    const Game games[] = {
        {START, false},
        {KIWIPETE, false},
        {"r3k2r/Pppp1ppp/1b3nbN/nP6/BBP1P3/q4N2/Pp1P2PP/R2Q1RK1 w kq - 0 1", false},
        {"8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1", false},
        {"qnrnkbb1/ppppppp1/7r/7p/P2P4/8/1PP1PPPP/QNRNKBBR w HCc - 1 3", true},
        {"bqnb1rkr/pp3ppp/3ppn2/2p5/5P2/P2P4/NPP1P1PP/BQ1BNRKR w HFhf - 2 9", true},
    };
    u64 rng = 0x2545f4914f6cdd1dULL;
    int positions = 0;
    auto other = std::make_unique<SearchThread>();
    for (const Game& g : games) {
        engine_options.chess960 = g.chess960;
        for (int round = 0; round < 6; ++round) {
            setup(g.fen);
            for (int ply = 0; ply < 120; ++ply) {
                const Position* p = thread->top;
                ScoredMove list[MAX_MOVES], quiet[MAX_MOVES];
                ScoredMove* end = gen_legal(p, list);
                if (end == list || p->halfmove_clock >= 100) break;
                if (!(p->flags & POS_IN_CHECK)) {
                    ScoredMove* qe = gen_quiets(p, quiet, 0);
                    for (ScoredMove* q = quiet; q < qe; ++q) {
                        u32 plain = q->move & ~MOVE_GIVES_CHECK;
                        tag_check(p, &plain);
                        EXPECT_EQ(plain, q->move) << fen();
                        EXPECT_TRUE(quiet_is_possible(p, q->move));
                    }
                    ScoredMove* ce = gen_quiets(p, quiet, 1);
                    for (ScoredMove* q = quiet; q < ce; ++q) EXPECT_TRUE(q->move & MOVE_GIVES_CHECK);
                }
                for (ScoredMove* m = list; m < end; ++m) {
                    u32 v = validate_packed_move(p, pack_move(m->move));
                    // A Chess960 castling onto its own rook's square is not taken from the table.
                    bool blocked = (m->move & MOVE_IS_CASTLING) && (p->own & bit(move_to(m->move)));
                    EXPECT_EQ(v, blocked ? 0u : m->move) << fen();
                }
                rng ^= rng >> 12; rng ^= rng << 25; rng ^= rng >> 27;
                u32 m = list[(rng * 0x2545f4914f6cdd1dULL >> 33) % u64(end - list)].move;
                make_checked(thread.get(), m);
                Position moved = *thread->top;
                std::string text = fen();
                set_position(other.get(), text.c_str(), nullptr);
                const Position& s = *other->top;
                for (int i = 0; i < 8; ++i) ASSERT_EQ(moved.boards[i], s.boards[i]) << text;
                ASSERT_EQ(moved.key, s.key) << text;
                ASSERT_EQ(moved.castling, s.castling) << text;
                ASSERT_EQ(moved.flags & ~POS_REPETITION, s.flags) << text;
                ++positions;
            }
        }
    }
    EXPECT_GT(positions, 2000);
}

TEST_F(BoardTest, FeatureDeltaCases) {
    setup("4k3/8/8/3pP3/8/8/8/4K3 w - d6 0 1");
    FeatureDelta d;
    make_move(thread.get(), find("e5d6"), &d);
    ASSERT_EQ(d.removed_count, 2);
    EXPECT_EQ(d.removed[0], 256u + 64 + 35);
    EXPECT_EQ(d.removed[1], 0u * 64 + 36);
    ASSERT_EQ(d.added_count, 1);
    EXPECT_EQ(d.added[0], 43u);
    EXPECT_EQ(thread->top->pawns, bswap64(bit(43)));

    setup("1r2k3/P7/8/8/8/8/8/4K3 w - - 0 1");
    make_move(thread.get(), find("a7b8q"), &d);
    ASSERT_EQ(d.removed_count, 2);
    EXPECT_EQ(d.removed[0], 256u + 4 * 64 + 57);
    EXPECT_EQ(d.removed[1], 48u);
    ASSERT_EQ(d.added_count, 1);
    EXPECT_EQ(d.added[0], 4u * 64 + 57);
    EXPECT_EQ(thread->top->pawns, 0u);

    // A rook taking its counterpart on the shared file clears both rights.
    setup("r3k3/8/8/8/8/8/8/R3K3 w Qq - 0 1");
    make_move(thread.get(), find("a1a8"), &d);
    EXPECT_EQ(thread->top->castling, 0x8888);
    u64 key = thread->top->key;
    EXPECT_EQ(key, key_of("R3k3/8/8/8/8/8/8/4K3 b - - 0 1"));
    setup("4k2r/8/8/8/8/8/8/4K2R b Kk - 0 1");
    make_move(thread.get(), find("h8h1"), &d);
    EXPECT_EQ(thread->top->castling, 0x8888);
    EXPECT_EQ(d.removed_count, 4);
    key = thread->top->key;
    EXPECT_EQ(key, key_of("4k3/8/8/8/8/8/8/4K2r w - - 0 1"));

    // Chess960 castling whose rook does not move still lists the rook codes.
    engine_options.chess960 = true;
    setup("4k3/8/8/8/8/8/8/3RK3 w D - 0 1");
    make_move(thread.get(), find("e1d1"), &d);
    EXPECT_EQ(d.king_moved, 1);
    ASSERT_EQ(d.removed_count, 2);
    EXPECT_EQ(d.removed[0], 192u + 3);
    EXPECT_EQ(d.removed[1], 4096u);
    ASSERT_EQ(d.added_count, 1);
    EXPECT_EQ(d.added[0], 192u + 3);
    EXPECT_EQ(thread->top->rooks, bswap64(bit(3)));
    EXPECT_EQ(thread->top->kings & ~thread->top->own, bswap64(bit(2)));
}

TEST_F(BoardTest, Repetition) {
    setup(START);
    play("g1f3"); play("g8f6"); play("f3g1");
    EXPECT_FALSE(thread->top->flags & POS_REPETITION);
    play("f6g8");
    EXPECT_TRUE(thread->top->flags & POS_REPETITION);
    make_null_move(thread.get());
    EXPECT_FALSE(thread->top->flags & POS_REPETITION);
    EXPECT_EQ(thread->top->key, thread->stack[0].key ^ zobrist[1036]);
    // A null move drops a stored en-passant file.
    setup("4k3/8/8/8/3p4/8/4P3/4K3 w - - 0 1");
    play("e2e4");
    ASSERT_EQ(ep_file(thread->top->flags), 4);
    make_null_move(thread.get());
    EXPECT_EQ(ep_file(thread->top->flags), EP_NONE);
    u64 null_key = thread->top->key;
    EXPECT_EQ(null_key, key_of("4k3/8/8/8/3pP3/8/8/4K3 w - - 0 1"));
    // A pawn move in between resets the window.
    setup(START, "g1f3 g8f6 e2e4 f6g8 f3g1 g8f6 g1f3 f6g8");
    EXPECT_EQ(thread->top - thread->stack, 5);
    EXPECT_TRUE(thread->top->flags & POS_REPETITION);
}

TEST_F(BoardTest, Replay) {
    EXPECT_EQ(set_position(thread.get(), START, "e2e4 e7e5 g1f3\n"), 1u);
    EXPECT_EQ(thread->top - thread->stack, 1);  // the pawn move reset the history
    EXPECT_EQ(set_position(thread.get(), START, "e2e4"), 0u);
    EXPECT_EQ(set_position(thread.get(), START, nullptr), 0u);
    EXPECT_EQ(search_shared.previous_move, 0u);

    // Castling as king to g1 and as king takes rook are the same move.
    const char* castle_fen = "r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1";
    set_position(thread.get(), castle_fen, "e1g1");
    u32 a = search_shared.previous_move;
    Position pa = *thread->top;
    set_position(thread.get(), castle_fen, "e1h1");
    EXPECT_EQ(search_shared.previous_move, a);
    EXPECT_EQ(thread->top->key, pa.key);
    EXPECT_EQ(a, make_move_word(KING, 4, 6) | MOVE_IS_CASTLING);

    // A promotion letter on a plain move stays in the word; the previous move shifts.
    set_position(thread.get(), START, "g1f3q g8f6");
    EXPECT_EQ(search_shared.previous_move_2, make_move_word(KNIGHT, 6, 21) | u32(QUEEN) << 18);
    EXPECT_EQ(search_shared.previous_move, make_move_word(KNIGHT, 6, 21));

    // Garbage and illegal moves stop the replay where they stand.
    const char* lists[] = {"e2e4 e7e5 e1e3 g8f6", "e2e4 e7e5 zz99 g8f6", "e2e4 e7e5 e2 g8f6", "e2e4 e7e5 e7e8q",
                           "e2e4 e7e5 g1f3x4 g8f6", "e2e4 e7e5 e4e5 g8f6", "e2e4 e7e5 e1g1"};
    for (const char* l : lists) {
        EXPECT_EQ(set_position(thread.get(), START, l), 1u) << l;
        EXPECT_EQ(fen(), "rnbqkbnr/pppp1ppp/8/4p3/4P3/8/PPPP1PPP/RNBQKBNR w KQkq - 0 1") << l;
    }
    // A promotion needs its letter.
    EXPECT_EQ(set_position(thread.get(), "4k3/P7/8/8/8/8/8/4K3 w - - 0 1", "a7a8"), 0u);
    EXPECT_EQ(thread->top, thread->stack);
    EXPECT_EQ(set_position(thread.get(), "4k3/P7/8/8/8/8/8/4K3 w - - 0 1", "a7a8n e8d7"), 1u);
    EXPECT_TRUE(thread->top->knights);

    // A long run of reversible moves keeps the stack short and the repetition flag right.
    std::string shuffle;
    for (int i = 0; i < 60; ++i) shuffle += "g1f3 g8f6 f3g1 f6g8 ";
    EXPECT_EQ(set_position(thread.get(), START, shuffle.c_str()), 120u);
    EXPECT_LT(thread->top - thread->stack, 200);
    EXPECT_TRUE(thread->top->flags & POS_REPETITION);
    u64 key = thread->top->key;
    EXPECT_EQ(key, key_of(START));
}

TEST_F(BoardTest, StaticExchange) {
    auto see_of = [&](const char* fen, const char* move) {
        setup(fen);
        u32 m = find(move);
        EXPECT_NE(m, 0u) << move;
        return see(thread->top, m);
    };
    EXPECT_EQ(see_of("4k3/8/8/8/8/8/8/3QK3 w - - 0 1", "d1d4"), 0);
    EXPECT_EQ(see_of("4k3/8/4p3/8/8/3Q4/3R4/4K3 w - - 0 1", "d3d5"), -1000);
    EXPECT_EQ(see_of("4k3/8/4p3/3p4/4P3/8/8/4K3 w - - 0 1", "e4d5"), 0);
    EXPECT_EQ(see_of("4k3/8/4p3/3p4/8/8/8/3RK3 w - - 0 1", "d1d5"), -400);
    // The second rook joins by x-ray.
    EXPECT_EQ(see_of("3rk3/8/8/3p4/8/8/3R4/3RK3 w - - 0 1", "d2d5"), 100);
    EXPECT_EQ(see_of("4k3/8/8/3p4/8/8/8/3RK3 w - - 0 1", "d1d5"), 100);
    // ... and a defender behind a defender joins after the first has taken.
    EXPECT_EQ(see_of("3rk3/3r4/8/3p4/8/8/3R4/3RK3 w - - 0 1", "d2d5"), -400);
    // A king as last defender may not take while the square is still covered.
    EXPECT_EQ(see_of("8/8/4k3/3p4/8/8/8/3RK3 w - - 0 1", "d1d5"), -400);
    EXPECT_EQ(see_of("8/8/4k3/3p4/8/1B6/8/3RK3 w - - 0 1", "d1d5"), 100);
    EXPECT_EQ(see_of("4k3/P7/8/8/8/8/8/4K3 w - - 0 1", "a7a8q"), 900);
    EXPECT_EQ(see_of("r3k3/8/8/8/8/8/8/4K2R w K - 0 1", "e1g1"), 0);
    setup("4k3/8/8/8/8/2p5/3p4/4K3 w - - 0 1");
    EXPECT_EQ(see(thread->top, make_move_word(KING, 4, 11) | MOVE_IS_CAPTURE | PAWN << 15), 100);
    // The pawn taken en passant stays in the way of the rook behind it.
    EXPECT_EQ(see_of("3rk3/8/8/3pP3/8/8/8/3RK3 w - d6 0 1", "e5d6"), 0);
}

TEST_F(BoardTest, PackedMoves) {
    u32 promo = make_move_word(PAWN, 52, 60) | MOVE_IS_PROMOTION | u32(QUEEN) << 18 | MOVE_GIVES_CHECK;
    EXPECT_EQ(pack_move(promo), 0x7f34u);
    setup("8/4P3/8/8/8/8/8/k3K3 w - - 0 1");
    EXPECT_EQ(unpack_move(thread->top, 0x7f34), promo & ~MOVE_GIVES_CHECK);

    const Position* p = setup("4k3/8/8/8/8/8/4P3/4K3 w - - 0 1");
    EXPECT_NE(validate_packed_move(p, 12 | 28 << 6), 0u);  // e2e4
    EXPECT_EQ(validate_packed_move(p, 52 | 44 << 6), 0u);   // a move of the other side
    EXPECT_EQ(validate_packed_move(p, 4 | 12 << 6), 0u);    // onto an own man
    EXPECT_EQ(validate_packed_move(p, 12 | 20 << 6 | 0x3000), 0u);
    p = setup("k7/4P3/8/8/8/8/8/4K3 w - - 0 1");
    EXPECT_EQ(validate_packed_move(p, 52 | 60 << 6), 0u);  // promotion without its flag
    EXPECT_NE(validate_packed_move(p, 52 | 60 << 6 | 0x7000), 0u);

    p = setup("2r1k3/8/8/8/8/8/8/R3K2R w KQ - 0 1");
    EXPECT_EQ(validate_packed_move(p, 4 | 6 << 6 | 0x1000), make_move_word(KING, 4, 6) | MOVE_IS_CASTLING);
    EXPECT_EQ(validate_packed_move(p, 4 | 2 << 6 | 0x1000), 0u);  // c1 is attacked
    p = setup("r3k3/8/8/8/8/8/8/R3K2R w K - 0 1");
    EXPECT_EQ(validate_packed_move(p, 4 | 2 << 6 | 0x1000), 0u);  // the right is gone
    p = setup("4k3/8/8/8/8/8/8/R3K1rR w KQ - 0 1");
    EXPECT_EQ(validate_packed_move(p, 4 | 2 << 6 | 0x1000), 0u);  // in check

    // En passant only while the file is open.
    p = setup("4k3/8/8/3pP3/8/8/8/4K3 w - d6 0 1");
    EXPECT_NE(validate_packed_move(p, 36 | 43 << 6 | 0x2000), 0u);
    p = setup("4k3/8/8/3pP3/8/8/8/4K3 w - - 0 1");
    EXPECT_EQ(validate_packed_move(p, 36 | 43 << 6 | 0x2000), 0u);

    // A pinned bishop is pseudo-legal but not legal; a knight check must be answered.
    p = setup("4r1k1/8/8/8/8/8/4B3/4K3 w - - 0 1");
    EXPECT_TRUE(packed_is_pseudo_legal(p, 12 | 19 << 6));
    EXPECT_EQ(validate_packed_move(p, 12 | 19 << 6), 0u);
    p = setup("4k3/8/8/8/8/P6p/8/4K3 w - - 0 1");
    EXPECT_EQ(validate_packed_move(p, 16 | 23 << 6), 0u);  // no capture round the board's edge
    p = setup("8/8/8/8/8/8/3k4/5K2 w - - 0 1");
    EXPECT_EQ(validate_packed_move(p, 5 | 4 << 6), 0u);  // next to the enemy king
    EXPECT_NE(validate_packed_move(p, 5 | 6 << 6), 0u);
    p = setup("6k1/8/8/8/8/3n4/8/R3K3 w - - 0 1");
    EXPECT_EQ(validate_packed_move(p, 0 | 8 << 6), 0u);
    EXPECT_NE(validate_packed_move(p, 4 | 5 << 6), 0u);
}

TEST_F(BoardTest, QuietIsPossible) {
    const Position* p = setup("4k3/8/8/8/8/8/4P3/R3K1N1 w - - 0 1");
    EXPECT_TRUE(quiet_is_possible(p, make_move_word(ROOK, 0, 3)));
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(ROOK, 0, 4)));   // destination taken
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(ROOK, 0, 5)));   // passes the king
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(ROOK, 1, 3)));   // no rook there
    EXPECT_TRUE(quiet_is_possible(p, make_move_word(KNIGHT, 6, 21)));
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(KNIGHT, 6, 12)));
    EXPECT_TRUE(quiet_is_possible(p, make_move_word(PAWN, 12, 28)));
    p = setup("4k3/8/8/8/8/4n3/4P3/4K3 w - - 0 1");
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(PAWN, 12, 28)));  // the square passed is taken
    p = setup("4k3/8/8/8/8/8/8/R3K2R w K - 0 1");
    EXPECT_TRUE(quiet_is_possible(p, make_move_word(KING, 4, 6) | MOVE_IS_CASTLING));
    EXPECT_FALSE(quiet_is_possible(p, make_move_word(KING, 4, 2) | MOVE_IS_CASTLING));
}

TEST_F(BoardTest, CheckTagsAndLegality) {
    auto gives_check = [&](const char* fen, const char* text) {
        setup(fen);
        u32 m = find(text);
        EXPECT_NE(m, 0u) << text;
        return (m & MOVE_GIVES_CHECK) != 0;
    };
    // En passant opening a line through the captured pawn's square.
    EXPECT_TRUE(gives_check("8/4k3/8/2pP4/8/B7/8/4K3 w - c6 0 1", "d5c6"));
    EXPECT_FALSE(gives_check("8/4k3/8/2pP4/8/8/8/4K3 w - c6 0 1", "d5c6"));
    // A promotion capture checking along the last rank through its origin's file.
    EXPECT_TRUE(gives_check("1n5k/P7/8/8/8/8/8/4K3 w - - 0 1", "a7b8q"));
    EXPECT_TRUE(gives_check("r6k/1P6/8/8/8/8/8/4K3 w - - 0 1", "b7a8r"));
    EXPECT_FALSE(gives_check("r6k/1P6/8/8/8/8/8/4K3 w - - 0 1", "b7a8b"));
    EXPECT_TRUE(gives_check("r7/1P6/2k5/8/8/8/8/4K3 w - - 0 1", "b7a8b"));
    // Castling with the enemy king on the rook's file, and behind another man.
    EXPECT_TRUE(gives_check("5k2/8/8/8/8/8/8/4K2R w K - 0 1", "e1g1"));
    EXPECT_FALSE(gives_check("5k2/5p2/8/8/8/8/8/4K2R w K - 0 1", "e1g1"));
    EXPECT_TRUE(gives_check("3k4/8/8/8/8/8/8/R3K3 w Q - 0 1", "e1c1"));
    engine_options.chess960 = true;
    EXPECT_TRUE(gives_check("8/8/8/8/8/8/8/RK2k3 w A - 0 1", "b1a1"));
    engine_options.chess960 = false;
    // A king step uncovering its own rook; a pawn push leaving a rank, not a file.
    EXPECT_TRUE(gives_check("8/8/8/8/k2K3R/8/8/8 w - - 0 1", "d4d5"));
    EXPECT_TRUE(gives_check("8/8/8/8/k2P3R/8/8/4K3 w - - 0 1", "d4d5"));
    EXPECT_FALSE(gives_check("3k4/8/8/8/3P4/8/8/3RK3 w - - 0 1", "d4d5"));
    // A bishop between its rook and the enemy king checks with every move.
    setup("4k3/8/8/8/8/8/4B3/4RK2 w - - 0 1");
    for (const char* t : {"e2d3", "e2f3", "e2a6", "e2d1"}) EXPECT_TRUE(find(t) & MOVE_GIVES_CHECK) << t;
    // tag_check sets the bit and never clears it.
    setup(START);
    u32 m = make_move_word(KNIGHT, 6, 21) | MOVE_GIVES_CHECK;
    tag_check(thread->top, &m);
    EXPECT_TRUE(m & MOVE_GIVES_CHECK);

    // Legality: a pinned pawn pushes along its file but may not capture off it.
    const Position* p = setup("4r1k1/8/8/3p4/4P3/8/8/4K3 w - - 0 1");
    EXPECT_EQ(leaves_king_attacked(p, make_move_word(PAWN, 28, 36)), 0u);
    EXPECT_NE(leaves_king_attacked(p, make_move_word(PAWN, 28, 35) | MOVE_IS_CAPTURE | PAWN << 15), 0u);
    // En passant emptying the fifth rank between king and rook.
    p = setup("8/8/8/K2pP2r/8/8/8/7k w - d6 0 1");
    EXPECT_EQ(find("e5d6"), 0u);
    // The king may not step back along the checking rook's line.
    p = setup("4k3/8/8/8/8/8/r3K3/8 w - - 0 1");
    EXPECT_EQ(find("e2f2"), 0u);
    EXPECT_NE(find("e2e3"), 0u);
    // Nor take a defended man.
    p = setup("4k3/8/8/8/8/8/3p4/3qK3 w - - 0 1");
    EXPECT_EQ(find("e1d2"), 0u);
}

TEST_F(BoardTest, GeneratorOrder) {
    // Promotions: under-promotions by push, capture towards file h, towards file a.
    const Position* p = setup("k1r1r3/3P4/8/8/8/8/8/4K3 w - - 0 1");
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_underpromotions(p, list);
    ASSERT_EQ(end - list, 9);
    const int dest[3] = {59, 60, 58};
    const int pieces[3] = {KNIGHT, BISHOP, ROOK};
    const i32 scores[3] = {i32(0x80000002u), i32(0x80000000u), i32(0x80000001u)};
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(move_to(list[i].move), dest[i / 3]);
        EXPECT_EQ(move_promotion(list[i].move), pieces[i % 3]);
        EXPECT_EQ(list[i].score, scores[i % 3]);
    }
    end = gen_captures(p, list);
    ASSERT_EQ(end - list, 3);
    EXPECT_EQ(list[0].score, 0x7fffff2e);
    EXPECT_EQ(list[1].score, 0x7fffff2e + 8 * ROOK);

    // Capture scores: victim first, cheaper attacker first.
    p = setup("4k3/8/8/3q4/2P5/4N3/8/3RK3 w - - 0 1");
    end = gen_captures(p, list);
    ASSERT_EQ(end - list, 3);
    EXPECT_EQ(list[0].score, 0x7fffff03 + 8 * QUEEN);  // rook
    EXPECT_EQ(list[1].score, 0x7fffff05 + 8 * QUEEN);  // knight
    EXPECT_EQ(list[2].score, 0x7fffff06 + 8 * QUEEN);  // pawn

    // Double check: king moves only, unfiltered.
    p = setup("4k3/8/8/8/8/5n2/8/4K2r w - - 0 1");
    ASSERT_TRUE(p->flags & POS_IN_CHECK);
    end = gen_evasions(p, list, 1);
    for (ScoredMove* m = list; m < end; ++m) EXPECT_EQ(move_piece(m->move), KING);
    EXPECT_EQ(end - list, 5);

    // A promotion blocking a check: one entry without under-promotions, four with.
    p = setup("r6K/1P6/8/8/8/8/8/k7 w - - 0 1");
    EXPECT_EQ(gen_evasions(p, list, 0) - list, 3 + 1 + 1);
    EXPECT_EQ(gen_evasions(p, list, 1) - list, 3 + 4 + 4);

    // A double step giving check can be taken en passant.
    setup("8/8/8/2k5/3Pp3/8/8/4K3 b - d3 0 1");
    EXPECT_NE(find("e4d3"), 0u);
}

// Mangled FENs and move lists: whatever passes the FEN test must be searchable, and no
// move list may take the board anywhere a legal game could not.
TEST_F(BoardTest, MangledInputIsSafe) {
    const char* seeds[] = {START, KIWIPETE, "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
                           "bqnb1rkr/pp3ppp/3ppn2/2p5/5P2/P2P4/NPP1P1PP/BQ1BNRKR w HFhf - 2 9"};
    const char alphabet[] = "pnbrqkPNBRQK12345678/ wb-KQkqAHah0x";
    u64 rng = 0x9e3779b97f4a7c15ULL;
    auto next = [&]() {
        rng ^= rng << 13; rng ^= rng >> 7; rng ^= rng << 17;
        return rng;
    };
    int accepted = 0;
    for (int i = 0; i < 3000; ++i) {
        engine_options.chess960 = i & 1;
        std::string fen = seeds[next() % 4];
        for (int k = int(next() % 3); k >= 0; --k) fen[next() % fen.size()] = alphabet[next() % (sizeof alphabet - 1)];
        if (!fen_is_acceptable(fen.c_str())) continue;
        ++accepted;
        // A walk of legal moves, cut by one bad word somewhere.
        auto walk = std::make_unique<SearchThread>();
        set_position(walk.get(), fen.c_str(), nullptr);
        std::string moves;
        u32 good = 0;
        const int cut = int(next() % 12);
        for (int k = 0; k < 12; ++k) {
            ScoredMove legal[MAX_MOVES];
            ScoredMove* end = gen_legal(walk->top, legal);
            char text[8];
            if (k == cut) {
                std::string word;
                for (bool known = true; known;) {
                    word.clear();
                    for (int c = 4 + int(next() % 2); c > 0; --c) word += alphabet[next() % (sizeof alphabet - 1)];
                    known = false;
                    for (ScoredMove* m = legal; m < end; ++m) {
                        move_text(walk->top, m->move, text);
                        known |= word == text;
                    }
                }
                moves += word + " ";
                if (next() & 1) moves += "e2e4 ";
                break;
            }
            if (end == legal) break;
            u32 m = legal[next() % u64(end - legal)].move;
            move_text(walk->top, m, text);
            moves += std::string(text) + (next() % 8 ? " " : "  \t");
            make_move(walk.get(), m, nullptr);
            ++good;
        }
        char expected[100];
        position_fen(walk->top, expected);
        EXPECT_EQ(set_position(thread.get(), fen.c_str(), moves.c_str()), good / 2) << fen << " | " << moves;
        EXPECT_EQ(this->fen(), expected) << fen << " | " << moves;
        ScoredMove list[MAX_MOVES];
        EXPECT_LE(gen_legal(thread->top, list) - list, MAX_MOVES);
        perft(thread.get(), 2);
        for (int k = 0; k < 20; ++k) validate_packed_move(thread->top, u32(next() & 0x7fff));
    }
    EXPECT_GT(accepted, 300);
}
