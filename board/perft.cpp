// Leaf counts of the legal move tree, through the same generators, tags and make_move
// that the search uses; the last ply is counted, not listed, by count_legal_moves.
#include "board/board.h"
#include "board/records.h"

// The pseudo-legal moves of the top position, tagged the way the search tags them:
// quiet moves keep the generator's mark, all others go through tag_check when made.
static ScoredMove* gen_all(const Position* p, ScoredMove* list) {
    if (p->flags & POS_IN_CHECK) return gen_evasions(p, list, 1);
    ScoredMove* end = gen_underpromotions(p, list);
    end = gen_quiets(p, end, 0);
    return gen_captures(p, end);
}

u64 perft(SearchThread* thread, int depth) {
    if (depth <= 0) return 1;
    const Position* p = thread->top;
    if (depth == 1) return u64(count_legal_moves(p));
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_all(p, list);
    const u64 pinned = pinned_men(p);
    u64 nodes = 0;
    const bool in_check = p->flags & POS_IN_CHECK;
    for (ScoredMove* m = list; m < end; ++m) {
        u32 mv = m->move;
        if (exposes_king(p, mv, pinned)) continue;
        // Quiet moves carry their mark from gen_quiets; everything else is tagged here.
        if (in_check || (mv & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION))) tag_check(p, &mv);
        make_move(thread, mv, nullptr);
        nodes += perft(thread, depth - 1);
        --thread->top;
    }
    return nodes;
}
