// Training records: one position of a self-play game in 32 bytes, with the search
// score and the game's result, shared by vestra-datagen, vestra-train and the tests.
//
//   offset  size  content
//    0      8     occupied squares, real colours (a1 = bit 0, h8 = bit 63)
//    8     16     one 4-bit code per man, men in ascending square order, low nibble
//                 first: piece code 1..6 (pawn..king), plus 8 for a black man
//   24      2     i16 search score, side to move's view, internal units (160 = pawn)
//   26      1     game result for the side to move: 0 loss, 1 draw, 2 win
//   27      1     halfmove clock
//   28      2     castling rights, real colours: nibbles white short, white long,
//                 black short, black long; each the rook's file, 8 for none
//   30      1     bit 7: Black to move; low nibble: en-passant file, 8 for none
//   31      1     game ply of the position, saturating at 255
//
// Little-endian, no header: a data file is a plain array of records, so files can be
// concatenated, counted by their size and cut at any multiple of 32 bytes.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>
#include "board/board.h"
#include "eval/network.h"

struct TrainRecord {
    u64 occupied;
    u8 pieces[16];
    i16 score;
    u8 result;
    u8 halfmove_clock;
    u16 castling;
    u8 flags;
    u8 ply;
};
static_assert(sizeof(TrainRecord) == 32);

constexpr u8 RECORD_BLACK = 0x80;
constexpr u8 RESULT_LOSS = 0, RESULT_DRAW = 1, RESULT_WIN = 2;

// The man on the n-th occupied square (ascending): piece code | 8 for Black.
inline int record_man(const TrainRecord& r, int n) { return (r.pieces[n >> 1] >> ((n & 1) * 4)) & 15; }
inline bool record_black_to_move(const TrainRecord& r) { return r.flags & RECORD_BLACK; }

inline TrainRecord record_from_position(const Position* pos, i32 score, int result, int ply) {
    TrainRecord r{};
    const bool black = pos->flags & POS_BLACK;
    // Real colours: with Black to move every board is stored rank-mirrored.
    u64 boards[8];
    for (int i = 0; i < 8; ++i) boards[i] = black ? bswap64(pos->boards[i]) : pos->boards[i];
    const u64 black_men = black ? boards[7] : boards[0] ^ boards[7];
    r.occupied = boards[0];
    int n = 0;
    for (u64 b = boards[0]; b; b &= b - 1, ++n) {
        const int sq = lsb(b);
        int code = 0;
        for (int pc = PAWN; pc <= KING; ++pc)
            if (boards[pc] & bit(sq)) code = pc;
        if (black_men & bit(sq)) code |= 8;
        r.pieces[n >> 1] |= u8(code << ((n & 1) * 4));
    }
    r.score = i16(score < -32767 ? -32767 : score > 32767 ? 32767 : score);
    r.result = u8(result);
    r.halfmove_clock = pos->halfmove_clock;
    r.castling = black ? u16(pos->castling >> 8 | pos->castling << 8) : pos->castling;
    r.flags = u8((black ? RECORD_BLACK : 0) | ep_file(pos->flags));
    r.ply = u8(ply > 255 ? 255 : ply);
    return r;
}

// FEN of a record (real colours); buffer of 100 bytes.
inline void record_fen(const TrainRecord& r, char* buffer) {
    char board[64];
    std::memset(board, 0, sizeof board);
    int n = 0;
    for (u64 b = r.occupied; b && n < 32; b &= b - 1, ++n) {
        const int code = record_man(r, n);
        const char letter = " pnbrqk?"[code & 7];
        board[lsb(b)] = (code & 8) ? letter : char(letter - 32);
    }
    char* o = buffer;
    for (int rank = 7; rank >= 0; --rank) {
        int gap = 0;
        for (int file = 0; file < 8; ++file) {
            const char c = board[rank * 8 + file];
            if (!c) {
                ++gap;
                continue;
            }
            if (gap) *o++ = char('0' + gap);
            gap = 0;
            *o++ = c;
        }
        if (gap) *o++ = char('0' + gap);
        if (rank) *o++ = '/';
    }
    const bool black = record_black_to_move(r);
    o += std::sprintf(o, " %c ", black ? 'b' : 'w');
    const char* start = o;
    const int wk = r.castling & 15, wq = (r.castling >> 4) & 15, bk = (r.castling >> 8) & 15, bq = r.castling >> 12;
    if (wk < 8) *o++ = wk == 7 ? 'K' : char('A' + wk);
    if (wq < 8) *o++ = wq == 0 ? 'Q' : char('A' + wq);
    if (bk < 8) *o++ = bk == 7 ? 'k' : char('a' + bk);
    if (bq < 8) *o++ = bq == 0 ? 'q' : char('a' + bq);
    if (o == start) *o++ = '-';
    const int ep = r.flags & 15;
    if (ep < 8)
        o += std::sprintf(o, " %c%c", 'a' + ep, black ? '3' : '6');
    else
        o += std::sprintf(o, " -");
    std::sprintf(o, " %d %d", r.halfmove_clock, r.ply / 2 + 1);
}

