// Move generation: evasions, captures, under-promotions and quiet moves, each in a
// fixed order with its sort scores, plus the castling tests they share.
#include "board/board_internal.h"
#include "board/records.h"

namespace {

constexpr i32 SCORE_EP = 0x7fffff0e;
constexpr i32 SCORE_QUEEN_PROMO = 0x7fffff2e;
constexpr i32 SCORE_UNDER_KNIGHT = i32(0x80000002u);
constexpr i32 SCORE_UNDER_BISHOP = i32(0x80000000u);
constexpr i32 SCORE_UNDER_ROOK = i32(0x80000001u);

constexpr u32 EP_FLAGS = MOVE_IS_CAPTURE | MOVE_IS_EN_PASSANT | (u32(PAWN) << 15) | PAWN;
constexpr u32 PROMO_FLAGS = MOVE_IS_PROMOTION | PAWN;

// Most valuable victim first, least valuable attacker first among equals.
inline i32 capture_score(int attacker, int victim) { return 0x7fffff00 + (7 - attacker) + 8 * victim; }

inline u32 capture_word(int piece, int from, int to, int victim) {
    return make_move_word(piece, from, to) | u32(victim) << 15 | MOVE_IS_CAPTURE;
}

inline ScoredMove* put(ScoredMove* l, i32 score, u32 move) {
    l->score = score;
    l->move = move;
    return l + 1;
}

inline u64 piece_attacks(int piece, int sq, u64 occ) {
    switch (piece) {
        case KNIGHT: return knight_attack_table[sq];
        case BISHOP: return bishop_attacks(sq, occ);
        case ROOK: return rook_attacks(sq, occ);
        default: return bishop_attacks(sq, occ) | rook_attacks(sq, occ);
    }
}

// Three under-promotions in the order knight, bishop, rook.
inline ScoredMove* put_under(ScoredMove* l, u32 base) {
    l = put(l, SCORE_UNDER_KNIGHT, base | u32(KNIGHT) << 18);
    l = put(l, SCORE_UNDER_BISHOP, base | u32(BISHOP) << 18);
    return put(l, SCORE_UNDER_ROOK, base | u32(ROOK) << 18);
}

// Whether the opponent attacks a square of `test` (all on rank 1), looking only upward.
// `king_skip` removes enemy-king squares from the leaper test.
bool rank1_attacked(const Position* p, u64 test, u64 king_skip) {
    if (!test) return false;
    u64 occ = p->occupied, opp = occ ^ p->own;
    u64 knights = 0, kings = 0, sliders = 0;
    for (u64 t = test; t;) {
        int s = pop_lsb(t);
        knights |= knight_attack_table[s];
        kings |= king_attack_table[s];
        sliders |= rook_attacks(s, occ) & (FILE_A << s) & (p->rooks | p->queens);
        sliders |= bishop_attacks(s, occ) & (p->bishops | p->queens);
    }
    u64 att = sliders | (knights & p->knights) | (kings & ~king_skip & p->kings) |
              (enemy_pawn_sources(test) & p->pawns);
    return (att & opp) != 0;
}

}  // namespace

bool castling_allowed(const Position* p, int side) {
    int r = (p->castling >> (4 * side)) & 15;
    if (r >= NO_RIGHT) return false;
    u64 occ = p->occupied;
    if (!engine_options.chess960) {
        // Classic array: king on e1, rooks in the corners. A king on h2 is left to the
        // legality test of the destination. The men are looked for only so that a
        // change of rules under a set-up position cannot conjure a rook.
        if (!(p->kings & p->own & bit(4)) || !(p->rooks & p->own & bit(side ? 0 : 7))) return false;
        if (side == 0) return !(occ & 0x60) && !rank1_attacked(p, 0x60, bit(15));
        return !(occ & 0x0e) && !rank1_attacked(p, 0x0c, 0);
    }
    int k = own_king_square(p);
    if (k > 7 || k == r || !(p->rooks & p->own & bit(r))) return false;
    if (castle_empty[side][k][r] & occ) return false;
    u64 far = castle_far[side][r] & occ;
    if (far) {
        int s = side == 0 ? lsb(far) : msb(far);
        if (bit(s) & (occ ^ p->own) & (p->rooks | p->queens)) return false;
    }
    return !rank1_attacked(p, castle_test[side][k], 0);
}

