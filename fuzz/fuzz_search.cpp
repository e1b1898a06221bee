// A short search of any position that FEN set-up accepts: composed positions (nine
// queens, triple checks, bare kings, men on every square a FEN allows) go through the
// whole search, the quiescence search, the evaluation and the table probes. The first
// byte chooses the options (Chess960, MultiPV, contempt); the rest is the FEN. The
// search must end on its node limit with one of the position's legal moves first.
#include "fuzz_common.h"
#include "search/search.h"
#include "search/think.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    fuzz_engine_startup();
    engine_options.hash_mb = 1;
    static i64 large_page_mark = 0;
    engine_memory_init(&large_page_mark);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 1) return 0;
    const u8 flags = data[0];
    std::string fen = fuzz_text(data + 1, size - 1, 200);
    engine_options.chess960 = flags & 1;
    engine_options.multi_pv = 1 + ((flags >> 1) & 3);
    engine_options.draw_score = (flags & 8) ? 50 : 0;
    engine_options.syzygy_50_move_rule = !(flags & 16);
    if (!fen_is_acceptable(fen.c_str())) return 0;

    SearchThread* main = search_shared.main_thread;
    u32 played = set_position(main, fen.c_str(), nullptr);
    main->root_end = generate_root_moves(main, main->root_moves);
    ScoredMove legal[MAX_MOVES];
    ScoredMove* legal_end = gen_legal(main->top, legal);
    FUZZ_CHECK(main->root_end - main->root_moves == legal_end - legal);
    if (legal_end == legal) return 0;  // mate or stalemate: "bestmove 0000" without a search

    search_limits.mode.store(0, std::memory_order_relaxed);
    search_limits.time_left = 1000000000000LL;
    search_limits.increment = 0;
    search_limits.node_limit = 3000;
    search_limits.moves_to_go = 0;
    search_limits.depth_limit = 64;
    search_limits.moves_played = i32(played);
    search_limits.stop.store(0, std::memory_order_relaxed);
    search_shared.search_lock.acquire();
    think();  // releases the lock
    FUZZ_CHECK(main->top == main->stack);
    const u32 best = main->root_moves[0].move;
    bool found = false;
    for (ScoredMove* p = legal; p < legal_end && !found; ++p) found = (p->move & MOVE_IDENTITY) == (best & MOVE_IDENTITY);
    FUZZ_CHECK(found);
    return 0;
}
