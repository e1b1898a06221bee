#include <gtest/gtest.h>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "eval_test_util.h"

namespace {

// Sums of the top position built from nothing.
void expect_fresh(SearchThread* t, int ply, const char* where) {
    alignas(64) i16 fresh[2][NET_HALF];
    refresh_half(t->top, 0, fresh[0]);
    refresh_half(t->top, 1, fresh[1]);
    ASSERT_EQ(std::memcmp(fresh, t->ply_records[ply].sums, sizeof fresh), 0) << where << " at ply " << ply;
}

// Random legal moves, with a preference for the moves that touch the bookkeeping:
// captures, promotions, castling, king moves.
u32 pick_move(SearchThread* t, Rng& r) {
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(t->top, list);
    int n = int(end - list);
    if (!n) return 0;
    for (int i = 0; i < n; ++i)
        if ((list[i].move & MOVE_IS_EN_PASSANT) && r.below(2)) return list[i].move;
    if (r.below(2)) {
        u32 special[MAX_MOVES];
        int m = 0;
        for (int i = 0; i < n; ++i) {
            u32 mv = list[i].move;
            if (mv & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION | MOVE_IS_CASTLING) || move_piece(mv) == KING) special[m++] = mv;
        }
        if (m) return special[r.below(m)];
    }
    return list[r.below(n)].move;
}

i32 eval_fen(SearchThread* t, const char* fen) {
    set_position(t, fen, "");
    t->ply_records[0].computed = 0;
    return evaluate(t, 0);
}

// The same position with colours exchanged and the board turned over.
std::string mirror_fen(const std::string& fen) {
    std::vector<std::string> fields;
    size_t start = 0;
    while (start <= fen.size()) {
        size_t space = fen.find(' ', start);
        if (space == std::string::npos) space = fen.size();
        fields.push_back(fen.substr(start, space - start));
        start = space + 1;
    }
    auto swap_case = [](std::string s) {
        for (char& c : s) c = char(std::isupper(c) ? std::tolower(c) : std::toupper(c));
        return s;
    };
    std::vector<std::string> ranks;
    std::string rank;
    for (char c : fields[0]) {
        if (c == '/') ranks.push_back(rank), rank.clear();
        else rank += c;
    }
    ranks.push_back(rank);
    std::string board;
    for (int i = int(ranks.size()) - 1; i >= 0; --i) board += swap_case(ranks[i]) + (i ? "/" : "");
    std::string out = board + " " + (fields[1] == "w" ? "b" : "w") + " " + (fields[2] == "-" ? "-" : swap_case(fields[2]));
    std::string ep = fields.size() > 3 ? fields[3] : "-";
    if (ep != "-") ep[1] = ep[1] == '3' ? '6' : '3';
    out += " " + ep;
    for (size_t i = 4; i < fields.size(); ++i) out += " " + fields[i];
    return out;
}

struct Start {
    const char* fen;
    bool chess960;
};

const Start STARTS[] = {
    {"rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1", false},
    {"r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1", false},
    {"r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1", false},
    {"1r2k3/P6P/8/3pP3/8/8/p6p/4K1N1 w - d6 0 1", false},
    {"8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1", false},
    {"rbbqn1kr/pppppppp/8/8/8/8/PPPPPPPP/RBBQN1KR w HAha - 0 1", true},
    {"3rkr2/8/8/8/8/8/8/3RKR2 w FDfd - 0 1", true},
    {"qnrnkbb1/ppppppp1/7r/7p/P2P4/8/1PP1PPPP/QNRNKBBR w HCc - 1 3", true},
    {"nbb1rkr1/1p4pp/2p5/3ppp2/QP1PP2q/2Pn2N1/P2B1PPP/NB2RKR1 b GEge - 2 11", true},
    {"r4b1r/p2Pkppp/b1pNnq1n/PpP5/4P3/6N1/3P2PP/RQB1KB1R w HA - 1 15", true},
};

}  // namespace

