// Position set-up from FEN, the replay of a move list, and the text forms of positions
// and moves.
#include <cstring>
#include "board/board_internal.h"
#include "board/records.h"

namespace {

// Longer FEN texts are cut here by set_position and refused by fen_is_acceptable.
constexpr int FEN_BUFFER = 136;
const char* const START_FEN = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

inline bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Splits `buf` in place into at most `max` words; returns the count.
int split_words(char* buf, char** words, int max) {
    int n = 0;
    char* c = buf;
    while (*c && n < max) {
        while (*c && is_blank(*c)) ++c;
        if (!*c) break;
        words[n++] = c;
        while (*c && !is_blank(*c)) ++c;
        if (*c) *c++ = 0;
    }
    return n;
}

int piece_of_letter(char c) {
    switch (c | 0x20) {
        case 'p': return PAWN;
        case 'n': return KNIGHT;
        case 'b': return BISHOP;
        case 'r': return ROOK;
        case 'q': return QUEEN;
        case 'k': return KING;
        default: return NO_PIECE;
    }
}

// The placement walk; returns the number of squares it covered (64 for a proper FEN).
// Unknown characters count as white pawns; squares past h1 are ignored.
int place_men(Position* p, const char* word, u64* white) {
    int i = 0;
    for (const char* c = word; *c; ++c) {
        if (*c >= '1' && *c <= '8') {
            i += *c - '0';
            continue;
        }
        if (*c == '/') continue;
        int piece = piece_of_letter(*c);
        bool black = piece != NO_PIECE && *c >= 'a';
        if (piece == NO_PIECE) piece = PAWN;
        if (i < 64) {
            const int sq = i ^ 56;
            p->boards[piece] |= bit(sq);
            p->occupied |= bit(sq);
            if (!black) *white |= bit(sq);
            p->key ^= black ? zobrist[64 * (piece + 8) + i] : zobrist[64 * piece + sq];
        }
        ++i;
    }
    return i;
}

// Castling rights in real colours: rights[colour][0 short, 1 long] = rook file or 8.
// A right is kept only where the king stands on its first rank with an own rook on the
// right's file there (and, under classic rules, in the classic array): anything else
// could not be played safely.
void read_castling(const Position* p, u64 white, const char* word, int rights[2][2], bool chess960) {
    rights[0][0] = rights[0][1] = rights[1][0] = rights[1][1] = NO_RIGHT;
    if (word[0] == '-') return;
    for (const char* c = word; *c; ++c) {
        int colour, file;
        if (*c == 'K' || *c == 'Q' || *c == 'k' || *c == 'q') {
            colour = *c >= 'a';
            file = (*c | 0x20) == 'k' ? 7 : 0;
        } else if (*c >= 'A' && *c <= 'H') {
            colour = 0;
            file = *c - 'A';
        } else if (*c >= 'a' && *c <= 'h') {
            colour = 1;
            file = *c - 'a';
        } else {
            continue;
        }
        const u64 men = colour ? p->occupied & ~white : white;
        const u64 king = p->kings & men;
        const int base = colour ? 56 : 0;
        if (!king) continue;
        const int ksq = lsb(king);
        if ((ksq & 56) != base) continue;
        const int kfile = ksq & 7;
        const u64 back_rooks = (p->rooks & men) >> base & 0xff;
        // 'K' and 'Q' name the h- and a-file; where no rook stands there, the outermost
        // rook on that side of the king is meant (the older Chess960 notation).
        if (*c == 'K' || *c == 'k') {
            if (!(back_rooks & bit(7)) && (back_rooks >> (kfile + 1))) file = msb(back_rooks);
        } else if (*c == 'Q' || *c == 'q') {
            if (!(back_rooks & 1) && (back_rooks & (bit(kfile) - 1))) file = lsb(back_rooks);
        }
        if (!(back_rooks & bit(file)) || file == kfile) continue;
        const int longside = file > kfile ? 0 : 1;
        if (!chess960 && (kfile != 4 || file != (longside ? 0 : 7))) continue;
        rights[colour][longside] = file;
    }
}

// Builds the bottom record from a FEN. Returns the number of words found (at least 4
// for a usable FEN); *squares receives the placement's square count.
int parse_fen(const char* fen, Position* p, int* squares) {
    char buf[FEN_BUFFER];
    std::strncpy(buf, fen, FEN_BUFFER - 1);
    buf[FEN_BUFFER - 1] = 0;
    std::memset(p, 0, sizeof(Position));
    p->castling = 0x8888;
    p->flags = 0x80;
    char* w[5];
    const int n = split_words(buf, w, 5);
    *squares = 0;
    if (n < 4) return n;

    u64 white = 0;
    *squares = place_men(p, w[0], &white);

    int rights[2][2];
    read_castling(p, white, w[2], rights, engine_options.chess960);
    static const int shift[2][2] = {{0, 4}, {8, 12}};
    static const int keyrow[2][2] = {{1024, 1026}, {1025, 1027}};
    for (int c = 0; c < 2; ++c)
        for (int s = 0; s < 2; ++s)
            if (rights[c][s] != NO_RIGHT) {
                p->castling = u16((p->castling & ~(15 << shift[c][s])) | rights[c][s] << shift[c][s]);
                p->key ^= zobrist[keyrow[c][s]];
            }

    const bool black = w[1][0] == 'b';
    const int f = w[3][0] - 'a';
    if (w[3][0] != '-' && f >= 0 && f < 8) {
        // Besides a capturing pawn beside it, the pawn that double-stepped must stand on
        // its square with the two squares it passed empty; otherwise the field is noise.
        const u64 black_men = p->occupied & ~white;
        bool ok;
        if (black)
            ok = (ep_capturers_rank4[f] & black_men & p->pawns) && (white & p->pawns & bit(24 + f)) &&
                 !(p->occupied & (bit(16 + f) | bit(8 + f)));
        else
            ok = (ep_capturers_rank5[f] & white & p->pawns) && (black_men & p->pawns & bit(32 + f)) &&
                 !(p->occupied & (bit(40 + f) | bit(48 + f)));
        if (ok) {
            p->flags = u8((p->flags & 0x0f) | f << 4);
            p->key ^= zobrist[1028 + f];
        }
    }

    if (n >= 5) {
        unsigned v = 0;
        for (const char* c = w[4]; *c >= '0' && *c <= '9' && v < 100000; ++c) v = v * 10 + unsigned(*c - '0');
        p->halfmove_clock = u8(v);
    }

    if (black) {
        p->own = p->occupied & ~white;
        for (int i = 0; i < 8; ++i) p->boards[i] = bswap64(p->boards[i]);
        p->castling = u16(p->castling >> 8 | p->castling << 8);
        p->flags ^= POS_BLACK;
        p->key ^= zobrist[1036];
    } else {
        p->own = white;
    }

    const u64 king = p->kings & p->own;
    if (king) {
        const int k = lsb(king);
        const u64 occ = p->occupied;
        const u64 att = (p->occupied ^ p->own) &
                        ((enemy_pawn_sources(king) & p->pawns) | (knight_attack_table[k] & p->knights) |
                         (bishop_attacks(k, occ) & (p->bishops | p->queens)) |
                         (rook_attacks(k, occ) & (p->rooks | p->queens)));
        if (att) p->flags |= POS_IN_CHECK;
    }
    return n;
}

// Attackers of square k by the men in `by`, kings included, with occupancy occ.
u64 attackers_of(const Position* p, int k, u64 by, bool by_side_to_move) {
    const u64 occ = p->occupied;
    const u64 pawn_sq = by_side_to_move ? own_pawn_sources(bit(k)) : enemy_pawn_sources(bit(k));
    return by & ((pawn_sq & p->pawns) | (knight_attack_table[k] & p->knights) | (king_attack_table[k] & p->kings) |
                 (bishop_attacks(k, occ) & (p->bishops | p->queens)) | (rook_attacks(k, occ) & (p->rooks | p->queens)));
}

bool kings_in_place(const Position* p) {
    const u64 opp = p->occupied ^ p->own;
    return popcount(p->kings & p->own) == 1 && popcount(p->kings & opp) == 1;
}

}  // namespace

