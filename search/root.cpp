// The root: the ordered list of legal root moves, iterative deepening with aspiration
// windows, and the end-of-iteration block shared by all search threads.
#include <algorithm>
#include <climits>
#include <csetjmp>
#include <cstring>
#include <ctime>
#include "search/search.h"
#include "search/tt.h"
#include "search/report.h"

namespace {

inline bool is_underpromotion(u32 m) { return (m & MOVE_IS_PROMOTION) && move_promotion(m) != QUEEN; }


// Towards zero, so that long-lived history fades symmetrically.
void halve(i16* cells, size_t count) {
    for (size_t i = 0; i < count; ++i) cells[i] = i16(cells[i] / 2);
}

void age_tables(SearchThread* t) {
    t->killers[0][0] = t->killers[2][0];
    t->killers[0][1] = t->killers[2][1];
    t->killers[1][0] = t->killers[1][1] = 0;
    halve(&t->history[0][0][0][0], sizeof(t->history) / sizeof(i16));
    halve(&t->cont_history_1[0][0][0][0][0], sizeof(t->cont_history_1) / sizeof(i16));
    halve(&t->cont_history_2[0][0][0][0][0], sizeof(t->cont_history_2) / sizeof(i16));
}

// Weakened play: after each iteration the thread idles for a time that grows with the
// depth, never past the soft deadline. Short sleeps stand in for a spin.
void strength_wait(int depth) {
    i64 now = now_ms();
    i64 limit = now + i32((1200 - 12 * engine_options.strength) * depth);
    limit = std::min(limit, search_limits.soft_deadline);
    while (now_ms() <= limit && !search_stopped()) {
        timespec ts{0, 500000};
        nanosleep(&ts, nullptr);
    }
}

inline void set_progress(SearchThread* t, int finished, int depth, i32 best) {
    t->progress.store(finished | (depth << 24) | (i32(u32(best) << 8) + 0x7FFF00), std::memory_order_relaxed);
}

// Runs the iterations; search_root wraps it with the abort target.
void iterate(SearchThread* t) {
    SearchShared& sh = search_shared;
    const Position* root = t->top;
    const bool in_check = root->flags & POS_IN_CHECK;
    const int side = (root->flags >> 3) & 1;
    const u32 pm = sh.previous_move;
    const int count = int(t->root_end - t->root_moves);
    const int mpv = sh.multi_pv_count;

    t->ply_records[0].computed = 0;
    t->static_eval[0] = in_check ? NO_SCORE : evaluate(t, 0);
    age_tables(t);
    t->root_scores[0] = 0;

    int d = 1;
    for (;;) {
        i32 alpha = -32767, beta = 32767;
        if (mpv == 1 && d >= 4) {
            i32 p = t->root_scores[0];
            alpha = p <= -32761 ? -32767 : p - 7;
            beta = p >= 32761 ? 32767 : p + 7;
        }
        i32 delta = 7;
        const bool reduce = d >= 3 && !in_check;

        for (;;) {
            const i32 a0 = alpha, b0 = beta;
            const u32 cm = t->counter_moves[side][move_piece(pm)][move_from(pm)][move_to(pm)];
            for (int i = 0; i < count; ++i) {
                const u32 m = t->root_moves[i].move;
                const i32 q = t->root_moves[i].score;
                const int n = d - 1 + ((m & MOVE_GIVES_CHECK) && !is_underpromotion(m) ? 1 : 0);
                make_move(t, m, &t->ply_records[0].delta);
                t->static_eval[1] = NO_SCORE;
                t->ply_records[1].computed = 0;
                i32 s;
                if (i < mpv) {
                    s = -search(t, NODE_PV, 1, n, -beta, -alpha, 0, m, pm);
                } else {
                    int r = 0;
                    if (reduce &&
                        (q < BAD_CAPTURE_LIMIT ||
                         !(m & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION | MOVE_IS_CASTLING | MOVE_GIVES_CHECK))) &&
                        m != t->killers[0][0] && m != t->killers[0][1] && m != cm) {
                        int k = q < BAD_CAPTURE_LIMIT ? 6 : 1;
                        r = (lmr_table[1][d][std::min(i + 1, 127)] / k + 64) >> 6;
                    }
                    s = -search(t, NODE_CUT, 1, n - r, -alpha - 1, -alpha, 0, m, pm);
                    if (r != 0 && n > 0 && s > alpha) s = -search(t, NODE_CUT, 1, n, -alpha - 1, -alpha, 0, m, pm);
                    if (s > alpha && s < beta) s = -search(t, NODE_PV, 1, n, -beta, -alpha, 0, m, pm);
                }
                t->root_scores[i] = s;
                --t->top;

                if (s > alpha) {
                    int j = 0;
                    while (j < i && s <= t->root_scores[j]) ++j;
                    for (int k = i; k > j; --k) {
                        t->root_moves[k] = t->root_moves[k - 1];
                        t->root_scores[k] = t->root_scores[k - 1];
                    }
                    t->root_moves[j] = ScoredMove{q, m};
                    t->root_scores[j] = s;
                }
                set_progress(t, i + 1, d, t->root_scores[0]);
                if (s >= beta) break;
                if (i >= mpv - 1) alpha = t->root_scores[mpv - 1];
            }

            const i32 s = t->root_scores[0];
            if (s > a0 && s < b0) break;
            set_progress(t, 0, d, s);
            if (delta > 65533) {
                alpha = -32767;
                beta = 32767;
            } else if (s <= a0) {
                beta = (a0 + b0) / 2;
                alpha = s - delta < -32766 ? -32767 : s - delta;
            } else {
                beta = std::min(s + delta, 32767);
            }
            delta += (delta * 6) >> 3;
        }

        // End of iteration.
        if (engine_options.strength != 100) strength_wait(d);
        spin_lock(sh.depth_lock);
        if (d > sh.completed_depth.load(std::memory_order_relaxed)) {
            sh.completed_depth.store(d, std::memory_order_relaxed);
            tt_write(root->key, tt_pack(d, pack_move(t->root_moves[0].move), BOUND_EXACT, sh.tt_generation,
                                        t->root_scores[0], t->static_eval[0]));
            i64 now = now_ms();
            if (!sh.quiet) {
                i64 nodes = 0, tb_hits = 0;
                for (int k = 0; k < sh.thread_count; ++k) {
                    nodes += sh.main_thread[k].nodes.load(std::memory_order_relaxed);
                    tb_hits += sh.main_thread[k].tb_hits.load(std::memory_order_relaxed);
                }
                for (int k = mpv - 1; k >= 0; --k)
                    report_line(t, k, sh.tb_root_score, now - sh.start_time, nodes, tb_hits, d);
            }
            if (search_mode() == 0 && now >= search_limits.soft_deadline) set_stop();
        }
        const int c = sh.completed_depth.load(std::memory_order_relaxed);
        spin_unlock(sh.depth_lock);
        if (c >= search_limits.depth_limit || search_stopped()) return;
        d = c + 1;
    }
}

}  // namespace

