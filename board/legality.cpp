// Legality of pseudo-legal moves, check tagging, packed moves from the table, and the
// static exchange evaluation.
#include "board/board_internal.h"

// The attack test proper, for the moves that the short cut below does not settle.
static u64 king_attacked_after(const Position* p, u32 move) {
    const int from = move_from(move), to = move_to(move);
    u64 occ = (p->occupied ^ bit(from)) | bit(to);
    u64 attackers = (p->occupied ^ p->own) & ~bit(to);
    int s;
    u64 leapers = 0;
    if (move_piece(move) == KING) {
        s = to;
        leapers = (p->knights & knight_attack_table[to]) | (p->kings & king_attack_table[to]) |
                  (p->pawns & enemy_pawn_sources(bit(to)));
    } else {
        s = own_king_square(p);
        if (move & MOVE_IS_EN_PASSANT) {
            occ &= ~bit(to - 8);
            attackers &= ~bit(to - 8);
        }
    }
    return (((p->bishops | p->queens) & bishop_attacks(s, occ)) | ((p->rooks | p->queens) & rook_attacks(s, occ)) |
            leapers) &
           attackers;
}

u64 leaves_king_attacked(const Position* p, u32 move) {
    // Out of check, the only line that a man's move can open runs from the king
    // through the man's origin and on to the edge. Without an enemy slider on that line
    // the attack test would find nothing, so it is not made. King moves and en passant
    // (which empties a second square) always take the full test.
    if (move_piece(move) != KING && !(move & MOVE_IS_EN_PASSANT) && !(p->flags & POS_IN_CHECK)) {
        const u64 sliders = (p->bishops | p->rooks | p->queens) & (p->occupied ^ p->own);
        if (!(ray_table[own_king_square(p)][move_from(move)] & sliders)) return 0;
    }
    return king_attacked_after(p, move);
}

u64 pinned_men(const Position* p) {
    const int k = own_king_square(p);
    const u64 opp = p->occupied ^ p->own;
    // Enemy sliders that would see the king through own men only.
    u64 snipers = ((rook_attacks(k, opp) & (p->rooks | p->queens)) | (bishop_attacks(k, opp) & (p->bishops | p->queens))) & opp;
    u64 pinned = 0;
    while (snipers) {
        const u64 b = between_table[k][pop_lsb(snipers)] & p->own;
        if (!(b & (b - 1))) pinned |= b;
    }
    return pinned;
}

void tag_check(const Position* p, u32* move) {
    const u32 m = *move;
    const int from = move_from(m), to = move_to(m);
    const int e = enemy_king_square(p);
    const u64 tb = bit(to), fb = bit(from);
    u64 occ = (p->occupied & ~fb) | tb;
    const u64 own2 = (p->own & ~fb) | tb;
    const int piece = (m & MOVE_IS_PROMOTION) ? move_promotion(m) : move_piece(m);
    bool check;
    auto discovery = [&]() {
        return (((p->rooks | p->queens) & rook_attacks(e, occ)) | ((p->bishops | p->queens) & bishop_attacks(e, occ))) &
               p->own;
    };
    switch (piece) {
        case PAWN:
            if (m & MOVE_IS_EN_PASSANT) occ &= ~bit(to - 8);
            check = (pawn_attacks_up(tb) & bit(e)) || discovery();
            break;
        case KNIGHT:
            check = (knight_attack_table[e] & tb) || discovery();
            break;
        case BISHOP:
            check = (((tb | p->queens | (p->bishops ^ fb)) & bishop_attacks(e, occ)) |
                     ((p->rooks | p->queens) & rook_attacks(e, occ) & ~tb)) &
                    own2;
            break;
        case ROOK:
            check = (((tb | p->queens | (p->rooks ^ fb)) & rook_attacks(e, occ)) |
                     ((p->bishops | p->queens) & bishop_attacks(e, occ) & ~tb)) &
                    own2;
            break;
        case QUEEN: {
            const u64 q = (p->queens ^ fb) | tb;
            check = (((p->bishops | q) & bishop_attacks(e, occ)) | ((p->rooks | q) & rook_attacks(e, occ))) & own2;
            break;
        }
        case KING:
            check = (m & MOVE_IS_CASTLING) ? castle_gives_check(p, to) : discovery() != 0;
            break;
        default:
            return;
    }
    if (check) *move = m | MOVE_GIVES_CHECK;
}

