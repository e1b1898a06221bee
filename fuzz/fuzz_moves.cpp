// Move-list replay: `position ... moves` with any text behind it, and long games of
// legal moves chosen by the input (to reach the stack's limits). Whatever the list,
// the replay must end on an acceptable position, within the room the search needs.
#include "board/board.h"
#include "fuzz_common.h"

namespace {

const char* const STARTS[] = {
    "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
    "r2q1rk1/pP1p2pp/Q4n2/bbp1p3/Np6/1B3NBn/pPPP1PPP/R3K2R b KQ - 0 1",
    "qnrnkbb1/ppppppp1/7r/7p/P2P4/8/1PP1PPPP/QNRNKBBR w HCc - 1 3",
    "1bn2qr1/ppp1rk1p/1n1ppp2/PP6/1N2PPpP/1P1P4/4R1P1/1B1Q1KBR b H - 0 13",
    "4k3/8/8/8/8/8/8/R3K2R w KQ - 99 80",
    "rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPP1PPP/RNBQKBNR w KQkq f6 0 3",
};
constexpr int START_COUNT = sizeof STARTS / sizeof STARTS[0];

// The reached position is a legal one, and the stack keeps room for the search.
void check_reached(SearchThread* t) {
    FUZZ_CHECK(t->top >= t->stack && t->top - t->stack < 200);
    char fen[100];
    position_fen(t->top, fen);
    FUZZ_CHECK(fen_is_acceptable(fen));
    ScoredMove list[MAX_MOVES];
    FUZZ_CHECK(perft(t, 1) == u64(gen_legal(t->top, list) - list));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz_engine_startup();
    if (size < 1) return 0;
    const int mode = data[0] & 1;
    engine_options.chess960 = (data[0] >> 1) & 1;
    const char* fen = STARTS[(data[0] >> 2) % START_COUNT];
    ++data, --size;
    SearchThread* t = fuzz_thread();

    if (mode == 0) {
        // Raw text.
        std::string moves = fuzz_text(data, size, 8192);
        u32 played = set_position(t, fen, moves.c_str());
        FUZZ_CHECK(played <= moves.size() / 8 + 1);
        check_reached(t);
        return 0;
    }

    // Each byte picks a legal move; the game is then replayed from its text in one go
    // and must end where the step-by-step play ended.
    static SearchThread* step = new SearchThread();
    set_position(step, fen, nullptr);
    std::string moves;
    std::string here = fen;
    u32 count = 0;
    for (size_t i = 0; i < size && i < 2000; ++i) {
        ScoredMove list[MAX_MOVES];
        ScoredMove* end = gen_legal(step->top, list);
        if (end == list) break;
        const u32 m = list[data[i] % (end - list)].move;
        char word[8];
        move_text(step->top, m, word);
        set_position(step, here.c_str(), word);
        FUZZ_CHECK(step->top == step->stack + 1 || step->top == step->stack);
        char next[100];
        position_fen(step->top, next);
        here = next;
        set_position(step, here.c_str(), nullptr);
        moves += word;
        moves += ' ';
        ++count;
    }
    FUZZ_CHECK(set_position(t, fen, moves.c_str()) == count / 2);
    check_reached(t);
    const Position& a = *t->top;
    const Position& b = *step->top;
    for (int i = 0; i < 8; ++i) FUZZ_CHECK(a.boards[i] == b.boards[i]);
    FUZZ_CHECK(a.castling == b.castling && a.key == b.key);
    return 0;
}