// The network's active rows of both halves: half 0 belongs to the side to move. Each
// list holds up to 30 men and 2 castling rows. Returns false for a record without
// exactly one king a side (corrupt data), which the callers skip.
struct RecordFeatures {
    u16 rows[2][32];
    int count[2];
};

// Without castling rights a position and its mirror image across the d/e line are the
// same game, so the trainer may show either: the king-relative rows of a king on the
// h-file then learn from the positions with it on the a-file too.
inline bool record_mirrorable(const TrainRecord& r) { return r.castling == 0x8888; }

// `mirror` reads the board mirrored across the d/e line (only for a mirrorable record).
inline bool record_features(const TrainRecord& r, RecordFeatures* f, bool mirror = false) {
    const int files = mirror ? 7 : 0;
    if (popcount(r.occupied) > 32) return false;
    int king[2] = {-1, -1};  // real squares by colour: 0 White, 1 Black
    int n = 0;
    for (u64 b = r.occupied; b; b &= b - 1, ++n) {
        const int code = record_man(r, n);
        if ((code & 7) == KING) {
            if (king[code >> 3] >= 0) return false;
            king[code >> 3] = lsb(b);
        }
    }
    if (king[0] < 0 || king[1] < 0) return false;
    const int stm = record_black_to_move(r) ? 1 : 0;
    for (int h = 0; h < 2; ++h) {
        const int owner = stm ^ h;
        const int flip = owner ? 56 : 0;
        const int k = king[owner] ^ flip ^ files;
        int c = 0;
        n = 0;
        for (u64 b = r.occupied; b; b &= b - 1, ++n) {
            const int code = record_man(r, n);
            const int piece = code & 7;
            if (piece == KING || piece == NO_PIECE || piece > KING) continue;
            const int plane = (code >> 3) == owner ? piece - 1 : piece + 4;
            f->rows[h][c++] = u16(feature_row(plane, lsb(b) ^ flip ^ files, k));
        }
        const u16 rights = owner ? u16(r.castling >> 8) : r.castling;
        if ((rights & 15) != NO_RIGHT) f->rows[h][c++] = NET_CASTLING_ROW;
        if (((rights >> 4) & 15) != NO_RIGHT) f->rows[h][c++] = NET_CASTLING_ROW + 1;
        f->count[h] = c;
    }
    return true;
}

// Appends records to a file; false on any write error.
inline bool records_append(const char* path, const TrainRecord* records, size_t count) {
    FILE* f = std::fopen(path, "ab");
    if (!f) return false;
    bool ok = std::fwrite(records, sizeof(TrainRecord), count, f) == count;
    ok = std::fclose(f) == 0 && ok;
    return ok;
}

// Multiplies every score by `factor`, to nearest, within the i16 range: records played
// by a net of another evaluation scale, brought to the scale of the net being trained.
inline void records_scale_scores(std::vector<TrainRecord>* records, float factor) {
    for (TrainRecord& r : *records)
        r.score = i16(std::clamp(std::lround(double(r.score) * factor), -32767L, 32767L));
}

// Reads every whole record of a file and appends it to `out`; a trailing partial
// record (an interrupted write) is ignored. False if the file cannot be opened.
inline bool records_load(const char* path, std::vector<TrainRecord>* out) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    std::fseek(f, 0, SEEK_END);
    const long size = std::ftell(f);
    std::fseek(f, 0, SEEK_SET);
    const size_t count = size > 0 ? size_t(size) / sizeof(TrainRecord) : 0;
    const size_t base = out->size();
    out->resize(base + count);
    const size_t got = std::fread(out->data() + base, sizeof(TrainRecord), count, f);
    out->resize(base + got);
    std::fclose(f);
    return true;
}