bool castle_gives_check(const Position* p, int to) {
    int r = to == 6 ? (p->castling & 15) : ((p->castling >> 4) & 15);
    u64 enemy_king = p->kings & (p->occupied ^ p->own);
    u64 o = p->occupied ^ (p->kings & p->own) ^ (r < 8 ? bit(r) : 0);
    if (to == 6) {
        u64 f = o & 0x2020202020202000ULL;
        if (f && (bit(lsb(f)) & enemy_king)) return true;
        u64 g = o & 0x1f;
        return g && (bit(msb(g)) & enemy_king);
    }
    u64 f = o & 0x0808080808080800ULL;
    if (f && (bit(lsb(f)) & enemy_king)) return true;
    u64 g = o & 0xf0;
    return g && (bit(lsb(g)) & enemy_king);
}

ScoredMove* gen_captures(const Position* p, ScoredMove* l) {
    const u64 own = p->own, opp = p->occupied ^ own;
    const int k = own_king_square(p);
    for (u64 t = king_attack_table[k] & opp; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, capture_score(KING, v), capture_word(KING, k, to, v));
    }
    for (int pc = QUEEN; pc >= KNIGHT; --pc) {
        for (u64 men = p->boards[pc] & own; men;) {
            int from = pop_lsb(men);
            for (u64 t = piece_attacks(pc, from, p->occupied) & opp; t;) {
                int to = pop_lsb(t), v = piece_on(p, to);
                l = put(l, capture_score(pc, v), capture_word(pc, from, to, v));
            }
        }
    }
    const u64 pawns = p->pawns & own;
    for (u64 t = (pawns << 9) & opp & 0xfefefefefefe00ULL; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, capture_score(PAWN, v), capture_word(PAWN, to - 9, to, v));
    }
    for (u64 t = (pawns << 7) & opp & 0x7f7f7f7f7f7f00ULL; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, capture_score(PAWN, v), capture_word(PAWN, to - 7, to, v));
    }
    int f = ep_file(p->flags);
    if (f != EP_NONE) {
        for (u64 men = pawns & ep_capturers_rank5[f]; men;) {
            int from = pop_lsb(men);
            l = put(l, SCORE_EP, EP_FLAGS | u32(from) << 3 | u32(40 + f) << 9);
        }
    }
    if (!(pawns & RANK_7)) return l;
    const u32 queen = PROMO_FLAGS | u32(QUEEN) << 18;
    for (u64 t = (pawns << 8) & ~p->occupied & RANK_8; t;) {
        int to = pop_lsb(t);
        l = put(l, SCORE_QUEEN_PROMO, queen | u32(to - 8) << 3 | u32(to) << 9);
    }
    for (u64 t = (pawns << 9) & opp & 0xfe00000000000000ULL; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, SCORE_QUEEN_PROMO + 8 * v, queen | capture_word(0, to - 9, to, v));
    }
    for (u64 t = (pawns << 7) & opp & 0x7f00000000000000ULL; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, SCORE_QUEEN_PROMO + 8 * v, queen | capture_word(0, to - 7, to, v));
    }
    return l;
}

ScoredMove* gen_underpromotions(const Position* p, ScoredMove* l) {
    const u64 own = p->own, opp = p->occupied ^ own, pawns = p->pawns & own;
    if (!(pawns & RANK_7)) return l;
    for (u64 t = (pawns << 8) & ~p->occupied & RANK_8; t;) {
        int to = pop_lsb(t);
        l = put_under(l, PROMO_FLAGS | u32(to - 8) << 3 | u32(to) << 9);
    }
    for (u64 t = (pawns << 9) & opp & 0xfe00000000000000ULL; t;) {
        int to = pop_lsb(t);
        l = put_under(l, PROMO_FLAGS | capture_word(0, to - 9, to, piece_on(p, to)));
    }
    for (u64 t = (pawns << 7) & opp & 0x7f00000000000000ULL; t;) {
        int to = pop_lsb(t);
        l = put_under(l, PROMO_FLAGS | capture_word(0, to - 7, to, piece_on(p, to)));
    }
    return l;
}

