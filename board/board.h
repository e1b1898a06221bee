// The board: positions held from the side to move's view, 32-bit moves, constant
// tables, and the routines that generate, make, test and pack moves.
//
// Every square, bitboard and move is in the frame of the side to move: for Black the
// real square s is stored as s ^ 56, so pawns always advance by +8 and no routine
// needs a colour branch. Only the key, move text, the book and the tablebases know
// real colours.
#pragma once
#include "board/bitops.h"

struct SearchThread;

// Piece codes carry no colour; the code is also the index of the piece's bitboard.
enum : int { NO_PIECE = 0, PAWN = 1, KNIGHT = 2, BISHOP = 3, ROOK = 4, QUEEN = 5, KING = 6 };

// Move word layout.
constexpr u32 MOVE_PIECE = 0x7;
constexpr u32 MOVE_FROM = 0x1f8;
constexpr u32 MOVE_TO = 0x7e00;
constexpr u32 MOVE_CAPTURED = 0x38000;
constexpr u32 MOVE_PROMOTION = 0x1c0000;
constexpr u32 MOVE_IS_CAPTURE = 0x200000;
constexpr u32 MOVE_IS_EN_PASSANT = 0x400000;
constexpr u32 MOVE_IS_PROMOTION = 0x800000;
constexpr u32 MOVE_IS_CASTLING = 0x1000000;
constexpr u32 MOVE_GIVES_CHECK = 0x2000000;

inline int move_piece(u32 m) { return int(m & 7); }
inline int move_from(u32 m) { return int((m >> 3) & 63); }
inline int move_to(u32 m) { return int((m >> 9) & 63); }
inline int move_captured(u32 m) { return int((m >> 15) & 7); }
inline int move_promotion(u32 m) { return int((m >> 18) & 7); }
constexpr u32 make_move_word(int piece, int from, int to) { return u32(piece) | u32(from) << 3 | u32(to) << 9; }

// Position flags.
constexpr u8 POS_REPETITION = 0x01;
constexpr u8 POS_IN_CHECK = 0x04;
constexpr u8 POS_BLACK = 0x08;
constexpr int EP_NONE = 8;
constexpr int NO_RIGHT = 8;
inline int ep_file(u8 flags) { return flags >> 4; }

struct Position {
    // The eight boards are addressed by name and, by piece code, as boards[]:
    // boards[0] = occupied, boards[PAWN..KING], boards[7] = own.
    union {
        struct {
            u64 occupied, pawns, knights, bishops, rooks, queens, kings, own;
        };
        u64 boards[8];
    };
    u64 key;
    u16 castling;  // nibbles: own short, own long, enemy short, enemy long; 8 = none
    u8 flags;
    u8 halfmove_clock;
};

struct ScoredMove {
    i32 score;
    u32 move;
};
static_assert(sizeof(ScoredMove) == 8);

struct MagicEntry {
    u64 mask;
    u64 magic;
    u64 shift;
    u64* attacks;
};

// What a move changes in the network's inputs; applied lazily by the accumulators.
struct FeatureDelta {
    u8 king_moved;
    u32 added[8];
    u32 removed[8];
    i32 added_count;
    i32 removed_count;
};

constexpr int STACK_SIZE = 612;     // Position records per search thread
constexpr int MAX_MOVES = 256;      // room for every move of any position
constexpr int MAX_PLY = 512;        // per-ply arrays of a search thread

extern MagicEntry bishop_magics[64];
extern MagicEntry rook_magics[64];
extern u64 knight_attack_table[64];
extern u64 king_attack_table[64];
extern u64 ep_capturers_rank5[8];
extern u64 ep_capturers_rank4[8];
// between_table[a][b]: for b on a line of a, the squares after a up to and including b.
extern u64 between_table[64][64];
// ray_table[a][b]: for b on a line of a, the squares from a through b on to the edge
// of the board, a excluded; 0 when the two are not aligned.
extern u64 ray_table[64][64];
extern u32 direction_table[64][64];
extern u64 zobrist[1037];
extern const i32 piece_value[8];

void init_board_tables();

