// Copy-make: the next record of the stack receives the position after the move, seen
// from the new side to move.
#include "board/board_internal.h"
#include "board/records.h"

void make_move(SearchThread* thread, u32 move, FeatureDelta* delta) {
    const Position* old = thread->top;
    Position* p = thread->top + 1;
    *p = *old;
    thread->top = p;

    const int piece = move_piece(move), from = move_from(move), to = move_to(move);
    const int s = old->flags & POS_BLACK;  // 8 for Black, the row offset of its men
    const int side = s >> 3;
    if (delta) {
        delta->added_count = 0;
        delta->removed_count = 0;
        delta->king_moved = u8(piece == KING && from != to);
    }
    p->flags = u8((old->flags & 0xfa) | ((move >> 23) & POS_IN_CHECK));
    u64 key = old->key;
    u16 castling = old->castling;

    if (move & MOVE_IS_CAPTURE) {
        const int captured = move_captured(move);
        const int c = (move & MOVE_IS_EN_PASSANT) ? to - 8 : to;
        p->boards[captured] &= ~bit(c);
        p->occupied &= ~bit(c);
        key ^= zobrist[((((captured + 8) ^ s) * 64) + c) ^ 56];
        if (delta) delta->removed[delta->removed_count++] = u32(256 + captured * 64 + c);
        const int ek = (castling >> 8) & 15, eq = (castling >> 12) & 15;
        if (ek != NO_RIGHT && c == ek + 56) {
            castling = u16((castling & ~0x0f00) | 0x0800);
            key ^= zobrist[1025 - side];
            if (delta) delta->removed[delta->removed_count++] = 2048;
        } else if (eq != NO_RIGHT && c == eq + 56) {
            castling = u16((castling & ~0xf000) | 0x8000);
            key ^= zobrist[1027 - side];
            if (delta) delta->removed[delta->removed_count++] = 8192;
        }
    }

    const u64 fromto = bit(from) | bit(to);
    if (!(move & MOVE_IS_CASTLING)) {
        p->occupied ^= fromto;
        p->own ^= fromto;
        p->boards[piece] ^= bit(from);
        if (!(move & MOVE_IS_PROMOTION)) p->boards[piece] ^= bit(to);
    } else {
        const int d = to == 6 ? 5 : 3;
        int f;
        if (engine_options.chess960)
            f = to == 6 ? (castling & 15) : ((castling >> 4) & 15);
        else
            f = to == 6 ? 7 : 0;
        const u64 m = bit(f) ^ bit(d), k = bit(from) ^ bit(to);
        p->rooks ^= m;
        p->kings ^= k;
        p->own ^= m ^ k;
        p->occupied ^= m ^ k;
        key ^= zobrist[(ROOK + s) * 64 + f] ^ zobrist[(ROOK + s) * 64 + d];
        if (delta) {
            delta->removed[delta->removed_count++] = u32(192 + f);
            delta->added[delta->added_count++] = u32(192 + d);
        }
    }

    key ^= zobrist[(piece + s) * 64 + from];
    if (move & MOVE_IS_PROMOTION) {
        const int promotion = move_promotion(move);
        p->boards[promotion] |= bit(to);
        key ^= zobrist[(promotion + s) * 64 + to];
    } else {
        key ^= zobrist[(piece + s) * 64 + to];
    }
    if (delta && piece != KING) {
        const int arrived = (move & MOVE_IS_PROMOTION) ? move_promotion(move) : piece;
        delta->removed[delta->removed_count++] = u32((piece - 1) * 64 + from);
        delta->added[delta->added_count++] = u32((arrived - 1) * 64 + to);
    }

    const int old_ep = ep_file(old->flags);
    if (old_ep != EP_NONE) {
        key ^= zobrist[1028 + old_ep];
        p->flags = u8((p->flags & 0x0f) | EP_NONE << 4);
    }

    if (piece == ROOK) {
        const int ok = castling & 15, oq = (castling >> 4) & 15;
        if (ok != NO_RIGHT && from == ok) {
            castling = u16((castling & ~0x000f) | 0x0008);
            key ^= zobrist[1024 + side];
            if (delta) delta->removed[delta->removed_count++] = 1024;
        } else if (oq != NO_RIGHT && from == oq) {
            castling = u16((castling & ~0x00f0) | 0x0080);
            key ^= zobrist[1026 + side];
            if (delta) delta->removed[delta->removed_count++] = 4096;
        }
    } else if (piece == KING) {
        if ((castling & 15) != NO_RIGHT) {
            castling = u16((castling & ~0x000f) | 0x0008);
            key ^= zobrist[1024 + side];
            if (delta) delta->removed[delta->removed_count++] = 1024;
        }
        if (((castling >> 4) & 15) != NO_RIGHT) {
            castling = u16((castling & ~0x00f0) | 0x0080);
            key ^= zobrist[1026 + side];
            if (delta) delta->removed[delta->removed_count++] = 4096;
        }
    } else if (piece == PAWN && to == from + 16) {
        const int file = to & 7;
        if (ep_capturers_rank4[file] & p->pawns & (p->occupied ^ p->own)) {
            key ^= zobrist[1028 + file];
            p->flags = u8((p->flags & 0x0f) | file << 4);
        }
    }

    // Flip to the new side to move.
    p->own ^= p->occupied;
    for (int i = 0; i < 8; ++i) p->boards[i] = bswap64(p->boards[i]);
    p->castling = u16(castling >> 8 | castling << 8);
    p->key = key ^ zobrist[1036];
    p->flags ^= POS_BLACK;

    if ((move & MOVE_IS_CAPTURE) || piece == PAWN) {
        p->halfmove_clock = 0;
        return;
    }
    p->halfmove_clock = u8(old->halfmove_clock + 1);

    // Only positions since the last irreversible move, and with the same side to move.
    const long top = p - thread->stack;
    long first = top - p->halfmove_clock;
    if (first < 0) first = 0;
    for (long i = top - 4; i >= first; i -= 2) {
        if (thread->stack[i].key == p->key) {
            p->flags |= POS_REPETITION;
            break;
        }
    }
}

void make_null_move(SearchThread* thread) {
    Position* p = thread->top + 1;
    *p = *thread->top;
    thread->top = p;
    p->own ^= p->occupied;
    for (int i = 0; i < 8; ++i) p->boards[i] = bswap64(p->boards[i]);
    p->castling = u16(p->castling >> 8 | p->castling << 8);
    p->key ^= zobrist[1036];
    p->flags ^= POS_BLACK;
    const int f = ep_file(p->flags);
    if (f != EP_NONE) {
        p->key ^= zobrist[1028 + f];
        p->flags = u8((p->flags & 0x0f) | EP_NONE << 4);
    }
    p->flags &= 0xfe;
}
