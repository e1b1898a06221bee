// Polyglot opening book.
//
// The file is opened by name at every lookup, searched with seeks and 16-byte reads,
// and closed again: nothing of it is kept in memory. Every failure is silent.
#pragma once
#include "board/records.h"

// One record of a book file, fields converted to host order.
struct BookEntry {
    u64 key;
    u16 move;  // bits 0-5 to, 6-11 from (real squares), 12-14 promotion 1..4 = N..Q
    u16 weight;
    u32 learn;
};

constexpr int BOOK_MAX_CANDIDATES = 256;

extern const u64 polyglot_random64[781];

// Looks the root of the main thread up in BookFile when OwnBook is on and the search
// is not infinite. On a hit it waits out a ponder search (until ponderhit or stop),
// prints "bestmove ..." under print_lock and returns true; the caller then releases
// search_lock and ends the command. Any failure is silent and returns false.
bool probe_book(SearchThread* thread);

// The Polyglot key of the real board behind a side-to-move position.
u64 book_key(const Position* pos);

// All entries of `key` in file order, at most `max`; 0 when the file cannot be read
// or holds no such key.
int book_entries(const char* path, u64 key, BookEntry* entries, int max);

// The book's move for `pos` as a Move in the position's frame (castling in the
// engine's form), or 0. `random` chooses by weight, otherwise the heaviest entry.
u32 book_move(const Position* pos, const char* path, bool random);

// Turns a Polyglot move word into a Move of `pos` (only from, to, promotion, and for
// king-takes-own-rook the castling form).
u32 book_word_to_move(const Position* pos, u16 word);

// The entry that a weighted draw r (0 <= r < total weight) lands on.
int book_weighted_index(const BookEntry* entries, int count, i32 r);