inline u64 bishop_attacks(int sq, u64 occ) {
    const MagicEntry& e = bishop_magics[sq];
    return e.attacks[((occ & e.mask) * e.magic) >> (e.shift & 63)];
}
inline u64 rook_attacks(int sq, u64 occ) {
    const MagicEntry& e = rook_magics[sq];
    return e.attacks[((occ & e.mask) * e.magic) >> (e.shift & 63)];
}

inline int own_king_square(const Position* p) { return lsb(p->kings & p->own); }
inline int enemy_king_square(const Position* p) { return lsb(p->kings & (p->occupied ^ p->own)); }
// Piece code on a square by the fixed chain of tests, 0 if empty.
inline int piece_on(const Position* p, int sq) {
    u64 b = bit(sq);
    for (int pc = PAWN; pc <= KING; ++pc)
        if (p->boards[pc] & b) return pc;
    return NO_PIECE;
}

// Position set-up (FEN plus move list) on the thread's stack; also clears and then
// sets search_shared.previous_move / previous_move_2. A FEN of fewer than four words
// sets up the start position. Castling rights without their king and rook in place,
// and an en-passant field without the pawn that double-stepped, are dropped.
// The move list stops at the first word that is not a legal move in coordinate
// notation; the result is the number of moves actually played / 2.
u32 set_position(SearchThread* thread, const char* fen_text, const char* moves_text);
u32 replay_moves(SearchThread* thread, const char* moves_text);
// True when the FEN describes a position the engine can search safely: at least four
// words, a placement of exactly 64 squares, one king a side, at most 16 men and 8 pawns
// a side, no pawn on the first or last rank, the side not to move not in check, no
// more than MAX_MOVES pseudo-legal moves, and a text shorter than 136 bytes. Callers keep their previous position when it is false.
bool fen_is_acceptable(const char* fen_text);

// Generators: fill from `list`, return the end.
ScoredMove* gen_evasions(const Position* pos, ScoredMove* list, int with_underpromotions);
ScoredMove* gen_captures(const Position* pos, ScoredMove* list);
ScoredMove* gen_underpromotions(const Position* pos, ScoredMove* list);
ScoredMove* gen_quiets(const Position* pos, ScoredMove* list, int checks_only);
// Every move of the position before the legality test: evasions in check, else all.
ScoredMove* gen_pseudo_legal(const Position* pos, ScoredMove* list);
// All legal moves, tagged with MOVE_GIVES_CHECK (for tools, replay and tests).
ScoredMove* gen_legal(const Position* pos, ScoredMove* list);
// The number of moves gen_legal would list, counted by target sets without listing
// them (perft's last ply).
int count_legal_moves(const Position* pos);

void make_move(SearchThread* thread, u32 move, FeatureDelta* delta);
void make_null_move(SearchThread* thread);

u64 leaves_king_attacked(const Position* pos, u32 move);
// Own men that stand alone on a line between the own king and an enemy slider.
u64 pinned_men(const Position* pos);
// leaves_king_attacked, as a truth value, for a move that a generator of the position
// produced, given pinned_men of the position. Such a move of a man other than the king
// already answers any single check, so only a pinned man leaving its line can expose
// the king; king moves and en passant (which empties a second square) take the full test.
inline bool exposes_king(const Position* pos, u32 move, u64 pinned) {
    if (move_piece(move) == KING || (move & MOVE_IS_EN_PASSANT)) return leaves_king_attacked(pos, move) != 0;
    const int from = move_from(move);
    return (pinned & bit(from)) && !(ray_table[own_king_square(pos)][from] & bit(move_to(move)));
}
void tag_check(const Position* pos, u32* move);

u32 pack_move(u32 move);
u32 unpack_move(const Position* pos, u32 packed);
bool packed_is_pseudo_legal(const Position* pos, u32 packed);
u32 validate_packed_move(const Position* pos, u32 packed);
bool quiet_is_possible(const Position* pos, u32 move);

i32 see(const Position* pos, u32 move);

// Move text: from, to, promotion letter; castling as king onto rook under Chess960.
void move_text(const Position* pos, u32 move, char* buffer);

// The FEN of a position (real colours), for tools and tests; buffer of 100 bytes.
void position_fen(const Position* pos, char* buffer);

// Leaf count of the legal move tree of the thread's top position to `depth` plies.
u64 perft(SearchThread* thread, int depth);
