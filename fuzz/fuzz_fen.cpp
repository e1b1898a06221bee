// FEN set-up: any text offered as a FEN. What fen_is_acceptable lets through must be
// searchable: perft, every legal move made, packed, validated, exchanged and written
// back as text and as a FEN must agree with the generators.
#include "board/board.h"
#include "eval/accumulator.h"
#include "fuzz_common.h"

namespace {

void check_same(const Position& a, const Position& b) {
    for (int i = 0; i < 8; ++i) FUZZ_CHECK(a.boards[i] == b.boards[i]);
    FUZZ_CHECK(a.castling == b.castling);
    FUZZ_CHECK((a.flags & 0xfc) == (b.flags & 0xfc));
    FUZZ_CHECK(a.key == b.key);
}

// The position after `m` (from gen_legal), reached by make_move, by replaying the
// move's text and by setting up its FEN afresh: all three must agree.
void check_made(SearchThread* t, const char* fen_text, u32 m) {
    const Position before = *t->top;
    make_move(t, m, nullptr);
    const Position made = *t->top;
    t->top--;
    FUZZ_CHECK(std::memcmp(&before, t->top, sizeof before) == 0);

    static SearchThread* other = new SearchThread();
    char word[8];
    move_text(t->top, m, word);
    set_position(other, fen_text, word);
    check_same(*other->top, made);

    char fen[100];
    position_fen(&made, fen);
    FUZZ_CHECK(fen_is_acceptable(fen));
    set_position(other, fen, nullptr);
    check_same(*other->top, made);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz_engine_startup();
    std::string text = fuzz_text(data, size, 256);
    SearchThread* t = fuzz_thread();
    for (int c960 = 0; c960 < 2; ++c960) {
        engine_options.chess960 = c960;
        if (!fen_is_acceptable(text.c_str())) continue;
        set_position(t, text.c_str(), nullptr);
        FUZZ_CHECK(t->top == t->stack);

        ScoredMove legal[MAX_MOVES];
        ScoredMove* end = gen_legal(t->top, legal);
        const int count = int(end - legal);
        FUZZ_CHECK(count >= 0 && count <= MAX_MOVES);
        FUZZ_CHECK(perft(t, 1) == u64(count));
        perft(t, 2);
        FUZZ_CHECK(t->top == t->stack);

        for (ScoredMove* p = legal; p < end; ++p) {
            const u32 m = p->move;
            see(t->top, m);
            // Every legal move survives the table's packing, except a Chess960 castling
            // whose king lands on a square that an own man holds now (its rook, or the
            // king itself): the validation refuses any move onto an own man, which costs
            // such a castling only its place as the table move.
            const u32 v = validate_packed_move(t->top, pack_move(m));
            if (!((m & MOVE_IS_CASTLING) && (t->top->own & bit(move_to(m)))))
                FUZZ_CHECK((v & MOVE_IDENTITY) == (m & MOVE_IDENTITY));
            check_made(t, text.c_str(), m);
        }
        // No other packed word validates.
        for (u32 packed = 0; packed < 0x8000; ++packed) {
            u32 v = validate_packed_move(t->top, packed);
            if (!v) continue;
            bool found = false;
            for (ScoredMove* p = legal; p < end && !found; ++p) found = (p->move & MOVE_IDENTITY) == (v & MOVE_IDENTITY);
            FUZZ_CHECK(found);
        }

        t->ply_records[0].computed = 0;
        i32 e = evaluate(t, 0);
        FUZZ_CHECK(e >= -30966 && e <= 30966);
    }
    return 0;
}
