// WDL and DTZ probes, with the small search over captures and en passant that the
// tables leave out, and the filtering of the root moves.
#include "tb/tb.h"

static const i32 wdl_to_dtz[5] = {-1, -101, 0, 101, 1};
static const int tb_dtz_map_row[5] = {1, 3, 0, 2, 0};
static const u8 tb_dtz_ply_flag[5] = {8, 0, 0, 0, 4};

static TableEntry* lock_and_load(RegistrySlot* slot, TableEntry* e, const Position* pos, int type) {
    while (tb_load_lock.exchange(1, std::memory_order_acquire) != 0) {
    }
    // Another thread may have loaded the file, or given the table up, meanwhile.
    e = slot->entry.load(std::memory_order_relaxed);
    if (e && !e->ready[type].load(std::memory_order_acquire)) {
        char name[32];
        tb_table_name(pos, e, name);
        if (!tb_load_file(e, name, type)) {
            slot->entry.store(nullptr, std::memory_order_relaxed);
            e = nullptr;
        }
    }
    tb_load_lock.store(0, std::memory_order_release);
    return e;
}

i32 tb_probe_table(SearchThread* thread, i32 wdl, i32* success, int type) {
    const Position* pos = thread->top;
    u64 key = tb_material_key(pos);
    if (type == TB_WDL && key == 2) return 0;

    RegistrySlot* slot = tb_find_slot(key);
    TableEntry* e = slot ? slot->entry.load(std::memory_order_relaxed) : nullptr;
    if (!e || (type == TB_DTZ && !e->has_dtz) || (pos->pawns & 0xff000000000000ffULL)) {
        *success = 0;
        return 0;
    }
    if (!e->ready[type].load(std::memory_order_acquire)) {
        e = lock_and_load(slot, e, pos, type);
        if (!e) {
            *success = 0;
            return 0;
        }
    }

    int black = (pos->flags & POS_BLACK) ? 1 : 0;
    int flip, side;
    if (e->symmetric) {
        flip = black;
        side = 0;
    } else {
        flip = key != e->key;
        side = black ^ flip;
    }

    i32 p[8];
    const IndexLayout* layout;
    u8 flags = 0;
    const u8* dtz_map = nullptr;
    const u16* map_index = nullptr;
    int count = 0;
    if (!e->has_pawns) {
        PieceTableEntry* pe = reinterpret_cast<PieceTableEntry*>(e);
        if (type == TB_DTZ) {
            flags = pe->dtz_flags;
            if (!e->symmetric && (flags & 1) != side) {
                *success = -1;
                return 0;
            }
            layout = &pe->dtz;
            dtz_map = pe->dtz_map;
            map_index = pe->dtz_map_index;
        } else {
            layout = &pe->wdl[side];
        }
        if (!layout->decoder) {
            *success = 0;
            return 0;
        }
        // Each code once: a group's men are gathered at its first position.
        for (int i = 0; i < e->men; ++i) {
            bool seen = false;
            for (int j = 0; j < i; ++j) seen |= layout->pieces[j] == layout->pieces[i];
            if (!seen) count = tb_collect_squares(pos, layout, flip, 0, p, count, i);
        }
    } else {
        PawnTableEntry* pe = reinterpret_cast<PawnTableEntry*>(e);
        int mirror = flip ? 56 : 0;
        const IndexLayout* first = type == TB_WDL ? &pe->wdl[0] : &pe->dtz[0];
        int lead = e->lead_pawns;
        count = tb_collect_squares(pos, first, flip, mirror, p, 0, 0);
        if (count != lead) {
            *success = 0;
            return 0;
        }
        for (int i = 1; i < lead; ++i)
            if (pawn_slot[p[0]] > pawn_slot[p[i]]) {
                i32 t = p[0];
                p[0] = p[i];
                p[i] = t;
            }
        int t = file_fold[p[0] & 7];
        if (type == TB_DTZ) {
            flags = pe->dtz_flags[t];
            if (!e->symmetric && (flags & 1) != side) {
                *success = -1;
                return 0;
            }
            layout = &pe->dtz[t];
            dtz_map = pe->dtz_map;
            map_index = pe->dtz_map_index[t];
        } else {
            layout = &pe->wdl[t + 4 * side];
        }
        if (!layout->decoder) {
            *success = 0;
            return 0;
        }
        for (int i = lead; i < e->men; i += layout->group_size[i] ? layout->group_size[i] : 1)
            count = tb_collect_squares(pos, layout, flip, mirror, p, count, i);
    }
    if (count != e->men) {
        *success = 0;
        return 0;
    }

    u64 index = tb_encode_position(p, layout, e, e->has_pawns);
    u8 value[2];
    if (index >= layout->positions || !tb_decode_value(layout->decoder, index, value)) {
        *success = 0;
        return 0;
    }
    if (type == TB_WDL) {
        if (value[0] > 4) {
            *success = 0;
            return 0;
        }
        return i32(value[0]) - 2;
    }

    u32 v = value[0] | (u32(value[1] & 15) << 8);
    if (flags & 2) {
        u32 list = map_index[tb_dtz_map_row[wdl + 2]];
        u32 entries;
        if (flags & 16) {
            const u8* m = dtz_map + 2 * u64(list);
            entries = list ? u32(m[-2]) | u32(m[-1]) << 8 : 0;
            if (v >= entries) {
                *success = 0;
                return 0;
            }
            v = u32(m[2 * v]) | u32(m[2 * v + 1]) << 8;
        } else {
            const u8* m = dtz_map + list;
            entries = list ? m[-1] : 0;
            if (v >= entries) {
                *success = 0;
                return 0;
            }
            v = m[v];
        }
    }
    if ((wdl & 1) || (flags & tb_dtz_ply_flag[wdl + 2]) == 0) v *= 2;
    return i32(v);
}

