// The records that every subsystem reads: score constants, the option and limit
// records, the per-ply accumulator record, the search-thread record, the shared search
// state and the table entry. They sit at the bottom of the include order (this header
// needs only the board's types), so that the board, the evaluation, the book and the
// tables can take a SearchThread or read an option without including the search or
// the protocol front end above them.
#pragma once
#include <atomic>
#include <csetjmp>
#include <pthread.h>
#include <semaphore>
#include "board/board.h"

// Score scale, from the side to move's view.
constexpr i32 NO_SCORE = -32767;
constexpr i32 MATE_VALUE = 32766;      // a side mated at ply p scores p - MATE_VALUE
constexpr i32 MATE_THRESHOLD = 31966;  // above this in absolute value: mate range
constexpr i32 TB_WIN_BASE = 32526;
constexpr i32 EVAL_LIMIT = 30966;      // evaluate() stays within +-EVAL_LIMIT

// The two global records through which everything is configured: the UCI options and
// the limits of the present `go`.
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

// The defaults of every option (written by the front end, uci/options.cpp).
void set_default_options(EngineOptions* o);

inline bool search_stopped() { return search_limits.stop.load(std::memory_order_relaxed) != 0; }
inline void set_stop() { search_limits.stop.store(1, std::memory_order_relaxed); }
inline i32 search_mode() { return search_limits.mode.load(std::memory_order_relaxed); }

// Per-ply records of the search: the FeatureDelta of the move made at the ply and the
// first-layer sums (the accumulator) of the position at the ply.
constexpr int HALF_SIZE = 256;

struct alignas(64) PlyRecord {
    u8 computed;          // sums valid
    FeatureDelta delta;   // the move made at this ply
    alignas(64) i16 sums[2][HALF_SIZE];  // half 0: side to move at this ply
};

// The sums of one half as they were last formed for one king square, with the men they
// count (in the owner's frame: own pawns to queens, then the enemy's) and the castling
// rows (bit 0 king-side, bit 1 queen-side). A half whose king has moved is formed from
// here by the men that differ, instead of from every man on the board.
struct alignas(64) KingCacheEntry {
    i16 sums[HALF_SIZE];
    u64 men[10];
    u8 castling;
};

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
    // By the owner's real colour and king square; it holds for the image and the
    // image generation below, and is rebuilt from the biases when either differs.
    KingCacheEntry king_cache[2][64];
    const void* king_cache_image = nullptr;
    u32 king_cache_generation = 0;
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

// Monotonic clock in milliseconds.
i64 now_ms();
