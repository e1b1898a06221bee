// Search speed: fixed-depth searches of the ten benchmark positions on one thread,
// with nodes, time and nodes per second per position and in total; with --time S,
// the depth reached from the start position in S seconds.
//
//   vestra-bench [--depth N] [--hash MB] [--time S]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "eval/network.h"
#include "search/search.h"

static const char* const BENCH_POSITIONS[10] = {
    "1qr3k1/p3bppp/4pn2/1B2n3/N7/P3P2P/1P2QPP1/2R1B2K w - -",
    "2br2k1/r5p1/4p3/5p2/8/pP3B2/1q2RPPP/Q3R1K1 b - - ",
    "r5k1/5p2/7p/5qP1/1P1QR3/5P2/r4RK1/8 b - - ",
    "r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ - ",
    "r2qk2r/3nbpp1/2bBp2p/p3P3/1p6/8/PPPQBPPP/1NKR3R w kq - ",
    "3r4/3r2bk/1p4pp/pN2n3/P6P/4Q1P1/1P2B1K1/8 b - h3",
    "6k1/1b2bp2/p3p2p/4P1p1/1pr5/4BP1P/PP2N1P1/3R2K1 b - - ",
    "1rr3k1/1q3pp1/pnbQp2p/1p2P3/3B1P2/2PB4/P1P2RPP/R5K1 w - - ",
    "2r2rk1/p3qp1p/2b1pp1Q/2b5/1n6/2N2NP1/1P2PPBP/R2R2K1 w - - ",
    "8/p4k2/1p3r2/2pPnb2/2Pr3P/PPK3P1/4B1Q1/8 b - - ",
};
static const char* const START_FEN = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

int main(int argc, char** argv) {
    int depth = 12;
    int seconds = 0;
    set_default_options(&engine_options);
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--depth") && i + 1 < argc)
            depth = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--hash") && i + 1 < argc)
            engine_options.hash_mb = std::atoi(argv[++i]);
        else if (!std::strcmp(argv[i], "--time") && i + 1 < argc)
            seconds = std::atoi(argv[++i]);
        else {
            std::fprintf(stderr, "usage: %s [--depth N] [--hash MB] [--time S]\n", argv[0]);
            return 2;
        }
    }
    init_board_tables();
    init_lmr_table();
    network_startup_check();
    search_shared.quiet = true;
    i64 large_pages = 0;

    if (seconds > 0) {
        engine_memory_init(&large_pages);
        SearchThread* main = search_shared.main_thread;
        set_position(main, START_FEN, nullptr);
        u32 best;
        i64 start = now_ms();
        i32 score = search_with_limits(main, 127, i64(seconds) * 1000, &best);
        i64 ms = now_ms() - start;
        i64 nodes = main->nodes.load();
        char text[8];
        move_text(main->top, best, text);
        std::printf("start position, %d s: depth %d  nodes %lld  time %lld ms  nps %lld  best %s  score %d\n",
                    seconds, search_shared.completed_depth.load(), (long long)nodes, (long long)ms,
                    (long long)(nodes * 1000 / (ms + 1)), text, score);
        engine_memory_release(large_pages);
        return 0;
    }

    i64 total_nodes = 0, total_ms = 0;
    for (int i = 0; i < 10; ++i) {
        engine_memory_init(&large_pages);
        SearchThread* main = search_shared.main_thread;
        set_position(main, BENCH_POSITIONS[i], nullptr);
        u32 best;
        i64 start = now_ms();
        i32 score = search_fixed_depth(main, depth, &best);
        i64 ms = now_ms() - start;
        i64 nodes = main->nodes.load();
        char text[8];
        move_text(main->top, best, text);
        std::printf("position %2d  depth %d  nodes %10lld  time %6lld ms  nps %8lld  best %-5s  score %d\n", i + 1,
                    depth, (long long)nodes, (long long)ms, (long long)(nodes * 1000 / (ms + 1)), text, score);
        std::fflush(stdout);
        total_nodes += nodes;
        total_ms += ms;
    }
    std::printf("total        depth %d  nodes %10lld  time %6lld ms  nps %8lld\n", depth, (long long)total_nodes,
                (long long)total_ms, (long long)(total_nodes * 1000 / (total_ms + 1)));
    engine_memory_release(large_pages);
    return 0;
}