ScoredMove* generate_root_moves(SearchThread* t, ScoredMove* out) {
    const Position* pos = t->top;
    const bool in_check = pos->flags & POS_IN_CHECK;
    ScoredMove list[MAX_MOVES];
    ScoredMove* end;
    if (in_check) {
        end = gen_evasions(pos, list, 1);
    } else {
        end = gen_underpromotions(pos, list);
        end = gen_quiets(pos, end, 0);
        end = gen_captures(pos, end);
    }

    const int side = (pos->flags >> 3) & 1;
    const u32 pm = search_shared.previous_move, pm2 = search_shared.previous_move_2;
    ScoredMove* kept = list;
    for (ScoredMove* e = list; e < end; ++e) {
        u32 m = e->move;
        if (leaves_king_attacked(pos, m)) continue;
        const bool tactical = m & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION);
        if (tactical || in_check) tag_check(pos, &m);
        i32 score = e->score;
        if (tactical) {
            if (!is_underpromotion(m)) {
                i32 v = see(pos, m);
                if (v < 0) score = losing_capture_score(v, score);
            }
        } else {
            const u32 plain = m & ~MOVE_GIVES_CHECK;
            const int pc = move_piece(m), from = move_from(m), to = move_to(m);
            if (plain == t->killers[2][0])
                score = 163838;
            else if (plain == t->killers[2][1])
                score = 163837;
            else if (plain == t->counter_moves[side][move_piece(pm)][move_from(pm)][move_to(pm)])
                score = 163836;
            else
                score += t->history[side][pc][from][to] +
                         t->cont_history_1[side][move_piece(pm)][move_to(pm)][pc][to] +
                         t->cont_history_2[side][move_piece(pm2)][move_to(pm2)][pc][to];
        }
        *kept++ = ScoredMove{score, m};
    }

    ScoredMove* o = out;
    for (ScoredMove* rest = kept; rest > list; --rest) {
        pick_best(list, rest);
        *o++ = rest[-1];
    }
    return o;
}