ScoredMove* gen_evasions(const Position* p, ScoredMove* l, int with_underpromotions) {
    const u64 occ = p->occupied, own = p->own, opp = occ ^ own, empty = ~occ;
    const int k = own_king_square(p);
    const u64 checkers = opp & ((enemy_pawn_sources(bit(k)) & p->pawns) | (knight_attack_table[k] & p->knights) |
                                (bishop_attacks(k, occ) & (p->bishops | p->queens)) |
                                (rook_attacks(k, occ) & (p->rooks | p->queens)));
    for (u64 t = king_attack_table[k] & opp; t;) {
        int to = pop_lsb(t), v = piece_on(p, to);
        l = put(l, capture_score(KING, v), capture_word(KING, k, to, v));
    }
    for (u64 t = king_attack_table[k] & empty; t;) l = put(l, 0, make_move_word(KING, k, pop_lsb(t)));
    if (!checkers || (checkers & (checkers - 1))) return l;

    const int c = lsb(checkers);
    const int victim = piece_on(p, c);
    const u64 target = between_table[k][c] | bit(c);
    for (int pc = QUEEN; pc >= KNIGHT; --pc) {
        for (u64 men = p->boards[pc] & own; men;) {
            int from = pop_lsb(men);
            u64 att = piece_attacks(pc, from, occ) & target;
            if (att & opp) l = put(l, capture_score(pc, victim), capture_word(pc, from, c, victim));
            for (u64 t = att & empty; t;) l = put(l, 0, make_move_word(pc, from, pop_lsb(t)));
        }
    }
    const u64 pawns = p->pawns & own;
    const u64 single = (pawns << 8) & empty;
    for (u64 t = single & target; t;) {
        int to = pop_lsb(t);
        u32 m = make_move_word(PAWN, to - 8, to);
        if (to >= 56) {
            l = put(l, SCORE_QUEEN_PROMO, m | MOVE_IS_PROMOTION | u32(QUEEN) << 18);
            if (with_underpromotions) l = put_under(l, m | MOVE_IS_PROMOTION);
        } else {
            l = put(l, 0, m);
        }
    }
    const u64 cb = bit(c);
    for (u64 men = pawns & (((cb >> 7) & 0xfefefefefefefefeULL) | ((cb >> 9) & 0x7f7f7f7f7f7f7f7fULL)); men;) {
        int from = pop_lsb(men);
        u32 m = capture_word(PAWN, from, c, victim);
        if (c >= 56) {
            l = put(l, SCORE_QUEEN_PROMO + 8 * victim, m | MOVE_IS_PROMOTION | u32(QUEEN) << 18);
            if (with_underpromotions) l = put_under(l, m | MOVE_IS_PROMOTION);
        } else {
            l = put(l, capture_score(PAWN, victim), m);
        }
    }
    for (u64 t = ((single & RANK_3) << 8) & empty & target & RANK_4; t;) {
        int to = pop_lsb(t);
        l = put(l, 0, make_move_word(PAWN, to - 16, to));
    }
    const int f = ep_file(p->flags);
    if (victim == PAWN && (c >> 3) == 4 && (c & 7) == f) {
        for (u64 men = pawns & ep_capturers_rank5[f]; men;) {
            int from = pop_lsb(men);
            l = put(l, SCORE_EP, EP_FLAGS | u32(from) << 3 | u32(40 + f) << 9);
        }
    }
    return l;
}