// Walks random games as the search would: make_move with the delta of the ply and a
// cleared record above it, null moves, take-backs of a few plies, and evaluations at
// irregular intervals, so that catch_up replays chains of every length. Every
// evaluated ply must hold exactly the sums of a rebuild, with both kernels.
TEST(Accumulator, IncrementalEqualsRefreshAlongRandomGames) {
    auto t = new_thread();
    ImagePtr net = random_image(77, 64, 4, 1000);  // every row different
    UseImage use(net.get());
    Rng r{2024};
    bool saved = engine_options.chess960;
    int evaluations = 0, king_moves = 0, castlings = 0, promotions = 0, en_passants = 0, nulls = 0;
    for (const Start& start : STARTS) {
        engine_options.chess960 = start.chess960;
        for (int game = 0; game < 12; ++game) {
            set_position(t.get(), start.fen, "");
            Position* root = t->top;
            t->ply_records[0].computed = 0;
            int ply = 0;
            for (int step = 0; step < 140 && ply < 200; ++step) {
                int roll = r.below(100);
                if (roll < 8 && ply >= 3) {  // take back a few plies
                    int back = 1 + r.below(3);
                    ply -= back;
                    t->top -= back;
                    continue;
                }
                if (roll < 16 && !(t->top->flags & POS_IN_CHECK)) {
                    FeatureDelta& d = t->ply_records[ply].delta;
                    make_null_move(t.get());
                    d.king_moved = 0;
                    d.added_count = d.removed_count = 0;
                    t->ply_records[ply + 1].computed = 0;
                    ++ply;
                    ++nulls;
                } else {
                    u32 move = pick_move(t.get(), r);
                    if (!move) break;
                    king_moves += move_piece(move) == KING;
                    castlings += (move & MOVE_IS_CASTLING) != 0;
                    promotions += (move & MOVE_IS_PROMOTION) != 0;
                    en_passants += (move & MOVE_IS_EN_PASSANT) != 0;
                    make_move(t.get(), move, &t->ply_records[ply].delta);
                    t->ply_records[ply + 1].computed = 0;
                    ++ply;
                }
                if (r.below(3) == 0) {
                    i32 score = evaluate(t.get(), ply);
                    expect_fresh(t.get(), ply, start.fen);
                    ++evaluations;
                    // The plain kernels from the same starting records give the same
                    // sums and the same score; catch_up does not rely on `computed`
                    // of its own ply.
                    t->ply_records[ply].computed = 0;
                    ASSERT_EQ(evaluate_scalar(t.get(), ply), score);
                    expect_fresh(t.get(), ply, start.fen);
                    catch_up(t.get(), ply);
                    expect_fresh(t.get(), ply, start.fen);
                }
            }
            t->top = root;
        }
    }
    engine_options.chess960 = saved;
    EXPECT_GT(evaluations, 3000);
    EXPECT_GT(castlings, 20);
    EXPECT_GT(promotions, 20);
    EXPECT_GT(en_passants, 3);
    EXPECT_GT(king_moves, 100);
    EXPECT_GT(nulls, 100);
}

// The sums a king move brings up come partly from what earlier king moves left behind;
// none of that may outlive the image it was computed with, even when a new image is
// written over the old one at the same address.
TEST(Accumulator, KingMovesAfterAnImageChange) {
    auto t = new_thread();
    ImagePtr net = random_image(5, 64, 4, 1000);
    const char* fen = "r3k2r/pp3ppp/8/8/8/8/PP3PPP/R3K2R w KQkq - 0 1";
    auto walk = [&](const char* moves) {
        set_position(t.get(), fen, "");
        t->ply_records[0].computed = 0;
        catch_up(t.get(), 0);
        expect_fresh(t.get(), 0, moves);
        int ply = 0;
        for (const char* m = moves; *m; m += *m == ' ') {
            char text[6] = {};
            std::memcpy(text, m, 4);
            m += 4;
            u32 move = 0;
            ScoredMove list[MAX_MOVES];
            for (ScoredMove* e = list, *end = gen_legal(t->top, list); e < end; ++e) {
                char mt[8];
                move_text(t->top, e->move, mt);
                if (!std::strcmp(mt, text)) move = e->move;
            }
            ASSERT_NE(move, 0u) << text;
            make_move(t.get(), move, &t->ply_records[ply].delta);
            t->ply_records[++ply].computed = 0;
            catch_up(t.get(), ply);
            expect_fresh(t.get(), ply, moves);
        }
    };
    const char* moves = "e1f1 e8d8 f1e1 d8e8 e1d1 e8f8 d1e1 f8e8";
    {
        UseImage use(net.get());
        walk(moves);
    }
    ImagePtr other = random_image(6, 64, 4, 1000);
    std::memcpy(net.get(), other.get(), sizeof(NetworkImage));
    {
        UseImage use(net.get());
        walk(moves);
    }
    walk(moves);
}

