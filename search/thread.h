// Search-thread records, the shared search state and the transposition table entry.
#pragma once
#include <atomic>
#include <csetjmp>
#include <pthread.h>
#include <semaphore>
#include "board/board.h"
#include "eval/accumulator.h"
#include "uci/options.h"

// Two words: key ^ data, then data. Relaxed atomics compile to plain 64-bit moves;
// a torn pair simply fails the XOR test and reads as a miss.
struct TTEntry {
    std::atomic<u64> check;
    std::atomic<u64> data;
};
static_assert(sizeof(TTEntry) == 16);

constexpr u32 BOUND_UPPER = 0;
constexpr u32 BOUND_LOWER = 0x800000;
constexpr u32 BOUND_EXACT = 0x1000000;

struct alignas(64) SearchThread {
    pthread_t thread_handle;
    jmp_buf abort_context;
    Position stack[STACK_SIZE];
    Position* top;
    ScoredMove root_moves[MAX_MOVES];
    ScoredMove* root_end;
    std::atomic<i32> progress;
    std::atomic<i64> nodes;
    std::atomic<i64> tb_hits;
    i32 root_scores[MAX_MOVES];
    i32 static_eval[MAX_PLY];
    u32 killers[MAX_PLY][2];
    u32 counter_moves[2][7][64][64];
    i16 history[2][7][64][64];
    i16 cont_history_1[2][7][64][7][64];
    i16 cont_history_2[2][7][64][7][64];
    PlyRecord ply_records[MAX_PLY];
};

struct SearchShared {
    u64 tt_mask;
    TTEntry* tt;
    SearchThread* main_thread;
    i32 tb_largest;
    i32 tb_probe_limit;
    i32 multi_pv_count;
    u32 previous_move_2, previous_move;
    i32 tb_root_score;
    i64 start_time;
    std::atomic<i32> completed_depth;
    std::atomic<i32> print_lock;
    std::binary_semaphore search_lock{1};
    std::atomic<i32> depth_lock;
    i32 thread_count;
    Position root_stack[256];
    Position* root_top;
    ScoredMove root_moves_copy[MAX_MOVES];
    ScoredMove* root_moves_end;
    u32 tt_generation;
    bool quiet;  // tools and tests: iterations print no info lines
};

extern SearchShared search_shared;

// Spin locks by atomic exchange.
inline void spin_lock(std::atomic<i32>& lock) {
    while (lock.exchange(1, std::memory_order_acquire) != 0) {
    }
}
inline void spin_unlock(std::atomic<i32>& lock) { lock.store(0, std::memory_order_release); }

// now_ms(), the monotonic clock in milliseconds.
#include "search/platform.h"