u32 pack_move(u32 move) {
    const u32 s = (move >> 3) & 0xfff;
    if (move & MOVE_IS_PROMOTION) return (s + (u32(move_promotion(move) - 2) << 12)) | 0x4000;
    return s | ((move & MOVE_IS_EN_PASSANT) ? 0x2000 : 0) | ((move & MOVE_IS_CASTLING) ? 0x1000 : 0);
}

u32 unpack_move(const Position* p, u32 packed) {
    const int from = packed & 63, to = (packed >> 6) & 63;
    const u32 squares = u32(from) << 3 | u32(to) << 9;
    if (packed & 0x4000) {
        u32 m = squares | PAWN | MOVE_IS_PROMOTION | u32(((packed >> 12) & 3) + 2) << 18;
        if (int v = piece_on(p, to)) m |= u32(v) << 15 | MOVE_IS_CAPTURE;
        return m;
    }
    if (packed & 0x2000) return squares | 0x608001;
    u32 m = squares | u32(piece_on(p, from));
    if (packed & 0x1000) return m | MOVE_IS_CASTLING;
    if (int v = piece_on(p, to)) m |= u32(v) << 15 | MOVE_IS_CAPTURE;
    return m;
}

// A pawn capture from `from` to `to`, without wrapping around the board's edge.
static bool pawn_capture_geometry(int from, int to) {
    return (to == from + 7 && (from & 7) != 0) || (to == from + 9 && (from & 7) != 7);
}

bool packed_is_pseudo_legal(const Position* p, u32 packed) {
    const int from = packed & 63, to = (packed >> 6) & 63;
    const u64 own = p->own, opp = p->occupied ^ own;
    if (!(own & bit(from)) || (own & bit(to))) return false;
    if (packed & 0x4000) {
        // Promotions land on the last rank; a word that does not is no move of ours.
        if (!(p->pawns & bit(from)) || to < 56) return false;
        if (opp & bit(to)) return pawn_capture_geometry(from, to);
        return to - from == 8;
    }
    if ((packed & 0x3000) == 0x3000) return false;  // no move is both castling and en passant
    if (packed & 0x1000) {
        if ((p->flags & POS_IN_CHECK) || from != own_king_square(p) || (to != 6 && to != 2)) return false;
        return castling_allowed(p, to == 6 ? 0 : 1);
    }
    if (packed & 0x2000) {
        const int f = ep_file(p->flags);
        return f != EP_NONE && (ep_capturers_rank5[f] & bit(from)) && to == 40 + f && (p->pawns & bit(from)) &&
               pawn_capture_geometry(from, to);
    }
    switch (piece_on(p, from)) {
        case PAWN:
            if (to >= 56) return false;  // a push onto the last rank is always a promotion
            if (opp & bit(to)) return pawn_capture_geometry(from, to);
            if (p->occupied & bit(to)) return false;
            if (to - from == 8) return true;
            return to - from == 16 && (from >> 3) == 1 && !(p->occupied & bit(from + 8));
        case KNIGHT: return knight_attack_table[from] & bit(to);
        case BISHOP: return bishop_attacks(from, p->occupied) & bit(to);
        case ROOK: return rook_attacks(from, p->occupied) & bit(to);
        case QUEEN: return (bishop_attacks(from, p->occupied) | rook_attacks(from, p->occupied)) & bit(to);
        case KING: return king_attack_table[from] & bit(to);
        default: return false;
    }
}

