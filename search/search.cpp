// The recursive search below the root and the quiescence search at its horizon.
//
// Nothing here owns an object with a destructor: a stopped search leaves every frame at
// once by a longjmp to the thread's abort_context (set by search_root).
#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstdlib>
#include "search/search.h"
#include "search/tt.h"
#include "tb/tb.h"

i32 lmr_table[2][128][128];

void init_lmr_table() {
    for (int d = 0; d < 128; ++d)
        for (int m = 0; m < 128; ++m) {
            if (d == 0 || m == 0) {
                lmr_table[0][d][m] = lmr_table[1][d][m] = 0;
                continue;
            }
            double ld = std::log2(double(d)), lm = std::log2(double(m));
            lmr_table[0][d][m] = i32((18.0 * ld) * lm);
            lmr_table[1][d][m] = i32((15.0 * ld) * lm);
        }
}

namespace {

constexpr u32 STAND_PAT_MOVE = 520;  // "stand pat raised alpha": never played, never stored
constexpr i32 delta_value[8] = {0, 164, 393, 420, 572, 1061, 0, 0};
constexpr i32 SAFE_SCORE = MATE_THRESHOLD - 1;  // largest score outside the mate range

inline bool in_check_(const Position* pos) { return pos->flags & POS_IN_CHECK; }
inline int side_of(const Position* pos) { return (pos->flags >> 3) & 1; }
inline bool same_move(u32 a, u32 b) { return ((a ^ b) & ~MOVE_GIVES_CHECK) == 0; }
inline bool is_tactical(u32 m) { return m & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION); }
inline bool is_quiet_kind(u32 m) {
    return !(m & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION | MOVE_IS_CASTLING | MOVE_GIVES_CHECK));
}
inline i32 iabs(i32 x) { return x < 0 ? -x : x; }

// Exchange value stored in a losing-capture sort score (one below the true value).
inline bool in_losing_band(i32 s) { return u32(s) + 2147483645u <= 99999999u; }
inline i32 see_from_sort_score(i32 s) { return (s + 2047483646) >> 7; }