ScoredMove* gen_quiets(const Position* p, ScoredMove* l, int checks_only) {
    const u64 occ = p->occupied, own = p->own, empty = ~occ;
    const int k = own_king_square(p), e = enemy_king_square(p);
    const u64 bishop_rays = bishop_attacks(e, occ), rook_rays = rook_attacks(e, occ);
    u64 rook_disc = 0, bishop_disc = 0, king_line = 0;

    // Own men that stand alone between an own slider and the enemy king.
    if (u64 blockers = rook_rays & own) {
        for (u64 sl = rook_attacks(e, occ ^ blockers) & own & (p->rooks | p->queens); sl;) {
            int s = pop_lsb(sl);
            u64 b = between_table[e][s] & blockers;
            if (b & p->kings)
                king_line = between_table[e][s];
            else if ((b & (p->knights | p->bishops)) || direction_table[e][s] < 2)
                rook_disc |= b;
        }
    }
    if (u64 blockers = bishop_rays & own) {
        for (u64 sl = bishop_attacks(e, occ ^ blockers) & own & (p->bishops | p->queens); sl;) {
            int s = pop_lsb(sl);
            u64 b = between_table[e][s] & blockers;
            if (b & p->kings)
                king_line = between_table[e][s];
            else
                bishop_disc |= b;
        }
    }
    const u64 any_disc = rook_disc | bishop_disc;
    const u64 knight_checks = knight_attack_table[e];
    const u64 pawn_checks = own_pawn_sources(bit(e));
    // With checks_only a move that gives no check is written and not kept.
    const int keep_all = checks_only ? 0 : 1;
    auto emit = [&](u32 m, bool check) {
        l->score = 0;
        l->move = m | (check ? MOVE_GIVES_CHECK : 0);
        l += keep_all | int(check);
    };

    for (u64 t = king_attack_table[k] & empty; t;) {
        int to = pop_lsb(t);
        emit(make_move_word(KING, k, to), king_line && !(king_line & bit(to)));
    }
    for (u64 men = p->queens & own; men;) {
        int from = pop_lsb(men);
        for (u64 t = (bishop_attacks(from, occ) | rook_attacks(from, occ)) & empty; t;) {
            int to = pop_lsb(t);
            emit(make_move_word(QUEEN, from, to), ((bishop_rays | rook_rays) >> to) & 1);
        }
    }
    for (u64 men = p->rooks & own; men;) {
        int from = pop_lsb(men);
        u64 checks = (bishop_disc & bit(from)) ? ~0ULL : rook_rays;
        for (u64 t = rook_attacks(from, occ) & empty; t;) {
            int to = pop_lsb(t);
            emit(make_move_word(ROOK, from, to), (checks >> to) & 1);
        }
    }
    for (u64 men = p->bishops & own; men;) {
        int from = pop_lsb(men);
        u64 checks = (rook_disc & bit(from)) ? ~0ULL : bishop_rays;
        for (u64 t = bishop_attacks(from, occ) & empty; t;) {
            int to = pop_lsb(t);
            emit(make_move_word(BISHOP, from, to), (checks >> to) & 1);
        }
    }
    for (u64 men = p->knights & own; men;) {
        int from = pop_lsb(men);
        u64 checks = (any_disc & bit(from)) ? ~0ULL : knight_checks;
        for (u64 t = knight_attack_table[from] & empty; t;) {
            int to = pop_lsb(t);
            emit(make_move_word(KNIGHT, from, to), (checks >> to) & 1);
        }
    }
    const u64 single = ((p->pawns & own) << 8) & empty & 0x00ffffffffffff00ULL;
    for (u64 t = single; t;) {
        int to = pop_lsb(t);
        emit(make_move_word(PAWN, to - 8, to), ((any_disc >> (to - 8)) & 1) | ((pawn_checks >> to) & 1));
    }
    for (u64 t = ((single & RANK_3) << 8) & empty; t;) {
        int to = pop_lsb(t);
        emit(make_move_word(PAWN, to - 16, to), ((any_disc >> (to - 16)) & 1) | ((pawn_checks >> to) & 1));
    }
    if (checks_only) return l;
    if (castling_allowed(p, 1)) emit(make_move_word(KING, k, 2) | MOVE_IS_CASTLING, castle_gives_check(p, 2));
    if (castling_allowed(p, 0)) emit(make_move_word(KING, k, 6) | MOVE_IS_CASTLING, castle_gives_check(p, 6));
    return l;
}

ScoredMove* gen_pseudo_legal(const Position* p, ScoredMove* list) {
    if (p->flags & POS_IN_CHECK) return gen_evasions(p, list, 1);
    ScoredMove* end = gen_underpromotions(p, list);
    end = gen_quiets(p, end, 0);
    return gen_captures(p, end);
}