// Tags a move before it is played: quiet moves out of a quiet position carry their
// check bit from the generator already.
static inline u32 tagged(const Position* pos, u32 move) {
    if ((pos->flags & POS_IN_CHECK) || (move & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION))) tag_check(pos, &move);
    return move;
}

static ScoredMove* capture_list(const Position* pos, ScoredMove* list) {
    if (pos->flags & POS_IN_CHECK) return gen_evasions(pos, list, 1);
    list = gen_underpromotions(pos, list);
    return gen_captures(pos, list);
}

static ScoredMove* full_list(const Position* pos, ScoredMove* list) {
    if (pos->flags & POS_IN_CHECK) return gen_evasions(pos, list, 1);
    list = gen_underpromotions(pos, list);
    list = gen_quiets(pos, list, 0);
    return gen_captures(pos, list);
}

i32 tb_probe_captures(SearchThread* thread, i32 alpha, i32 beta, i32* success) {
    ScoredMove list[MAX_MOVES];
    const Position* pos = thread->top;
    ScoredMove* end = capture_list(pos, list);
    for (ScoredMove* m = end; m != list;) {
        --m;
        u32 move = m->move;
        if (!(move & MOVE_IS_CAPTURE) || leaves_king_attacked(pos, move)) continue;
        make_move(thread, tagged(pos, move), nullptr);
        i32 r = tb_probe_captures(thread, -beta, -alpha, success);
        thread->top -= 1;
        if (*success == 0) return 0;
        i32 v = -r;
        if (v > alpha) {
            if (v >= beta) return v;
            alpha = v;
        }
    }
    i32 v = tb_probe_table(thread, 0, success, TB_WDL);
    return v > alpha ? v : alpha;
}

i32 tb_probe_wdl(SearchThread* thread, i32* success) {
    *success = 1;
    ScoredMove list[MAX_MOVES];
    const Position* pos = thread->top;
    ScoredMove* end = capture_list(pos, list);
    i32 best_capture = -3, best_ep = -3;
    for (ScoredMove* m = end; m != list;) {
        --m;
        u32 move = m->move;
        if (!(move & MOVE_IS_CAPTURE) || leaves_king_attacked(pos, move)) continue;
        make_move(thread, tagged(pos, move), nullptr);
        i32 r = tb_probe_captures(thread, -2, -best_capture, success);
        thread->top -= 1;
        if (*success == 0) return 0;
        if (-r > best_capture) {
            if (r == -2) {
                *success = 2;
                return 2;
            }
            if (move & MOVE_IS_EN_PASSANT) {
                if (-r > best_ep) best_ep = -r;
            } else {
                best_capture = -r;
            }
        }
    }

    i32 v = tb_probe_table(thread, 0, success, TB_WDL);
    if (*success == 0) return 0;
    if (best_ep > best_capture) {
        best_capture = best_ep;
        if (best_ep > v) {
            *success = 2;
            return best_ep;
        }
    }
    if (best_capture >= v) {
        *success = best_capture > 0 ? 2 : 1;
        return best_capture;
    }
    if (v != 0 || best_ep == -3) return v;

    // The table's draw may be a stalemate of the position without the en-passant
    // capture: any other legal move keeps the draw.
    for (ScoredMove* m = list; m != end; ++m)
        if (!(m->move & MOVE_IS_EN_PASSANT) && !leaves_king_attacked(pos, m->move)) return 0;
    if (!(pos->flags & POS_IN_CHECK)) {
        ScoredMove* quiet_end = gen_quiets(pos, end, 0);
        for (ScoredMove* m = end; m != quiet_end; ++m)
            if (!leaves_king_attacked(pos, m->move)) return 0;
    }
    *success = 2;
    return best_ep;
}

