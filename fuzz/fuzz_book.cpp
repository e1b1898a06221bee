// The Polyglot reader on arbitrary files: every lookup must stay inside the file and
// give back only entries of the key it was asked for.
#include "book/book.h"
#include "fuzz_common.h"

namespace {

u64 read_key(const unsigned char* p) {
    u64 k = 0;
    for (int i = 0; i < 8; ++i) k = k << 8 | p[i];
    return k;
}

void lookup(const std::string& path, u64 key) {
    static BookEntry entries[BOOK_MAX_CANDIDATES];
    int n = book_entries(path.c_str(), key, entries, BOOK_MAX_CANDIDATES);
    FUZZ_CHECK(n >= 0 && n <= BOOK_MAX_CANDIDATES);
    for (int i = 0; i < n; ++i) FUZZ_CHECK(entries[i].key == key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz_engine_startup();
    static const std::string path = fuzz_temp_dir() + "/book.bin";
    fuzz_write_file(path, data, size);

    // Keys that are in the file (first, middle, last record) and keys near them.
    const size_t records = size / 16;
    for (size_t r : {size_t(0), records / 2, records ? records - 1 : 0}) {
        if (r >= records) continue;
        u64 k = read_key(data + 16 * r);
        lookup(path, k);
        lookup(path, k + 1);
        lookup(path, k - 1);
    }
    lookup(path, 0);
    lookup(path, ~u64(0));

    // Whole lookups from a few positions, both choices, both castling notations.
    static const char* const fens[] = {
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - 0 1",
        "r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1",
        "1r2k1r1/pppppppp/8/8/8/8/PPPPPPPP/1R2K1R1 w GBgb - 0 1",
    };
    SearchThread* t = fuzz_thread();
    for (const char* fen : fens) {
        for (int c960 = 0; c960 < 2; ++c960) {
            engine_options.chess960 = c960;
            set_position(t, fen, nullptr);
            lookup(path, book_key(t->top));
            for (int random = 0; random < 2; ++random) {
                u32 m = book_move(t->top, path.c_str(), random);
                if (!m) continue;
                char text[8];
                move_text(t->top, m, text);
                FUZZ_CHECK(text[0] >= 'a' && text[0] <= 'h' && text[1] >= '1' && text[1] <= '8');
                FUZZ_CHECK(text[2] >= 'a' && text[2] <= 'h' && text[3] >= '1' && text[3] <= '8');
            }
        }
    }
    return 0;
}