ScoredMove* gen_legal(const Position* p, ScoredMove* list) {
    ScoredMove* end = gen_pseudo_legal(p, list);
    ScoredMove* out = list;
    for (ScoredMove* m = list; m < end; ++m) {
        if (leaves_king_attacked(p, m->move)) continue;
        u32 mv = m->move;
        tag_check(p, &mv);
        *out++ = ScoredMove{m->score, mv};
    }
    return out;
}

namespace {

// Legal moves of the pawns in `pawns` (all free to leave their line, or all pinned to
// the same ray `line`) onto `target`; a promotion counts its four pieces.
inline int count_pawn_moves(u64 pawns, u64 empty, u64 opp, u64 target) {
    const u64 single = (pawns << 8) & empty;
    const u64 pushes = (single | ((single & RANK_3) << 8 & empty)) & target;
    const u64 left = (pawns << 7) & opp & 0x7f7f7f7f7f7f7f7fULL & target;
    const u64 right = (pawns << 9) & opp & 0xfefefefefefefefeULL & target;
    return popcount(pushes) + popcount(left) + popcount(right) +
           3 * (popcount(pushes & RANK_8) + popcount(left & RANK_8) + popcount(right & RANK_8));
}

}  // namespace

int count_legal_moves(const Position* p) {
    const u64 occ = p->occupied, own = p->own, opp = occ ^ own, empty = ~occ;
    const int k = own_king_square(p);
    int n = 0;
    // The king's squares, each tested with the king gone from its origin.
    const u64 without_king = occ ^ bit(k);
    const u64 diag = (p->bishops | p->queens) & opp, straight = (p->rooks | p->queens) & opp;
    for (u64 t = king_attack_table[k] & ~own; t;) {
        const int to = pop_lsb(t);
        const u64 att = (p->knights & knight_attack_table[to]) | (p->kings & king_attack_table[to]) |
                        (p->pawns & enemy_pawn_sources(bit(to))) | (bishop_attacks(to, without_king) & diag) |
                        (rook_attacks(to, without_king) & straight);
        n += !(att & opp & ~bit(to));
    }

    u64 target = ~own;
    int checker = -1;
    if (p->flags & POS_IN_CHECK) {
        const u64 checkers = opp & ((enemy_pawn_sources(bit(k)) & p->pawns) | (knight_attack_table[k] & p->knights) |
                                    (bishop_attacks(k, occ) & (p->bishops | p->queens)) |
                                    (rook_attacks(k, occ) & (p->rooks | p->queens)));
        if (checkers & (checkers - 1)) return n;
        checker = lsb(checkers);
        target = between_table[k][checker] | checkers;
    }

    const u64 pinned = pinned_men(p);
    for (int pc = KNIGHT; pc <= QUEEN; ++pc) {
        for (u64 men = p->boards[pc] & own; men;) {
            const int from = pop_lsb(men);
            u64 t = piece_attacks(pc, from, occ) & target;
            if (pinned & bit(from)) t &= ray_table[k][from];
            n += popcount(t);
        }
    }
    const u64 pawns = p->pawns & own;
    n += count_pawn_moves(pawns & ~pinned, empty, opp, target);
    for (u64 men = pawns & pinned; men;) {
        const int from = pop_lsb(men);
        n += count_pawn_moves(bit(from), empty, opp, target & ray_table[k][from]);
    }

    // En passant empties a second square, and castling crosses several: both keep the
    // full test. In check en passant only answers the double step that gave it.
    const int f = ep_file(p->flags);
    if (f != EP_NONE && (checker < 0 || checker == 32 + f)) {
        for (u64 men = pawns & ep_capturers_rank5[f]; men;)
            n += !leaves_king_attacked(p, EP_FLAGS | u32(pop_lsb(men)) << 3 | u32(40 + f) << 9);
    }
    if (checker < 0) {
        for (int side = 0; side < 2; ++side)
            if (castling_allowed(p, side))
                n += !leaves_king_attacked(p, make_move_word(KING, k, side ? 2 : 6) | MOVE_IS_CASTLING);
    }
    return n;
}
