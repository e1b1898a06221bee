// Search speed: fixed-depth searches of the ten benchmark positions on one thread,
// with nodes, time and nodes per second per position and in total; with --time S,
// the depth reached from the start position in S seconds. Each search reports nodes per
// second of the wall clock (nps) and of this thread's processor time (cpu-nps).
//
//   vestra-bench [--depth N] [--hash MB] [--time S]
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include "eval/network.h"
#include "search/search.h"
#include "uci/uci.h"

// Processor time of this thread in microseconds: on a loaded machine it moves much less
// from run to run than the wall clock, which also counts the time spent waiting.
static i64 cpu_us() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return i64(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

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

    i64 total_nodes = 0, total_ms = 0, total_cpu = 0;
    for (int i = 0; i < 10; ++i) {
        engine_memory_init(&large_pages);
        SearchThread* main = search_shared.main_thread;
        set_position(main, benchmark_positions[i], nullptr);
        u32 best;
        i64 start = now_ms(), cpu_start = cpu_us();
        i32 score = search_fixed_depth(main, depth, &best);
        i64 ms = now_ms() - start, cpu = cpu_us() - cpu_start;
        i64 nodes = main->nodes.load();
        char text[8];
        move_text(main->top, best, text);
        std::printf("position %2d  depth %d  nodes %10lld  time %6lld ms  nps %8lld  cpu-nps %8lld  best %-5s  score %d\n",
                    i + 1, depth, (long long)nodes, (long long)ms, (long long)(nodes * 1000 / (ms + 1)),
                    (long long)(nodes * 1000000 / (cpu + 1)), text, score);
        std::fflush(stdout);
        total_nodes += nodes;
        total_ms += ms;
        total_cpu += cpu;
    }
    std::printf("total        depth %d  nodes %10lld  time %6lld ms  nps %8lld  cpu-nps %8lld\n", depth,
                (long long)total_nodes, (long long)total_ms, (long long)(total_nodes * 1000 / (total_ms + 1)),
                (long long)(total_nodes * 1000000 / (total_cpu + 1)));
    engine_memory_release(large_pages);
    return 0;
}