bool fen_is_acceptable(const char* fen) {
    if (!fen || std::strlen(fen) >= FEN_BUFFER) return false;
    Position p;
    int squares;
    if (parse_fen(fen, &p, &squares) < 4 || squares != 64) return false;
    const u64 opp = p.occupied ^ p.own;
    for (u64 men : {p.own, opp}) {
        if (popcount(p.kings & men) != 1 || popcount(men) > 16 || popcount(p.pawns & men) > 8) return false;
    }
    if (p.pawns & (RANK_1 | RANK_8)) return false;
    // The side to move must not be able to take the enemy king.
    if (attackers_of(&p, enemy_king_square(&p), p.own, true)) return false;
    // Move lists are sized for every move of a position; a composed position with
    // more pseudo-legal moves than that is refused rather than overrun.
    ScoredMove list[1024];
    ScoredMove* end = (p.flags & POS_IN_CHECK) ? gen_evasions(&p, list, 1)
                                               : gen_captures(&p, gen_quiets(&p, gen_underpromotions(&p, list), 0));
    return end - list <= MAX_MOVES;
}

u32 set_position(SearchThread* thread, const char* fen_text, const char* moves_text) {
    thread->top = thread->stack;
    int squares;
    if (!fen_text || parse_fen(fen_text, thread->stack, &squares) < 4) parse_fen(START_FEN, thread->stack, &squares);
    search_shared.previous_move = 0;
    search_shared.previous_move_2 = 0;
    if (!kings_in_place(thread->stack)) return 0;
    return replay_moves(thread, moves_text);
}