// Rows are found by their numbers: an image whose row r carries r itself in neurons
// 0 and 1 shows which row a lone man switched on, for each half.
TEST(Accumulator, RowNumbers) {
    auto t = new_thread();
    ImagePtr net(network_alloc());
    for (int row = 0; row < NET_FEATURES + 2; ++row) {
        network_row(net.get(), row)[0] = i16(row & 255);
        network_row(net.get(), row)[1] = i16(row >> 8);
    }
    UseImage use(net.get());
    auto row_of = [&](const char* fen, int half) {
        set_position(t.get(), fen, "");
        t->ply_records[0].computed = 0;
        catch_up(t.get(), 0);
        const i16* s = t->ply_records[0].sums[half];
        return s[0] + 256 * s[1];
    };
    EXPECT_EQ(row_of("6k1/8/8/8/8/8/4P3/6K1 w - - 0 1", 0), 774);
    EXPECT_EQ(row_of("6k1/8/8/8/8/8/4P3/6K1 w - - 0 1", 1), 23814);
    EXPECT_EQ(row_of("6k1/8/8/8/8/8/4P3/6K1 b - - 0 1", 0), 23814);
    EXPECT_EQ(row_of("6k1/8/8/8/8/8/4P3/6K1 b - - 0 1", 1), 774);
    EXPECT_EQ(row_of("3qk3/8/8/8/8/8/8/4K3 b - - 0 1", 0), 16580);
    EXPECT_EQ(row_of("4k3/8/8/8/8/8/8/4K2R w K - 0 1", 0), 40960 + feature_row(3, 7, 4));
    EXPECT_EQ(row_of("4k3/8/8/8/8/8/8/4K2R w K - 0 1", 1), feature_row(8, 63, 4));
    EXPECT_EQ(row_of("r3k3/8/8/8/8/8/8/4K3 w q - 0 1", 1), 40961 + feature_row(3, 0, 4));
}

// Exchanging the colours (board turned over, other side to move) describes the same
// position for the side to move, so every sum and the score must stay the same.
TEST(Evaluation, SymmetricUnderColourFlip) {
    auto t = new_thread();
    ImagePtr net = random_image(77, 64, 4, 1000);  // every row different
    UseImage use(net.get());
    Rng r{99};
    bool saved = engine_options.chess960;
    int compared = 0;
    auto other = new_thread();
    for (const Start& start : STARTS) {
        engine_options.chess960 = start.chess960;
        for (int game = 0; game < 4; ++game) {
            set_position(t.get(), start.fen, "");
            for (int ply = 0; ply < 80; ++ply) {
                u32 move = pick_move(t.get(), r);
                if (!move) break;
                make_move(t.get(), move, nullptr);
                if (ply % 5) continue;
                char fen[128];
                position_fen(t->top, fen);
                set_position(other.get(), fen, "");
                other->ply_records[0].computed = 0;
                i32 score = evaluate(other.get(), 0);
                std::string flipped = mirror_fen(fen);
                set_position(other.get(), flipped.c_str(), "");
                other->ply_records[0].computed = 0;
                ASSERT_EQ(evaluate(other.get(), 0), score) << fen << " vs " << flipped;
                ++compared;
            }
        }
    }
    engine_options.chess960 = saved;
    EXPECT_GT(compared, 400);
}

// The compiled-in network, whichever generation it is: material counts, in the
// usual order, from the side to move's view. A broken export or a net trained on
// mislabelled data fails here long before it would show in games.
TEST(Evaluation, CompiledNetworkMaterial) {
    auto t = new_thread();
    i32 equal = eval_fen(t.get(), "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1");
    i32 pawn = eval_fen(t.get(), "rnbqkbnr/pppp1ppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1");
    i32 knight = eval_fen(t.get(), "rnbqkb1r/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1");
    i32 rook = eval_fen(t.get(), "1nbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQk - 0 1");
    i32 queen = eval_fen(t.get(), "rnb1kbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1");
    i32 pawn_black = eval_fen(t.get(), "rnbqkbnr/pppp1ppp/8/8/8/8/PPPPPPPP/RNBQKBNR b KQkq - 0 1");
    i32 queen_rook = eval_fen(t.get(), "1nb1kbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQk - 0 1");
    EXPECT_LE(std::abs(equal), 60);
    EXPECT_GE(pawn, 60);
    EXPECT_LE(pawn, 320);
    EXPECT_LE(pawn_black, -pawn / 2);
    EXPECT_GE(pawn_black, -2 * pawn);
    EXPECT_GT(knight, 2 * pawn);
    EXPECT_GT(rook, knight);
    EXPECT_GT(queen, rook + pawn);
    EXPECT_GT(queen_rook, queen);  // a trained net flattens out where games are long decided
}
