// Pieces shared between the board's source files but not part of its interface.
#pragma once
#include "board/board.h"

// Frame-relative constants.
constexpr u64 RANK_1 = 0xffULL;
constexpr u64 RANK_2 = 0xff00ULL;
constexpr u64 RANK_3 = 0xff0000ULL;
constexpr u64 RANK_4 = 0xff000000ULL;
constexpr u64 RANK_5 = 0xff00000000ULL;
constexpr u64 RANK_7 = 0xff000000000000ULL;
constexpr u64 RANK_8 = 0xff00000000000000ULL;
constexpr u64 FILE_A = 0x0101010101010101ULL;
constexpr u64 FILE_H = 0x8080808080808080ULL;
constexpr u64 NOT_FILE_A = ~FILE_A;
constexpr u64 NOT_FILE_H = ~FILE_H;

// Squares attacked by own pawns standing on `b` (they capture upward).
inline u64 pawn_attacks_up(u64 b) {
    return ((b << 9) & 0xfefefefefefefe00ULL) | ((b << 7) & 0x7f7f7f7f7f7f7f00ULL);
}
// Squares from which an enemy pawn (moving down) attacks a square of `b`.
inline u64 enemy_pawn_sources(u64 b) { return pawn_attacks_up(b); }
// Squares from which an own pawn attacks a square of `b`.
inline u64 own_pawn_sources(u64 b) {
    return ((b >> 9) & 0x7f7f7f7f7f7f7fULL) | ((b >> 7) & 0xfefefefefefefeULL);
}

// Castling sets for Chess960, by side (0 king-side, 1 queen-side), king file and rook
// file. castle_empty: squares that must be empty; castle_test: squares the king crosses
// that must not be attacked; castle_far: rank-1 squares beyond the king's destination
// where an enemy rook or queen would see the king after the move.
extern u64 castle_empty[2][8][8];
extern u64 castle_test[2][8];
extern u64 castle_far[2][8];

// Whether castling to the given side (0 king-side, 1 queen-side) passes the emptiness
// and attack tests, for the rule set in force. The own right must be present.
bool castling_allowed(const Position* p, int side);
// Whether a castling move with king destination `to` (6 or 2) gives check.
bool castle_gives_check(const Position* p, int to);