u32 validate_packed_move(const Position* p, u32 packed) {
    if (!packed_is_pseudo_legal(p, packed)) return 0;
    u32 m = unpack_move(p, packed);
    const int from = move_from(m), to = move_to(m);
    const int s = move_piece(m) == KING ? to : own_king_square(p);
    u64 occ = (p->occupied ^ bit(from)) | bit(to);
    u64 attackers = (p->occupied ^ p->own) & ~bit(to);
    if (m & MOVE_IS_EN_PASSANT) {
        occ &= ~bit(to - 8);
        attackers &= ~bit(to - 8);
    }
    const u64 att = (p->knights & knight_attack_table[s]) | (p->kings & king_attack_table[s]) |
                    (p->pawns & enemy_pawn_sources(bit(s))) | ((p->bishops | p->queens) & bishop_attacks(s, occ)) |
                    ((p->rooks | p->queens) & rook_attacks(s, occ));
    if (att & attackers) return 0;
    tag_check(p, &m);
    return m;
}

bool quiet_is_possible(const Position* p, u32 move) {
    const int piece = move_piece(move), from = move_from(move), to = move_to(move);
    if (piece < PAWN || piece > KING || !(p->boards[piece] & p->own & bit(from))) return false;
    if (piece == KNIGHT || (piece == KING && !(move & MOVE_IS_CASTLING))) return !(p->occupied & bit(to));
    if (piece != KING) return !(between_table[from][to] & p->occupied);
    if (to != 6 && to != 2) return false;
    return castling_allowed(p, to == 6 ? 0 : 1);
}

i32 see(const Position* p, u32 move) {
    const int piece = move_piece(move);
    if (piece == KING) return piece_value[move_captured(move)];
    const int t = move_to(move), from = move_from(move);
    const u64 tb = bit(t), occupied = p->occupied, own = p->own;
    const u64 diag = p->bishops | p->queens, straight = p->rooks | p->queens;
    u64 attackers = (own_pawn_sources(tb) & p->pawns & own) | (enemy_pawn_sources(tb) & p->pawns & (occupied ^ own)) |
                    (knight_attack_table[t] & p->knights) | (king_attack_table[t] & p->kings) |
                    (bishop_attacks(t, occupied) & diag) | (rook_attacks(t, occupied) & straight);
    attackers &= ~bit(from);

    i32 list[40];
    int n = 1;
    i32 v;
    if (move & MOVE_IS_PROMOTION) {
        list[0] = piece_value[move_captured(move)] + piece_value[move_promotion(move)] - 100;
        v = piece_value[move_promotion(move)];
    } else {
        list[0] = piece_value[move_captured(move)];
        v = piece_value[piece];
    }
    u64 occ = occupied & ~bit(from);
    if (piece == PAWN || piece == BISHOP || piece == QUEEN) attackers |= diag & bishop_attacks(t, occ) & occ;
    if (piece == PAWN || piece == ROOK || piece == QUEEN) attackers |= straight & rook_attacks(t, occ) & occ;

    u64 side = occupied ^ own;
    while (side & attackers) {
        const u64 mine = side & attackers;
        int kind = PAWN;
        while (!(mine & p->boards[kind])) ++kind;
        const u64 man = mine & p->boards[kind] & (0 - (mine & p->boards[kind]));
        if (kind == KING) {
            if (attackers & ~side) break;  // the king may not take into a guarded square
            list[n] = v - list[n - 1];
            ++n;
            break;
        }
        const i32 d = v - list[n - 1];
        list[n++] = d;
        if (d > piece_value[kind]) break;
        occ &= ~man;
        attackers &= ~man;
        if (kind == PAWN || kind == BISHOP || kind == QUEEN) attackers |= diag & bishop_attacks(t, occ) & occ;
        if (kind == ROOK || kind == QUEEN) attackers |= straight & rook_attacks(t, occ) & occ;
        v = piece_value[kind];
        side ^= occupied;
    }
    for (int i = n - 2; i >= 0; --i)
        if (-list[i + 1] < list[i]) list[i] = -list[i + 1];
    return list[0];
}