// Records kept below the top after a long run of reversible moves: the workers copy at
// most 256 records and the search stacks its own plies on top of the root.
constexpr long REPLAY_HEIGHT_LIMIT = 199;
constexpr long REPLAY_KEEP = 100;

u32 replay_moves(SearchThread* thread, const char* moves_text) {
    if (!moves_text) return 0;
    u32 played = 0;
    const char* c = moves_text;
    ScoredMove legal[2 * MAX_MOVES];
    for (;;) {
        while (*c && is_blank(*c)) ++c;
        if (!*c) break;
        const char* word = c;
        while (*c && !is_blank(*c)) ++c;
        const long len = c - word;
        // A word that is not coordinate notation, or a move that is not legal here,
        // ends the replay; the position reached so far stands.
        if (len < 4 || len > 5 || word[0] < 'a' || word[0] > 'h' || word[1] < '1' || word[1] > '8' ||
            word[2] < 'a' || word[2] > 'h' || word[3] < '1' || word[3] > '8')
            break;
        const Position* top = thread->top;
        const int flip = (top->flags & POS_BLACK) ? 56 : 0;
        const int from = (8 * (word[1] - '1') + (word[0] - 'a')) ^ flip;
        const int to = (8 * (word[3] - '1') + (word[2] - 'a')) ^ flip;
        u32 m;
        if (top->rooks & top->own & bit(to)) {
            // King takes own rook: castling, understood whatever the rule set.
            m = make_move_word(KING, from, (to == (top->castling & 15)) ? 6 : 2) | MOVE_IS_CASTLING;
        } else {
            int promotion = 0;
            if (len == 5) {
                switch (word[4]) {
                    case 'q': promotion = QUEEN; break;
                    case 'r': promotion = ROOK; break;
                    case 'b': promotion = BISHOP; break;
                    case 'n': promotion = KNIGHT; break;
                    default: break;
                }
            }
            const int captured = piece_on(top, to);
            const int piece = piece_on(top, from);
            m = make_move_word(piece, from, to) | u32(promotion) << 18 | u32(captured) << 15;
            if (piece == PAWN) {
                const int f = ep_file(top->flags);
                if (to > 55)
                    m |= MOVE_IS_PROMOTION;
                else if (f != EP_NONE && to == 40 + f)
                    m = (m & ~MOVE_CAPTURED) | MOVE_IS_EN_PASSANT | u32(PAWN) << 15;
            } else if (piece == KING && (from - to == 2 || to - from == 2)) {
                m |= MOVE_IS_CASTLING;
            }
            if (m & MOVE_CAPTURED) m |= MOVE_IS_CAPTURE;
        }

        ScoredMove* end = gen_legal(top, legal);
        bool found = false;
        for (ScoredMove* g = legal; g < end && !found; ++g) {
            const u32 mask = (g->move & MOVE_IS_PROMOTION) ? 0x01ffffffu : (0x01ffffffu & ~MOVE_PROMOTION);
            found = ((g->move ^ m) & mask & ~MOVE_GIVES_CHECK) == 0;
        }
        if (!found) break;

        tag_check(top, &m);
        search_shared.previous_move_2 = search_shared.previous_move;
        search_shared.previous_move = m;
        make_move(thread, m, nullptr);
        ++played;
        if (thread->top->halfmove_clock == 0) {
            thread->stack[0] = *thread->top;
            thread->top = thread->stack;
        } else if (thread->top - thread->stack >= REPLAY_HEIGHT_LIMIT) {
            // Positions that far back cannot count for a repetition before the
            // fifty-move rule ends the game; keep the newest ones.
            Position* first = thread->top - (REPLAY_KEEP - 1);
            std::memmove(thread->stack, first, REPLAY_KEEP * sizeof(Position));
            thread->top = thread->stack + (REPLAY_KEEP - 1);
        }
    }
    return played / 2;
}