inline void count_node(SearchThread* t) {
    t->nodes.store(t->nodes.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

// The table slot of the position after a capture, to be fetched while the moves before
// it are searched. Castling rights and a new en-passant file are left out: a slot missed
// now and then costs only the fetch.
inline void prefetch_after(const Position* pos, u32 m) {
    const int s = pos->flags & POS_BLACK, piece = move_piece(m), from = move_from(m), to = move_to(m);
    const int arrived = (m & MOVE_IS_PROMOTION) ? move_promotion(m) : piece;
    u64 key = pos->key ^ zobrist[1036] ^ zobrist[(piece + s) * 64 + from] ^ zobrist[(arrived + s) * 64 + to];
    const int c = (m & MOVE_IS_EN_PASSANT) ? to - 8 : to;
    key ^= zobrist[((((move_captured(m) + 8) ^ s) * 64) + c) ^ 56];
    const int ep = ep_file(pos->flags);
    if (ep != EP_NONE) key ^= zobrist[1028 + ep];
    __builtin_prefetch(tt_slot(key));
}

inline void prefetch_captures(const Position* pos, const ScoredMove* begin, const ScoredMove* end) {
    for (const ScoredMove* e = begin; e < end; ++e)
        if (e->move & MOVE_IS_CAPTURE) prefetch_after(pos, e->move);
}

// Head of every node: the main thread polls the clock and node limit every
// check_interval nodes; every thread leaves at once when stop is set.
inline void poll_and_count(SearchThread* t) {
    if (t == search_shared.main_thread) {
        i64 nodes = t->nodes.load(std::memory_order_relaxed);
        if (search_limits.next_check <= nodes) {
            search_limits.next_check += search_limits.check_interval;
            if (search_mode() == 0) {
                i64 now = now_ms();
                if (now > search_limits.hard_deadline || nodes >= search_limits.node_limit) set_stop();
            }
        }
    }
    if (search_stopped()) longjmp(t->abort_context, 1);
    count_node(t);
}

inline bool insufficient_material(const Position* pos) {
    return (pos->pawns | pos->rooks | pos->queens) == 0 && popcount(pos->knights | pos->bishops) <= 1;
}

// Fifty-move rule: a draw unless the side to move is mated right now.
i32 fifty_move_score(const Position* pos, int ply) {
    if (!in_check_(pos)) return draw_value(ply);
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_evasions(pos, list, 0);
    while (end > list) {
        --end;
        if (!leaves_king_attacked(pos, end->move)) return draw_value(ply);
    }
    return ply - MATE_VALUE;
}

inline int count_diff(const Position* pos, u64 board) {
    return popcount(board & pos->own) - popcount(board & (pos->occupied ^ pos->own));
}

// Tablebase verdicts, nudged by material so that a better balance scores better.
i32 tb_score(const Position* pos, bool win, int ply) {
    i32 m = 100 * count_diff(pos, pos->pawns) + 300 * count_diff(pos, pos->knights) +
            300 * count_diff(pos, pos->bishops) + 500 * count_diff(pos, pos->rooks) +
            1000 * count_diff(pos, pos->queens);
    i32 c = std::clamp(m / 5, -200, 200);
    return win ? c + TB_WIN_BASE - ply : c - TB_WIN_BASE + ply;
}

inline bool tb_probe_allowed(const Position* pos) {
    return popcount(pos->occupied) <= search_shared.tb_probe_limit && pos->halfmove_clock == 0 &&
           pos->castling == 0x8888;
}


void score_quiets(SearchThread* t, const Position* pos, ScoredMove* begin, ScoredMove* end, u32 prev_move,
                  u32 prev_move_2) {
    int side = side_of(pos);
    const i16(*hist)[64][64] = t->history[side];
    const i16(*c1)[64] = t->cont_history_1[side][move_piece(prev_move)][move_to(prev_move)];
    const i16(*c2)[64] = t->cont_history_2[side][move_piece(prev_move_2)][move_to(prev_move_2)];
    for (ScoredMove* e = begin; e < end; ++e) {
        u32 m = e->move;
        if (is_tactical(m)) continue;
        int pc = move_piece(m), to = move_to(m);
        e->score += hist[pc][move_from(m)][to] + 2 * (i32(c1[pc][to]) + i32(c2[pc][to]));
    }
}

inline void update_history_entry(i16* cell, i32 bonus) {
    i32 c = *cell;
    c = c + bonus - (iabs(bonus) * c) / 32767;
    *cell = i16(c);
}

inline void add_history(SearchThread* t, int side, u32 m, u32 prev_move, u32 prev_move_2, i32 bonus) {
    int pc = move_piece(m), to = move_to(m);
    update_history_entry(&t->history[side][pc][move_from(m)][to], bonus);
    update_history_entry(&t->cont_history_1[side][move_piece(prev_move)][move_to(prev_move)][pc][to], bonus);
    update_history_entry(&t->cont_history_2[side][move_piece(prev_move_2)][move_to(prev_move_2)][pc][to], bonus);
}

inline void remember_killer(SearchThread* t, int ply, u32 m) {
    if (m != t->killers[ply][0]) {
        t->killers[ply][1] = t->killers[ply][0];
        t->killers[ply][0] = m;
    }
}

inline u32* counter_slot(SearchThread* t, int side, u32 prev_move) {
    return &t->counter_moves[side][move_piece(prev_move)][move_from(prev_move)][move_to(prev_move)];
}

// After a quiet move cut off: reward it, punish the quiets tried before it.
void update_quiet_stats(SearchThread* t, const Position* pos, int ply, int depth, u32 best_move,
                        const u32* quiets, int quiet_count, u32 prev_move, u32 prev_move_2) {
    int side = side_of(pos);
    i32 bonus = 16 * std::min(depth * depth, 1600);
    add_history(t, side, best_move, prev_move, prev_move_2, bonus);
    for (int i = quiet_count - 1; i >= 0; --i) add_history(t, side, quiets[i], prev_move, prev_move_2, -bonus);
    if (!in_check_(pos)) {
        u32 m = best_move & ~MOVE_GIVES_CHECK;
        remember_killer(t, ply, m);
        *counter_slot(t, side, prev_move) = m;
    }
}

// The staged move picker of a full-width node: a stage number and one list, in the
// frame of the node.
struct MovePicker {
    int stage;
    u32 tt_move;
    u32 counter;  // looked up at stage 5; 0 until then
    u64 pinned;   // pinned_men, from the generation stage on
    int elided;   // moves of a late-move tail passed over before the one just returned
    bool tail_tried;
    ScoredMove* end;
    ScoredMove list[MAX_MOVES];
    u8 tail_elided[MAX_TAIL];
};

enum : int {
    PICK_TT = 0,
    PICK_GENERATE,
    PICK_GOOD_CAPTURES,
    PICK_KILLER_1,
    PICK_KILLER_2,
    PICK_COUNTER,
    PICK_QUIETS,
    PICK_REST,
    PICK_SCORE_ONLY,  // in check: the scoring pass of the quiet stage, without generation
    PICK_TAIL,        // late-move pruning has begun: only the moves it spares, in order
};

// Killers and the counter move are quiet moves that quiet_is_possible admits; out of
// check (the only time they are tried) the pins decide their legality as they decide
// that of the generators' moves.
inline bool playable_quiet(const Position* pos, u32 m, u32 tt_move, u64 pinned) {
    return m && !same_move(m, tt_move) && quiet_is_possible(pos, m) && !exposes_king(pos, m, pinned);
}

// Whether the last stage returns an entry of its list: out of check the killers and the
// counter move have had stages of their own, the table move came first, and a pinned man
// may not leave its line. The late-move tail filters by the same rule.
inline bool rest_returns(const SearchThread* t, const MovePicker* mp, const Position* pos, int ply, bool in_check,
                         u32 m) {
    if (!in_check &&
        (same_move(m, t->killers[ply][0]) || same_move(m, t->killers[ply][1]) || same_move(m, mp->counter)))
        return false;
    return !same_move(m, mp->tt_move) && !exposes_king(pos, m, mp->pinned);
}

u32 next_move(SearchThread* t, MovePicker* mp, const Position* pos, int ply, int depth, bool in_check,
              u32 prev_move, u32 prev_move_2, i32* score) {
    switch (mp->stage) {
        case PICK_TT:
            mp->stage = PICK_GENERATE;
            if (mp->tt_move) {
                *score = SCORE_WINNING;
                return mp->tt_move;
            }
            [[fallthrough]];
        case PICK_GENERATE:
            mp->end = in_check ? gen_evasions(pos, mp->list, depth >= 8) : gen_captures(pos, mp->list);
            prefetch_captures(pos, mp->list, mp->end);
            mp->pinned = pinned_men(pos);
            mp->stage = PICK_GOOD_CAPTURES;
            [[fallthrough]];
        case PICK_GOOD_CAPTURES:
            while (mp->end > mp->list) {
                pick_best(mp->list, mp->end);
                ScoredMove* e = mp->end - 1;
                if (e->score < SCORE_WINNING) break;
                mp->end = e;
                u32 m = e->move;
                if (same_move(m, mp->tt_move) || exposes_king(pos, m, mp->pinned)) continue;
                if (piece_value[move_piece(m)] > piece_value[move_captured(m)]) {
                    i32 v = see(pos, m);
                    if (v < 0) {
                        e->score = losing_capture_score(v, e->score);
                        mp->end = e + 1;
                        continue;
                    }
                }
                tag_check(pos, &m);
                *score = e->score;
                return m;
            }
            if (in_check) {
                mp->stage = PICK_SCORE_ONLY;
                return next_move(t, mp, pos, ply, depth, in_check, prev_move, prev_move_2, score);
            }
            mp->stage = PICK_KILLER_1;
            [[fallthrough]];
        case PICK_KILLER_1: {
            mp->stage = PICK_KILLER_2;
            u32 k = t->killers[ply][0];
            if (playable_quiet(pos, k, mp->tt_move, mp->pinned)) {
                tag_check(pos, &k);
                *score = SCORE_KILLER;
                return k;
            }
        }
            [[fallthrough]];
        case PICK_KILLER_2: {
            mp->stage = PICK_COUNTER;
            u32 k = t->killers[ply][1];
            if (playable_quiet(pos, k, mp->tt_move, mp->pinned)) {
                tag_check(pos, &k);
                *score = SCORE_KILLER;
                return k;
            }
        }
            [[fallthrough]];
        case PICK_COUNTER: {
            mp->stage = PICK_QUIETS;
            u32 c = *counter_slot(t, side_of(pos), prev_move);
            mp->counter = c;
            if (c != t->killers[ply][0] && c != t->killers[ply][1] && playable_quiet(pos, c, mp->tt_move, mp->pinned)) {
                tag_check(pos, &c);
                *score = SCORE_KILLER;
                return c;
            }
        }
            [[fallthrough]];
        case PICK_QUIETS: {
            ScoredMove* quiets = mp->end;
            if (depth >= 8) mp->end = gen_underpromotions(pos, mp->end);
            mp->end = gen_quiets(pos, mp->end, 0);
            score_quiets(t, pos, quiets, mp->end, prev_move, prev_move_2);
            mp->stage = PICK_REST;
            return next_move(t, mp, pos, ply, depth, in_check, prev_move, prev_move_2, score);
        }
        case PICK_TAIL:
            if (mp->end == mp->list) return 0;
            {
                ScoredMove* e = --mp->end;
                u32 m = e->move;
                if (is_tactical(m)) tag_check(pos, &m);
                mp->elided = mp->tail_elided[e - mp->list];
                *score = e->score;
                return m;
            }
        case PICK_SCORE_ONLY:
            score_quiets(t, pos, mp->list, mp->end, prev_move, prev_move_2);
            mp->stage = PICK_REST;
            [[fallthrough]];
        case PICK_REST:
            while (mp->end > mp->list) {
                pick_best(mp->list, mp->end);
                ScoredMove* e = --mp->end;
                u32 m = e->move;
                if (!rest_returns(t, mp, pos, ply, in_check, m)) continue;
                if (in_check || is_tactical(m)) tag_check(pos, &m);
                *score = e->score;
                return m;
            }
            return 0;
    }
    return 0;
}

// Once late-move pruning passes over every remaining quiet move of the plain kind (out
// of check, below depth 8), the list is cut to the moves it spares (order_late_tail).
void enter_lmp_tail(SearchThread* t, MovePicker* mp, const Position* pos, int ply, int depth) {
    mp->tail_tried = true;
    auto returned = [&](u32 m) { return rest_returns(t, mp, pos, ply, false, m); };
    const int count = order_late_tail(mp->list, mp->end, depth >= 3, is_quiet_kind, returned, mp->tail_elided);
    if (count < 0) return;
    mp->end = mp->list + count;
    mp->stage = PICK_TAIL;
}

// The picker of the quiescence search: table move, captures (evasions in check), then
// at depth 0 the quiet checks, each tested for legality as it comes.
struct QPicker {
    int stage;
    u32 tt_move;
    u64 pinned;  // pinned_men, from the generation stage on
    ScoredMove* end;
    ScoredMove list[MAX_MOVES];
};

u32 next_qmove(SearchThread* t, QPicker* mp, const Position* pos, bool in_check, bool past_horizon,
               u32 prev_move, u32 prev_move_2) {
    switch (mp->stage) {
        case 0:
            mp->stage = 1;
            if (mp->tt_move) return mp->tt_move;
            [[fallthrough]];
        case 1:
            mp->end = in_check ? gen_evasions(pos, mp->list, 0) : gen_captures(pos, mp->list);
            prefetch_captures(pos, mp->list, mp->end);
            mp->pinned = pinned_men(pos);
            mp->stage = 2;
            [[fallthrough]];
        case 2:
            while (mp->end > mp->list) {
                pick_best(mp->list, mp->end);
                ScoredMove* e = mp->end - 1;
                if (e->score < SCORE_WINNING) break;
                mp->end = e;
                u32 m = e->move;
                if (same_move(m, mp->tt_move) || exposes_king(pos, m, mp->pinned)) continue;
                tag_check(pos, &m);
                return m;
            }
            if (!in_check && !past_horizon) mp->end = gen_quiets(pos, mp->end, 1);
            score_quiets(t, pos, mp->list, mp->end, prev_move, prev_move_2);
            mp->stage = 3;
            [[fallthrough]];
        case 3:
            while (mp->end > mp->list) {
                pick_best(mp->list, mp->end);
                u32 m = (--mp->end)->move;
                if (same_move(m, mp->tt_move) || exposes_king(pos, m, mp->pinned)) continue;
                if (!(m & MOVE_GIVES_CHECK)) tag_check(pos, &m);
                return m;
            }
            return 0;
    }
    return 0;
}

inline void store_entry(u64 key, int depth, u32 move, u32 bound, i32 score, int ply, i32 eval) {
    tt_write(key, tt_pack(depth, move ? pack_move(move) : 0, bound, search_shared.tt_generation,
                          score_to_tt(score, ply), eval));
}

inline void push_move(SearchThread* t, u32 m, int ply) {
    make_move(t, m, &t->ply_records[ply].delta);
    // The child reads its table slot first thing; start the fetch now.
    __builtin_prefetch(tt_slot(t->top->key));
    t->static_eval[ply + 1] = NO_SCORE;
    t->ply_records[ply + 1].computed = 0;
}

// A line may not run off the per-ply arrays nor off the position stack.
inline bool at_line_limit(const SearchThread* t, int ply) {
    return ply >= MAX_SEARCH_PLY || t->top >= t->stack + (STACK_SIZE - 1);
}

// ProbCut: a capture that beats beta by a margin in a shallow search cuts the node.
// Its captures picker uses the node's (not yet started) picker list. Returns NO_SCORE
// when no capture cuts.
i32 probcut(SearchThread* t, MovePicker* mp, const Position* pos, int ply, int depth, i32 beta, u32 packed,
            u32 prev_move) {
    const i32 probcut_beta = beta + 150;
    u32 first = packed ? validate_packed_move(pos, packed) : 0;
    if (!is_tactical(first)) first = 0;
    ScoredMove* end = nullptr;
    for (;;) {
        u32 m = 0;
        if (first && !end) {
            m = first;
            end = gen_captures(pos, mp->list);
        } else {
            if (!end) end = gen_captures(pos, mp->list);
            while (end > mp->list) {
                pick_best(mp->list, end);
                u32 c = (--end)->move;
                if (same_move(c, first) || leaves_king_attacked(pos, c)) continue;
                tag_check(pos, &c);
                m = c;
                break;
            }
            if (!m) return NO_SCORE;
        }
        i32 need = probcut_beta - t->static_eval[ply];
        i32 gain = piece_value[move_captured(m)];
        if (m & MOVE_IS_PROMOTION) gain += piece_value[move_promotion(m)] - 100;
        if (gain < need || see(pos, m) < need) continue;
        push_move(t, m, ply);
        i32 score = -search(t, NODE_ALL, ply + 1, 2, -probcut_beta, -probcut_beta + 1, 0, m, prev_move);
        if (depth >= 7 && score >= probcut_beta)
            score = -search(t, NODE_ALL, ply + 1, depth - 4, -probcut_beta, -probcut_beta + 1, 0, m, prev_move);
        --t->top;
        if (score >= probcut_beta) return score;
    }
}

}  // namespace

i32 search(SearchThread* t, i32 node_type, int ply, int depth, i32 alpha, i32 beta, u32 excluded, u32 prev_move,
           u32 prev_move_2) {
    if (depth < 1) return qsearch(t, node_type, ply, 0, alpha, beta, prev_move, prev_move_2);
    poll_and_count(t);

    const Position* pos = t->top;
    const bool in_check = in_check_(pos);
    if (pos->flags & POS_REPETITION) return draw_value(ply);
    if (pos->halfmove_clock >= 100) return fifty_move_score(pos, ply);
    if (insufficient_material(pos)) return draw_value(ply);
    if (at_line_limit(t, ply)) return evaluate(t, ply);

    // Mate distance.
    alpha = std::max(alpha, ply - MATE_VALUE);
    beta = std::min(beta, MATE_VALUE - 1 - ply);
    if (alpha >= beta) return alpha;

    u64 key = pos->key;
    if (excluded) key ^= zobrist[move_from(excluded)] ^ zobrist[move_to(excluded)];

    // Probe.
    u64 data;
    // The sums are formed while the slot that make_move asked for is on its way.
    if (!in_check && t->static_eval[ply] == NO_SCORE) form_sums(t, ply);
    const bool tt_hit = tt_read(key, &data);
    i32 tt_s = NO_SCORE;
    int tt_d = 0;
    u32 tt_b = BOUND_UPPER;
    u32 packed = 0;
    i32 node_eval = t->static_eval[ply];
    if (tt_hit) {
        tt_s = score_from_tt(tt_score(data), ply);
        tt_d = tt_depth_byte(data) - 128;
        tt_b = tt_bound(data);
        packed = tt_move(data);
        if (tt_d >= depth &&
            (tt_b == BOUND_EXACT || (tt_b == BOUND_LOWER && tt_s >= beta) || (tt_b == BOUND_UPPER && tt_s <= alpha))) {
            // A table cut-off still teaches the killers and the counter move.
            if (!in_check && tt_s >= beta && packed && !(packed & 0x6000) &&
                !((pos->occupied ^ pos->own) & bit(int((packed >> 6) & 63))) && packed_is_pseudo_legal(pos, packed)) {
                u32 m = unpack_move(pos, packed);
                remember_killer(t, ply, m);
                *counter_slot(t, side_of(pos), prev_move) = m;
            }
            return tt_s;
        }
        i32 e = tt_eval(data);
        t->static_eval[ply] = e;
        if (in_check || tt_b == BOUND_EXACT)
            node_eval = tt_s;
        else if (tt_b == BOUND_LOWER)
            node_eval = std::max(tt_s, e);
        else
            node_eval = std::min(tt_s, e);
    }

    // Tablebases.
    if (!excluded && tb_probe_allowed(pos)) {
        i32 success = 0;
        i32 wdl = tb_probe_wdl(t, &success);
        if (success) {
            t->tb_hits.store(t->tb_hits.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            i32 r = engine_options.syzygy_50_move_rule ? 1 : 0;
            if (wdl < -r) {
                i32 s = tb_score(pos, false, ply);
                if (s <= alpha) return s;
            } else if (wdl <= r) {
                return draw_value(ply);
            } else {
                i32 s = tb_score(pos, true, ply);
                if (s >= beta) return s;
            }
        }
    }

    // Static evaluation.
    if (t->static_eval[ply] == NO_SCORE && !in_check) {
        t->static_eval[ply] = evaluate_formed(t, ply);
        node_eval = t->static_eval[ply];
    }
    const i32 se = t->static_eval[ply];
    const bool improving =
        ply < 2 || se == NO_SCORE || t->static_eval[ply - 2] == NO_SCORE || se >= t->static_eval[ply - 2];

    t->killers[ply + 1][0] = t->killers[ply + 1][1] = 0;

    MovePicker mp;
    mp.stage = PICK_TT;
    mp.elided = 0;
    mp.tail_tried = false;
    mp.tt_move = 0;
    mp.counter = 0;

    // Node-level pruning.
    if (!excluded && node_type != NODE_PV && !in_check) {
        // Reverse futility.
        if (depth <= 5) {
            i32 margin = 55 * (depth - (improving ? 1 : 0));
            if (node_eval - margin >= beta && iabs(beta) <= SAFE_SCORE && iabs(node_eval) <= SAFE_SCORE)
                return node_eval;
        }
        // Null move.
        if (depth >= 4 && prev_move && node_eval >= beta && se >= beta - 20 * depth &&
            (pos->own & (pos->knights | pos->bishops | pos->rooks | pos->queens))) {
            make_null_move(t);
            t->static_eval[ply + 1] = 5 - se;
            t->ply_records[ply + 1].computed = 0;
            FeatureDelta& fd = t->ply_records[ply].delta;
            fd.added_count = fd.removed_count = 0;
            fd.king_moved = 0;
            i32 excess = node_eval - beta;
            int child_depth = ((24 * depth) >> 5) - 3 - (excess > 399 ? 3 : excess / 100);
            i32 score = -search(t, NODE_ALL, ply + 1, child_depth, -beta, -alpha, 0, 0, 0);
            --t->top;
            if (score >= beta) return iabs(score) > SAFE_SCORE ? beta : score;
        }
        // ProbCut.
        if (depth >= 6 && iabs(beta) <= SAFE_SCORE) {
            i32 score = probcut(t, &mp, pos, ply, depth, beta, packed, prev_move);
            if (score != NO_SCORE) return score;
        }
    }

    // Internal iterative deepening.
    if (!excluded && node_type == NODE_PV && depth >= 4 && packed == 0) {
        search(t, NODE_PV, ply, ((7 * depth) >> 3) - 2, alpha, beta, 0, prev_move, prev_move_2);
        u64 d2;
        packed = tt_read(key, &d2) ? tt_move(d2) : 0;
    }

    const u32 tt_move_ = packed ? validate_packed_move(pos, packed) : 0;
    mp.tt_move = tt_move_;

    // Per-node limits.
    const int lmp_limit = ((improving ? 22 : 10) * depth) >> 2;
    const i32 futility_value = node_eval + 55 * depth;
    const i32 see_threshold = -75 * depth;
    const bool singular_allowed = depth >= 6 && !excluded;
    const bool lmr_allowed = depth >= 3 && !in_check;

    int moves_seen = 0;
    i32 best_score = NO_SCORE;
    u32 best_move = 0;
    u32 quiets_tried[MAX_MOVES];
    int quiet_count = 0;

    for (;;) {
        i32 s;
        u32 m = next_move(t, &mp, pos, ply, depth, in_check, prev_move, prev_move_2, &s);
        if (!m) break;
        moves_seen += mp.elided;
        const int n = moves_seen++;
        if (m == excluded) continue;

        if (n != 0) {
            const bool plain = is_quiet_kind(m) && !in_check;
            if (depth < 8 && plain) {
                if (n >= lmp_limit) {
                    if (mp.stage == PICK_REST && !mp.tail_tried) enter_lmp_tail(t, &mp, pos, ply, depth);
                    continue;
                }
                if (m != t->killers[ply][0] && m != t->killers[ply][1] && m != mp.counter && futility_value < alpha &&
                    iabs(alpha) <= SAFE_SCORE && iabs(node_eval) <= SAFE_SCORE)
                    continue;
            }
            if (depth < 3 && plain) {
                int pc = move_piece(m), to = move_to(m), side = side_of(pos);
                if (t->cont_history_1[side][move_piece(prev_move)][move_to(prev_move)][pc][to] < 0 &&
                    t->cont_history_2[side][move_piece(prev_move_2)][move_to(prev_move_2)][pc][to] < 0)
                    continue;
            }
            if (depth <= 6 && !in_check) {
                if (is_tactical(m)) {
                    if (in_losing_band(s) && see_from_sort_score(s) <= see_threshold) continue;
                } else {
                    int pc = move_piece(m);
                    if (see_threshold >= -piece_value[pc] && pc != KING && see(pos, m) <= see_threshold) continue;
                }
            }
        }

        // Extensions.
        int extension = 0;
        if (node_type == NODE_PV && (m & MOVE_GIVES_CHECK) && s >= BAD_CAPTURE_LIMIT) {
            if (s >= SCORE_WINNING || see(pos, m) >= 0) extension = 1;
        }
        if (singular_allowed && m == tt_move_ && extension == 0 && tt_hit && iabs(tt_s) <= SAFE_SCORE &&
            tt_b == BOUND_LOWER && tt_d + 3 >= depth) {
            i32 singular_beta = tt_s - 2 * depth;
            i32 value = search(t, NODE_ALL, ply, (6 * depth) >> 4, singular_beta - 1, singular_beta, tt_move_,
                               prev_move, prev_move_2);
            if (value < singular_beta)
                extension = 1;
            else if (singular_beta >= beta)
                return singular_beta;
        }

        push_move(t, m, ply);
        const int new_depth = depth - 1 + extension;
        i32 score;
        if (n == 0) {
            i32 child = node_type == NODE_PV ? NODE_PV : node_type ^ NODE_CUT;
            score = -search(t, child, ply + 1, new_depth, -beta, -alpha, 0, m, prev_move);
        } else {
            int r = 0;
            if (lmr_allowed && m != t->killers[ply][0] && m != mp.counter && m != t->killers[ply][1] &&
                (s < BAD_CAPTURE_LIMIT || is_quiet_kind(m))) {
                i32 cell = lmr_table[node_type == NODE_PV ? 1 : 0][depth][std::min(n + 1, 127)];
                if (s < BAD_CAPTURE_LIMIT) cell /= 6;
                r = (cell + 64) >> 6;
            }
            i32 child = node_type == NODE_PV ? NODE_CUT : node_type ^ NODE_CUT;
            score = -search(t, child, ply + 1, new_depth - r, -alpha - 1, -alpha, 0, m, prev_move);
            if (r != 0 && score > alpha)
                score = -search(t, child, ply + 1, new_depth, -alpha - 1, -alpha, 0, m, prev_move);
            if (node_type == NODE_PV && score > alpha && score < beta)
                score = -search(t, NODE_PV, ply + 1, new_depth, -beta, -alpha, 0, m, prev_move);
        }
        --t->top;

        if (score > best_score) best_score = score;
        if (score > alpha) {
            best_move = m;
            alpha = score;
            if (alpha >= beta) break;
        }
        if (!is_tactical(m)) quiets_tried[quiet_count++] = m;
    }

    if (moves_seen == 0) return in_check ? ply - MATE_VALUE : draw_value(ply);
    if (best_score == NO_SCORE) {
        if (alpha == NO_SCORE) return NO_SCORE;
        best_score = alpha;
    }

    if (!excluded && alpha >= beta && !is_tactical(best_move))
        update_quiet_stats(t, pos, ply, depth, best_move, quiets_tried, quiet_count, prev_move, prev_move_2);

    // Store; an exact entry of this search stays unless a PV node replaces it.
    u64 slot = tt_slot(key)->data.load(std::memory_order_relaxed);
    if (node_type != NODE_PV && tt_depth_byte(slot) >= 129 &&
        tt_generation_bits(slot) == search_shared.tt_generation && tt_bound(slot) == BOUND_EXACT)
        return best_score;
    u32 bound = best_move == 0 ? BOUND_UPPER : alpha >= beta ? BOUND_LOWER : BOUND_EXACT;
    store_entry(key, depth, best_move ? best_move : tt_move_, bound, best_score, ply, t->static_eval[ply]);
    return best_score;
}

i32 qsearch(SearchThread* t, i32 node_type, int ply, int depth, i32 alpha, i32 beta, u32 prev_move,
            u32 prev_move_2) {
    poll_and_count(t);

    const Position* pos = t->top;
    const bool in_check = in_check_(pos);
    if (pos->flags & POS_REPETITION) return draw_value(ply);
    if (pos->halfmove_clock >= 100) return fifty_move_score(pos, ply);
    if (insufficient_material(pos)) return draw_value(ply);
    if ((depth < -16 && !in_check) || at_line_limit(t, ply)) return evaluate(t, ply);

    const bool past_horizon = depth != 0 && !in_check;

    u64 data;
    u32 packed = 0;
    i32 node_eval = t->static_eval[ply];
    if (!in_check && node_eval == NO_SCORE) form_sums(t, ply);
    if (tt_read(pos->key, &data)) {
        i32 s = score_from_tt(tt_score(data), ply);
        int d = tt_depth_byte(data) - 128;
        u32 b = tt_bound(data);
        if ((d >= 0 || (past_horizon && d >= -1)) &&
            (b == BOUND_EXACT || (b == BOUND_LOWER && s >= beta) || (b == BOUND_UPPER && s <= alpha)))
            return s;
        i32 e = tt_eval(data);
        t->static_eval[ply] = e;
        if (in_check || b == BOUND_EXACT)
            node_eval = s;
        else if (b == BOUND_LOWER)
            node_eval = std::max(e, s);
        else
            node_eval = std::min(e, s);
        packed = tt_move(data);
    }

    if (tb_probe_allowed(pos)) {
        i32 success = 0;
        i32 wdl = tb_probe_wdl(t, &success);
        if (success) {
            t->tb_hits.store(t->tb_hits.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
            i32 r = engine_options.syzygy_50_move_rule ? 1 : 0;
            if (wdl < -r) {
                i32 s = tb_score(pos, false, ply);
                if (s <= alpha) return s;
            } else if (wdl <= r) {
                return draw_value(ply);
            } else {
                i32 s = tb_score(pos, true, ply);
                if (s >= beta) return s;
            }
        }
    }

    const u32 tt_move_ = packed ? validate_packed_move(pos, packed) : 0;

    i32 best_score = NO_SCORE;
    u32 best_move = 0;
    if (!in_check) {
        if (t->static_eval[ply] == NO_SCORE) {
            t->static_eval[ply] = evaluate_formed(t, ply);
            node_eval = t->static_eval[ply];
        }
        best_score = node_eval;
        if (node_eval > alpha) {
            best_move = tt_move_ ? tt_move_ : STAND_PAT_MOVE;
            alpha = node_eval;
        }
    }

    if (alpha < beta) {
        QPicker mp;
        mp.stage = 0;
        mp.tt_move = tt_move_;
        int moves_seen = 0;
        const i32 child_type = node_type == NODE_PV ? NODE_PV : node_type ^ NODE_CUT;
        for (;;) {
            u32 m = next_qmove(t, &mp, pos, in_check, past_horizon, prev_move, prev_move_2);
            if (!m) break;
            ++moves_seen;
            const int mover = piece_value[move_piece(m)], victim = piece_value[move_captured(m)];
            if (in_check) {
                if (best_score >= -SAFE_SCORE && mover > victim && see(pos, m) < 0) continue;
            } else {
                const bool plain_capture =
                    (m & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION | MOVE_GIVES_CHECK)) == MOVE_IS_CAPTURE;
                if (node_type != NODE_PV && plain_capture && m != tt_move_ &&
                    delta_value[move_captured(m)] + node_eval < alpha && iabs(alpha) <= SAFE_SCORE &&
                    iabs(node_eval) <= SAFE_SCORE)
                    continue;
                if ((m & MOVE_GIVES_CHECK) && mover > victim && see(pos, m) < 0) continue;
                if (plain_capture && mover >= victim && see(pos, m) <= 0) continue;
            }
            push_move(t, m, ply);
            i32 score = -qsearch(t, child_type, ply + 1, depth - 1, -beta, -alpha, m, prev_move);
            --t->top;
            if (score > best_score) best_score = score;
            if (score > alpha) {
                best_move = m;
                alpha = score;
                if (alpha >= beta) break;
            }
        }
        if (in_check && moves_seen == 0) return ply - MATE_VALUE;
    }

    // Store, unless the slot holds an entry that search wrote in this search.
    u64 slot = tt_slot(pos->key)->data.load(std::memory_order_relaxed);
    if (tt_generation_bits(slot) == search_shared.tt_generation && tt_depth_byte(slot) > 128) return best_score;
    u32 bound = best_move == 0 ? BOUND_UPPER : alpha < beta ? BOUND_EXACT : BOUND_LOWER;
    u32 stored = best_move && best_move != STAND_PAT_MOVE ? best_move : tt_move_;
    store_entry(pos->key, past_horizon ? -1 : 0, stored, bound, best_score, ply, t->static_eval[ply]);
    return best_score;
}