void put_table_move_first(SearchThread* t) {
    u64 data;
    if (!tt_read(t->top->key, &data) || tt_move(data) == 0) return;
    const u32 m = validate_packed_move(t->top, tt_move(data));
    if (!m) return;
    for (ScoredMove* e = t->root_moves; e < t->root_end; ++e)
        if (e->move == m) {
            ScoredMove found = *e;
            for (; e > t->root_moves; --e) *e = e[-1];
            t->root_moves[0] = found;
            return;
        }
}

void search_root(SearchThread* t) {
    SearchShared& sh = search_shared;
    if (t != sh.main_thread) {
        const long height = sh.root_top - sh.root_stack;
        std::memcpy(t->stack, sh.root_stack, sizeof(Position) * size_t(height + 1));
        t->top = t->stack + height;
        const long count = sh.root_moves_end - sh.root_moves_copy;
        std::memcpy(t->root_moves, sh.root_moves_copy, sizeof(ScoredMove) * size_t(count));
        t->root_end = t->root_moves + count;
    }
    Position* const saved_top = t->top;
    if (setjmp(t->abort_context) != 0) {
        t->top = saved_top;
        return;
    }
    iterate(t);
}

i32 search_with_limits(SearchThread* main, int depth, i64 time_ms, u32* best_move) {
    SearchShared& sh = search_shared;
    main->root_end = generate_root_moves(main, main->root_moves);
    const int count = int(main->root_end - main->root_moves);
    *best_move = 0;
    sh.completed_depth.store(0, std::memory_order_relaxed);
    if (count == 0) return (main->top->flags & POS_IN_CHECK) ? -MATE_VALUE : draw_value(0);

    const i64 start = now_ms();
    const i64 never = i64(1) << 60;
    search_limits.mode.store(0, std::memory_order_relaxed);
    search_limits.time_left = 1000000000000;
    search_limits.increment = 0;
    search_limits.node_limit = INT64_MAX;
    search_limits.moves_to_go = 0;
    search_limits.depth_limit = std::clamp(depth, 1, 127);
    search_limits.stop.store(0, std::memory_order_relaxed);
    search_limits.soft_deadline = time_ms > 0 ? start + time_ms : never;
    search_limits.hard_deadline = time_ms > 0 ? start + time_ms : never;
    search_limits.check_interval = 10000;
    search_limits.next_check = 10000;

    sh.start_time = start;
    for (int k = 0; k < sh.thread_count; ++k) {
        sh.main_thread[k].progress.store(0, std::memory_order_relaxed);
        sh.main_thread[k].nodes.store(0, std::memory_order_relaxed);
        sh.main_thread[k].tb_hits.store(0, std::memory_order_relaxed);
    }
    sh.tb_root_score = NO_SCORE;
    sh.tb_probe_limit = std::min(engine_options.syzygy_probe_limit, sh.tb_largest);
    sh.multi_pv_count = std::clamp(engine_options.multi_pv, 1, count);
    put_table_move_first(main);
    sh.tt_generation += 0x2000000;
    sh.depth_lock.store(0, std::memory_order_relaxed);

    search_root(main);
    set_stop();
    *best_move = main->root_moves[0].move;
    return main->root_scores[0];
}
