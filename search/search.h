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

// Sort-score bands of the move lists.
constexpr i32 SCORE_WINNING = 0x7fffff00;       // table move and the floor of winning captures
constexpr i32 SCORE_KILLER = 163835;            // killers and counter moves: the top of the quiet band
constexpr u32 BAD_CAPTURE_BASE = 0x85f5e083u;
constexpr i32 BAD_CAPTURE_LIMIT = -2047483645;  // below this: a losing capture or an under-promotion

// The losing-capture score of a move whose exchange value `see_value` is negative.
inline i32 losing_capture_score(i32 see_value, i32 old_score) {
    return i32(u32(see_value) * 128u + (u32(old_score) & 127u) + BAD_CAPTURE_BASE);
}

// The late-move tail of a list whose best entries pick_best takes one at a time, once
// pruning will pass over every remaining `passed(move)` entry: scanning for each of them
// in turn only to discard it was over half of all picking. The entries it spares are
// written to the front of the list in the order the scans would give (the first to come
// at the end, as pick_best leaves it), leaving out those that `returned(move)` rejects,
// as the picker would; elided[i] is the number of passed-over entries the picker would
// have returned before entry i, which the move count needs, when `counts` asks for it.
// The order is the scans' only where no spared entry shares its score with another
// entry (without `counts`, with another spared one), as a tie would be broken by list
// position: then, and with more spared entries than MAX_TAIL, the list is left alone and
// -1 returned. Otherwise returns the number of entries written.
constexpr int MAX_TAIL = 32;
template <class Passed, class Returned>
int order_late_tail(ScoredMove* list, ScoredMove* end, bool counts, Passed passed, Returned returned, u8* elided) {
    ScoredMove spared[MAX_TAIL];
    int k = 0;
    for (const ScoredMove* e = list; e < end; ++e) {
        if (passed(e->move)) continue;
        if (k == MAX_TAIL) return -1;
        for (const ScoredMove* o = list; o < end; ++o)
            if (o != e && o->score == e->score && (counts || !passed(o->move))) return -1;
        spared[k++] = *e;
    }
    for (int i = 1; i < k; ++i)  // highest score first
        for (int j = i; j > 0 && spared[j - 1].score < spared[j].score; --j) {
            ScoredMove x = spared[j];
            spared[j] = spared[j - 1];
            spared[j - 1] = x;
        }
    ScoredMove kept[MAX_TAIL];
    u8 skipped[MAX_TAIL];
    int count = 0, pending = 0;
    i64 above = i64(INT32_MAX) + 1;  // passed-over entries between the previous spared one and this
    for (int i = 0; i < k; ++i) {
        if (counts)
            for (const ScoredMove* o = list; o < end; ++o)
                if (passed(o->move) && o->score > spared[i].score && o->score < above && returned(o->move)) ++pending;
        above = spared[i].score;
        if (!returned(spared[i].move)) continue;
        kept[count] = spared[i];
        skipped[count++] = u8(pending < 127 ? pending : 127);  // a count beyond 126 reduces no differently
        pending = 0;
    }
    for (int i = 0; i < count; ++i) {
        list[count - 1 - i] = kept[i];
        elided[count - 1 - i] = skipped[i];
    }
    return count;
}

// A line never grows beyond this many plies from the root; the node there returns its
// static value, so the per-ply arrays (MAX_PLY) are never overrun.
constexpr int MAX_SEARCH_PLY = 500;

// The table move of the root, if it stands in the root list, is moved to its front.
void put_table_move_first(SearchThread* thread);

// Single-threaded search of the main thread's root (set up by set_position) for tests
// and tools: to `depth` plies, or until `time_ms` has passed when it is above 0, with
// the MultiPV option's lines. Returns the score and the best move (0 when the root has
// no legal move, with the mate or draw score). The depth reached is
// search_shared.completed_depth afterwards.
i32 search_with_limits(SearchThread* main, int depth, i64 time_ms, u32* best_move);
inline i32 search_fixed_depth(SearchThread* main, int depth, u32* best_move) {
    return search_with_limits(main, depth, 0, best_move);
}

// Between equal scores the entry nearest the end wins, that is the one generated last.
inline void pick_best(ScoredMove* begin, ScoredMove* end) {
    // Index and score kept apart, so that the compiler can choose by conditional moves:
    // which entry is larger is close to a coin toss, and a mispredicted branch per
    // entry was most of this scan's cost.
    int n = int(end - begin), best_i = n - 1;
    i32 best_score = begin[best_i].score;
    for (int i = n - 2; i >= 0; --i) {
        i32 s = begin[i].score;
        bool better = s > best_score;
        best_score = better ? s : best_score;
        best_i = better ? i : best_i;
    }
    ScoredMove* best = begin + best_i;
    ScoredMove tmp = *best;
    *best = end[-1];
    end[-1] = tmp;
}