i32 tb_probe_dtz(SearchThread* thread, i32* success) {
    i32 wdl = tb_probe_wdl(thread, success);
    if (*success == 0 || wdl == 0) return 0;
    if (*success == 2) return wdl_to_dtz[wdl + 2];

    i32 w = wdl_to_dtz[wdl + 2];
    ScoredMove list[MAX_MOVES];
    const Position* pos = thread->top;
    ScoredMove* end;
    i32 best;
    if (wdl < 0) {
        i32 c = tb_probe_table(thread, wdl, success, TB_DTZ);
        if (*success >= 0) return w - c;
        best = w;
        end = full_list(pos, list);
    } else {
        end = full_list(pos, list);
        for (ScoredMove* m = end; m != list;) {
            --m;
            u32 move = m->move;
            if (move_piece(move) != PAWN || (move & MOVE_IS_CAPTURE) || leaves_king_attacked(pos, move)) continue;
            make_move(thread, tagged(pos, move), nullptr);
            i32 r = tb_probe_wdl(thread, success);
            thread->top -= 1;
            if (*success == 0) return 0;
            if (-r == wdl) return w;
        }
        i32 c = tb_probe_table(thread, wdl, success, TB_DTZ);
        if (*success >= 0) return w + c;
        best = 0x7fffffff;
    }

    // The file holds the other side to move: one step down the tree.
    for (ScoredMove* m = end; m != list;) {
        --m;
        u32 move = m->move;
        if ((move & MOVE_IS_CAPTURE) || move_piece(move) == PAWN || leaves_king_attacked(pos, move)) continue;
        make_move(thread, tagged(pos, move), nullptr);
        i32 r = tb_probe_dtz(thread, success);
        thread->top -= 1;
        if (*success == 0) return 0;
        if (wdl < 0) {
            if (-r - 1 < best) best = -r - 1;
        } else if (r < 0 && 1 - r < best) {
            best = 1 - r;
        }
    }
    return best;
}

// Material balance of the side to move, as a small bonus on table scores.
static i32 material_bonus(const Position* pos) {
    static const i32 value[6] = {0, 100, 300, 300, 500, 1000};
    u64 own = pos->own, other = pos->occupied ^ pos->own;
    i32 m = 0;
    for (int pc = PAWN; pc <= QUEEN; ++pc)
        m += value[pc] * (popcount(pos->boards[pc] & own) - popcount(pos->boards[pc] & other));
    i32 c = m / 5;
    return c < -200 ? -200 : c > 200 ? 200 : c;
}

i32 tb_root_distances(SearchThread* thread, i32* dtz, i32* distance) {
    i32 success;
    *dtz = tb_probe_dtz(thread, &success);
    if (success == 0) return 0;
    ScoredMove* list = thread->root_moves;
    int count = int(thread->root_end - list);
    for (int i = 0; i < count; ++i) {
        make_move(thread, list[i].move, nullptr);
        const Position* next = thread->top;
        bool mate = false;
        if ((next->flags & POS_IN_CHECK) && *dtz > 0) {
            ScoredMove replies[MAX_MOVES];
            ScoredMove* end = gen_evasions(next, replies, 0);
            mate = true;
            for (ScoredMove* m = replies; m != end && mate; ++m)
                if (!leaves_king_attacked(next, m->move)) mate = false;
        }
        if (mate) {
            distance[i] = 1;
        } else if (next->halfmove_clock != 0) {
            i32 r = tb_probe_dtz(thread, &success);
            distance[i] = r == 0 ? 0 : r > 0 ? -r - 1 : 1 - r;
        } else {
            i32 r = tb_probe_wdl(thread, &success);
            distance[i] = wdl_to_dtz[-r + 2];
        }
        thread->top -= 1;
        if (success == 0) return 0;
    }
    return 1;
}

i32 tb_root_filter(SearchThread* thread) {
    i32 dtz;
    i32 distance[MAX_MOVES];
    if (!tb_root_distances(thread, &dtz, distance)) return NO_SCORE;
    ScoredMove* list = thread->root_moves;
    int count = int(thread->root_end - list);
    const Position* root = thread->top;

    int clock = root->halfmove_clock;
    i32 c = material_bonus(root);
    i32 score;
    if (dtz > 0)
        score = engine_options.syzygy_50_move_rule && dtz + clock > 100 ? 0 : TB_WIN_BASE + c;
    else if (dtz < 0)
        score = engine_options.syzygy_50_move_rule && clock - dtz > 100 ? 0 : c - TB_WIN_BASE;
    else
        score = 0;

    i32 low, high;
    if (dtz > 0) {
        i32 best = 0xffff;
        for (int i = 0; i < count; ++i)
            if (distance[i] > 0 && distance[i] < best) best = distance[i];
        i32 limit = best;
        bool repeated = false;
        long top = long(root - thread->stack), bottom = top - root->halfmove_clock;
        for (long i = top; i >= bottom && i >= 0; i -= 2)
            if (thread->stack[i].flags & POS_REPETITION) {
                repeated = true;
                break;
            }
        if (!repeated && best + clock < 100) limit = 99 - clock;
        low = 1;
        high = limit;
    } else if (dtz < 0) {
        i32 best = 0;
        for (int i = 0; i < count; ++i)
            if (distance[i] < best) best = distance[i];
        if (clock - 2 * best < 100) {
            low = -0x7fffffff;
            high = 0x7fffffff;
        } else {
            low = high = best;
        }
    } else {
        low = high = 0;
    }

    int kept = 0;
    for (int i = 0; i < count; ++i) kept += distance[i] >= low && distance[i] <= high;
    if (kept > 0) {
        int n = 0;
        for (int i = 0; i < count; ++i)
            if (distance[i] >= low && distance[i] <= high) list[n++] = list[i];
        thread->root_end = list + n;
    }
    return score;
}
