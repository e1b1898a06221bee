// The two global records through which everything is configured: the UCI options and
// the limits of the present `go`.
#pragma once
#include <atomic>
#include "board/bitops.h"

struct EngineOptions {
    i32 hash_mb;
    bool ponder;
    i32 draw_score;
    bool own_book;
    char book_file[512];
    bool book_random;
    i32 strength;
    i32 threads;
    i32 move_overhead;
    bool large_pages;
    i32 multi_pv;
    bool chess960;
    bool syzygy_50_move_rule;
    i32 syzygy_probe_limit;
};

// `stop` and `mode` are written by one thread and polled by others: relaxed atomics
// compile to the same plain loads and stores and keep the race well defined.
struct SearchLimits {
    std::atomic<i32> mode;  // 0 plain, 1 ponder, 2 infinite
    i64 time_left;
    i64 increment;
    i64 node_limit;
    i32 moves_to_go;
    i32 depth_limit;
    i32 moves_played;
    std::atomic<u8> stop;
    i64 soft_deadline;
    i64 hard_deadline;
    i64 next_check;
    i64 check_interval;
};

extern EngineOptions engine_options;
extern SearchLimits search_limits;

void set_default_options(EngineOptions* o);

inline bool search_stopped() { return search_limits.stop.load(std::memory_order_relaxed) != 0; }
inline void set_stop() { search_limits.stop.store(1, std::memory_order_relaxed); }
inline i32 search_mode() { return search_limits.mode.load(std::memory_order_relaxed); }
