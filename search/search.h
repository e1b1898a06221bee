// The search: engine memory, the recursive search, the horizon and the root.
#pragma once
#include "search/thread.h"
#include "search/score.h"

constexpr i32 NODE_PV = 0x1000000;
constexpr i32 NODE_CUT = 0x800000;
constexpr i32 NODE_ALL = 0;

extern i32 lmr_table[2][128][128];
void init_lmr_table();

// Frees any old block and allocates the table and thread records anew (exits with
// "Memory allocation error" when even the smallest table does not fit).
void engine_memory_init(i64* large_page_mark);
void engine_memory_release(i64 large_page_mark);
void clear_thread_memory(SearchThread* thread, u64 entries);

i32 search(SearchThread* thread, i32 node_type, int ply, int depth, i32 alpha, i32 beta, u32 excluded, u32 prev_move,
           u32 prev_move_2);
i32 qsearch(SearchThread* thread, i32 node_type, int ply, int depth, i32 alpha, i32 beta, u32 prev_move,
            u32 prev_move_2);

ScoredMove* generate_root_moves(SearchThread* thread, ScoredMove* list);
void search_root(SearchThread* thread);

inline i32 draw_value(int ply) { return (1 - 2 * (ply & 1)) * engine_options.draw_score; }