void move_text(const Position* p, u32 move, char* buffer) {
    const int from = move_from(move);
    int to = move_to(move);
    if ((move & MOVE_IS_CASTLING) && engine_options.chess960)
        to = to == 6 ? (p->castling & 15) : ((p->castling >> 4) & 15);
    const int flip = (p->flags & POS_BLACK) ? 7 : 0;
    buffer[0] = char('a' + (from & 7));
    buffer[1] = char('1' + ((from >> 3) ^ flip));
    buffer[2] = char('a' + (to & 7));
    buffer[3] = char('1' + ((to >> 3) ^ flip));
    static const char letters[8] = {0, 0, 'n', 'b', 'r', 'q', 0, 0};
    buffer[4] = (move & MOVE_IS_PROMOTION) ? letters[move_promotion(move)] : 0;
    buffer[5] = 0;
}

void position_fen(const Position* pos, char* buffer) {
    Position p = *pos;
    const bool black = p.flags & POS_BLACK;
    u64 white = p.own;
    if (black) {
        for (int i = 0; i < 8; ++i) p.boards[i] = bswap64(p.boards[i]);
        white = p.occupied ^ p.own;
    }
    char* o = buffer;
    for (int rank = 7; rank >= 0; --rank) {
        int gap = 0;
        for (int file = 0; file < 8; ++file) {
            const int sq = rank * 8 + file;
            const int piece = piece_on(&p, sq);
            if (!piece) {
                ++gap;
                continue;
            }
            if (gap) *o++ = char('0' + gap);
            gap = 0;
            const char letter = " pnbrqk"[piece];
            *o++ = (white & bit(sq)) ? char(letter - 32) : letter;
        }
        if (gap) *o++ = char('0' + gap);
        if (rank) *o++ = '/';
    }
    *o++ = ' ';
    *o++ = black ? 'b' : 'w';
    *o++ = ' ';
    // Real colours: with Black to move the low byte holds Black's rights.
    const u16 c = black ? u16(p.castling >> 8 | p.castling << 8) : p.castling;
    const char* start = o;
    const int wk = c & 15, wq = (c >> 4) & 15, bk = (c >> 8) & 15, bq = (c >> 12) & 15;
    if (wk != NO_RIGHT) *o++ = wk == 7 ? 'K' : char('A' + wk);
    if (wq != NO_RIGHT) *o++ = wq == 0 ? 'Q' : char('A' + wq);
    if (bk != NO_RIGHT) *o++ = bk == 7 ? 'k' : char('a' + bk);
    if (bq != NO_RIGHT) *o++ = bq == 0 ? 'q' : char('a' + bq);
    if (o == start) *o++ = '-';
    *o++ = ' ';
    const int f = ep_file(p.flags);
    if (f != EP_NONE) {
        *o++ = char('a' + f);
        *o++ = black ? '3' : '6';
    } else {
        *o++ = '-';
    }
    *o++ = ' ';
    int h = p.halfmove_clock;
    if (h >= 100) *o++ = char('0' + h / 100);
    if (h >= 10) *o++ = char('0' + h / 10 % 10);
    *o++ = char('0' + h % 10);
    *o++ = ' ';
    *o++ = '1';
    *o = 0;
}
