// The driver of one `go`: book, table filter, budget, threads, result.
#pragma once
#include "search/thread.h"

struct Budget {
    i64 budget;         // ms
    i64 soft;           // ms after the start
    i64 hard;           // ms after the start
    i64 check_interval; // main-thread nodes between clock reads
};

// The time policy as a pure function of the clock situation.
Budget compute_budget(i64 time_left, i64 increment, i32 moves_to_go, i32 moves_played, bool ponder,
                      i32 move_overhead, int root_move_count, i32 strength, i64 node_limit);

// Runs with search_lock held and releases it at its end, on every path.
void think();
// Creates the detached thread that runs think (the `go` command).
void start_think_thread();
