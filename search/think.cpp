#include "search/think.h"
#include <algorithm>
#include <cstring>
#include <ctime>
#include "book/book.h"
#include "search/search.h"
#include "tb/tb.h"
#include "search/report.h"

Budget compute_budget(i64 T, i64 I, i32 M, i32 P, bool ponder, i32 move_overhead, int root_move_count, i32 strength,
                      i64 node_limit) {
    // Values outside the advertised ranges are pulled back so the arithmetic stays
    // defined: a clock beyond 30 years, negative moves to go or overhead.
    T = std::clamp<i64>(T, -1000000000000LL, 1000000000000LL);
    I = std::clamp<i64>(I, -1000000000000LL, 1000000000000LL);
    M = std::clamp(M, 0, 1000000);
    P = std::max(P, 0);
    move_overhead = std::clamp(move_overhead, 0, 1000000);

    i64 b;
    if (M != 0)
        b = 2 * T / (M + 4) + I;
    else if (I != 0)
        b = P < 60 ? 4 * T / (100 - P) + I : 4 * T / 40 + I;
    else
        b = P < 60 ? 4 * T / (120 - P) : 4 * T / 60;
    if (ponder) b += b / 10;
    b = std::min(b, std::max<i64>(0, T / 2 - move_overhead / 2));
    if (root_move_count == 1) b /= 10;
    b = std::max<i64>(b, 0);  // an empty or negative clock means "answer at once"

    Budget out;
    out.budget = b;
    out.soft = 28 * b / 64;
    out.hard = 2 * b;
    i64 interval = b < 1000 ? 10 * b + 10 : 10000;
    interval = std::min(interval, node_limit);
    if (strength != 100 || interval < 1) interval = 1;
    out.check_interval = interval;
    return out;
}

static void* worker_main(void* arg) {
    search_root(static_cast<SearchThread*>(arg));
    return nullptr;
}

// Search threads recurse deeply (a move list per frame); give them room whatever the
// process's default stack is.
static bool create_thread(pthread_t* handle, void* (*body)(void*), void* arg, bool detached) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 32u << 20);
    if (detached) pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    int rc = pthread_create(handle, &attr, body, arg);
    pthread_attr_destroy(&attr);
    return rc == 0;
}

void think() {
    SearchShared& sh = search_shared;
    SearchThread* main = sh.main_thread;

    if (engine_options.own_book && search_mode() != 2 && probe_book(main)) {
        sh.search_lock.release();
        return;
    }

    sh.start_time = now_ms();
    int n = sh.thread_count;
    for (int i = 0; i < n; ++i) {
        main[i].progress.store(0, std::memory_order_relaxed);
        main[i].nodes.store(0, std::memory_order_relaxed);
        main[i].tb_hits.store(0, std::memory_order_relaxed);
    }

    sh.tb_root_score = NO_SCORE;
    sh.tb_probe_limit = std::min(engine_options.syzygy_probe_limit, sh.tb_largest);
    Position* root = main->top;
    if (sh.tb_probe_limit >= popcount(root->occupied) && root->castling == 0x8888) {
        main->tb_hits.store(main->root_end - main->root_moves, std::memory_order_relaxed);
        sh.tb_root_score = tb_root_filter(main);
        if (sh.tb_root_score == NO_SCORE)
            main->tb_hits.store(0, std::memory_order_relaxed);
        else
            sh.tb_probe_limit = 0;
    }

    put_table_move_first(main);

    if (n >= 2) {
        // The replay keeps the game's stack short, so it fits the workers' copy.
        int height = int(main->top - main->stack);
        std::memcpy(sh.root_stack, main->stack, size_t(height + 1) * sizeof(Position));
        sh.root_top = sh.root_stack + height;
        int count = int(main->root_end - main->root_moves);
        std::memcpy(sh.root_moves_copy, main->root_moves, size_t(count) * sizeof(ScoredMove));
        sh.root_moves_end = sh.root_moves_copy + count;
    }

    int root_count = int(main->root_end - main->root_moves);
    Budget b = compute_budget(search_limits.time_left, search_limits.increment, search_limits.moves_to_go,
                              search_limits.moves_played, engine_options.ponder, engine_options.move_overhead,
                              root_count, engine_options.strength, search_limits.node_limit);
    sh.tt_generation += 0x2000000;
    search_limits.soft_deadline = sh.start_time + b.soft;
    search_limits.hard_deadline = sh.start_time + b.hard;
    sh.completed_depth.store(0, std::memory_order_relaxed);
    sh.depth_lock.store(0, std::memory_order_relaxed);
    sh.multi_pv_count = std::clamp(engine_options.multi_pv, 1, std::max(root_count, 1));
    search_limits.check_interval = b.check_interval;
    search_limits.next_check = b.check_interval;

    bool started[512] = {};
    for (int i = 1; i < n; ++i) started[i] = create_thread(&main[i].thread_handle, worker_main, &main[i], false);

    search_root(main);

    // A ponder or infinite search that reached its depth holds its answer until
    // ponderhit or stop; a short sleep keeps it from taking a core from the opponent.
    while (search_mode() != 0 && !search_stopped()) {
        timespec pause = {0, 200000};
        nanosleep(&pause, nullptr);
    }
    set_stop();

    SearchThread* best = main;
    for (int i = 1; i < n; ++i) {
        if (!started[i]) continue;
        pthread_join(main[i].thread_handle, nullptr);
        if (main[i].progress.load(std::memory_order_relaxed) > best->progress.load(std::memory_order_relaxed))
            best = &main[i];
    }

    if (sh.multi_pv_count == 1) {
        i64 nodes = 0, hits = 0;
        for (int i = 0; i < n; ++i) {
            nodes += main[i].nodes.load(std::memory_order_relaxed);
            hits += main[i].tb_hits.load(std::memory_order_relaxed);
        }
        i32 done = sh.completed_depth.load(std::memory_order_relaxed);
        i32 depth = done < search_limits.depth_limit ? done + 1 : search_limits.depth_limit;
        report_line(best, 0, sh.tb_root_score, now_ms() - sh.start_time, nodes, hits, depth);
    }
    report_bestmove(best);
    sh.search_lock.release();
}

static void* think_main(void*) {
    think();
    return nullptr;
}

void start_think_thread() {
    SearchThread* main = search_shared.main_thread;
    if (!create_thread(&main->thread_handle, think_main, nullptr, true)) {
        // Without a thread the search cannot run; answer at once rather than hang.
        report_bestmove(main);
        search_shared.search_lock.release();
    }
}
