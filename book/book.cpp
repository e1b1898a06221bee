#include "book/book.h"
#include <cstdio>
#include <cstdlib>

u64 book_key(const Position* pos) {
    const bool black = (pos->flags & POS_BLACK) != 0;
    const int flip = black ? 56 : 0;
    const u64 white = black ? pos->occupied ^ pos->own : pos->own;
    u64 key = 0;
    for (u64 b = pos->occupied; b;) {
        int s = pop_lsb(b);
        int c = piece_on(pos, s);
        if (c == NO_PIECE) continue;  // a man on no piece board: nothing to hash
        int w = int((white >> s) & 1);
        key ^= polyglot_random64[64 * (2 * (c - 1) + w) + (s ^ flip)];
    }
    // Nibbles from the low end: own short, own long, enemy short, enemy long.
    static const int white_first[4] = {768, 769, 770, 771};
    static const int black_first[4] = {770, 771, 768, 769};
    const int* castle_index = black ? black_first : white_first;
    for (int i = 0; i < 4; ++i)
        if (((pos->castling >> (4 * i)) & 15) != NO_RIGHT) key ^= polyglot_random64[castle_index[i]];
    int ep = ep_file(pos->flags);
    if (ep < 8) key ^= polyglot_random64[772 + ep];
    if (!black) key ^= polyglot_random64[780];
    return key;
}

static u64 read_be(const unsigned char* p, int n) {
    u64 v = 0;
    for (int i = 0; i < n; ++i) v = v << 8 | p[i];
    return v;
}

// Seeks to record `index` and reads it whole; false on any short read.
static bool read_entry(FILE* f, i32 index, BookEntry* e) {
    unsigned char buf[16];
    if (std::fseek(f, long(index) * 16, SEEK_SET) != 0) return false;
    if (std::fread(buf, 16, 1, f) != 1) return false;
    e->key = read_be(buf, 8);
    e->move = u16(read_be(buf + 8, 2));
    e->weight = u16(read_be(buf + 10, 2));
    e->learn = u32(read_be(buf + 12, 4));
    return true;
}

static int find_entries(FILE* f, u64 key, BookEntry* entries, int max) {
    if (std::fseek(f, 0, SEEK_END) != 0) return 0;
    long size = std::ftell(f);
    // Record positions are 32-bit values: a book of 2 GiB or more is not read. (Where
    // long has 32 bits, as on Windows, ftell already fails for such a file.)
    if (size < 0 || u64(size) >= 0x80000000ull) return 0;
    const i32 n = i32(size / 16);
    i32 lo = 0, hi = n - 1;
    BookEntry e;
    // The body runs at least once; for an empty file it is this read that fails.
    do {
        i32 mid = (lo + hi) / 2;
        if (!read_entry(f, mid, &e)) return 0;
        if (e.key < key)
            lo = mid + 1;
        else
            hi = mid;
    } while (lo < hi);
    if (!read_entry(f, lo, &e) || e.key != key) return 0;
    int count = 0;
    // Entries beyond `max` are not read: with a full list the lookup is decided.
    for (i32 i = lo; i < n && count < max; ++i) {
        if (!read_entry(f, i, &e)) return 0;
        if (e.key != key) break;
        entries[count++] = e;
    }
    return count;
}

int book_entries(const char* path, u64 key, BookEntry* entries, int max) {
    if (!path || !*path || max <= 0) return 0;
    FILE* f = std::fopen(path, "rb");
    if (!f) return 0;
    int count = find_entries(f, key, entries, max);
    std::fclose(f);
    return count;
}

int book_weighted_index(const BookEntry* entries, int count, i32 r) {
    for (int i = 0; i < count; ++i) {
        r -= entries[i].weight;
        if (r < 0) return i;
    }
    return -1;
}

u32 book_word_to_move(const Position* pos, u16 word) {
    const int flip = (pos->flags & POS_BLACK) ? 56 : 0;
    int from = ((word >> 6) & 63) ^ flip;
    int to = (word & 63) ^ flip;
    int promotion = (word >> 12) & 7;
    // Codes 5 to 7 are no piece: masked, they leave no stray bit above the field. The
    // promotion flag is what makes the move text show the letter.
    u32 move = make_move_word(NO_PIECE, from, to);
    if (promotion) move |= u32((promotion + 1) & 7) << 18 | MOVE_IS_PROMOTION;
    // Castling is stored as the king taking its own rook.
    const u64 own_king = pos->kings & pos->own;
    int short_rook = pos->castling & 15;
    if (short_rook != NO_RIGHT && (own_king & bit(move_from(move))) && move_to(move) == short_rook)
        move = make_move_word(KING, move_from(move), 6) | MOVE_IS_CASTLING;
    int long_rook = (pos->castling >> 4) & 15;
    if (long_rook != NO_RIGHT && (own_king & bit(move_from(move))) && move_to(move) == long_rook)
        move = make_move_word(KING, move_from(move), 2) | MOVE_IS_CASTLING;
    return move;
}

u32 book_move(const Position* pos, const char* path, bool random) {
    BookEntry entries[BOOK_MAX_CANDIDATES];
    int count = book_entries(path, book_key(pos), entries, BOOK_MAX_CANDIDATES);
    i32 total = 0;
    int best = -1;
    u16 best_weight = 0;
    for (int i = 0; i < count; ++i) {
        total += entries[i].weight;
        if (entries[i].weight > best_weight) {
            best_weight = entries[i].weight;
            best = i;
        }
    }
    if (total == 0) return 0;
    int chosen = best;
    if (random) {
        std::srand(u32(now_ms()));
        chosen = book_weighted_index(entries, count, std::rand() % total);
    }
    if (chosen < 0) return 0;
    return book_word_to_move(pos, entries[chosen].move);
}

bool probe_book(SearchThread* thread) {
    if (!engine_options.own_book || search_mode() == 2) return false;
    const Position* pos = thread->top;
    u32 move = book_move(pos, engine_options.book_file, engine_options.book_random);
    if (move == 0) return false;
    // A move found while pondering is held back until the game reaches it.
    while (search_mode() == 1 && !search_stopped()) __builtin_ia32_pause();
    char text[8];
    move_text(pos, move, text);
    spin_lock(search_shared.print_lock);
    std::printf("bestmove %s\n", text);
    std::fflush(stdout);
    spin_unlock(search_shared.print_lock);
    return true;
}
