// The Polyglot book: keys, the on-disk search, the choice of a move, its text, the
// engine-side probe, and books built from PGN by vestra-book.
#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include "book/book.h"

namespace {

const char* START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";
const char* GNU_BOOK = "/usr/share/games/gnuchess/book.bin";

u16 word(const char* uci) {
    static const char* promo = "nbrq";
    u16 w = u16((uci[0] - 'a') << 6 | (uci[1] - '1') << 9 | (uci[2] - 'a') | (uci[3] - '1') << 3);
    if (uci[4])
        for (int i = 0; i < 4; ++i)
            if (promo[i] == uci[4]) w |= u16((i + 1) << 12);
    return w;
}

std::string raw_text(u16 w) {
    std::string s;
    s += char('a' + ((w >> 6) & 7));
    s += char('1' + ((w >> 9) & 7));
    s += char('a' + (w & 7));
    s += char('1' + ((w >> 3) & 7));
    if ((w >> 12) & 7) s += "nbrq"[((w >> 12) & 7) - 1];
    return s;
}

// Written here byte by byte, independently of the tool's writer.
void write_book(const std::string& path, const std::vector<BookEntry>& entries, int extra_bytes = 0) {
    std::string bytes;
    for (const BookEntry& e : entries) {
        for (int i = 7; i >= 0; --i) bytes += char(e.key >> (8 * i));
        bytes += char(e.move >> 8), bytes += char(e.move);
        bytes += char(e.weight >> 8), bytes += char(e.weight);
        for (int i = 3; i >= 0; --i) bytes += char(e.learn >> (8 * i));
    }
    bytes.append(size_t(extra_bytes), '\x5a');
    std::ofstream(path, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::vector<std::string> split(const std::string& s, char sep) {
    std::vector<std::string> out;
    std::stringstream ss(s);
    for (std::string part; std::getline(ss, part, sep);)
        if (!part.empty()) out.push_back(part);
    return out;
}

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

class Book : public ::testing::Test {
protected:
    static void SetUpTestSuite() { init_board_tables(); }
    void SetUp() override {
        set_default_options(&engine_options);
        search_limits.mode = 0;
        search_limits.stop = 0;
        thread->top = thread->stack;
    }
    void TearDown() override {
        for (const std::string& f : files) std::remove(f.c_str());
        set_default_options(&engine_options);
    }
    const Position* setup(const char* fen) {
        set_position(thread.get(), fen, nullptr);
        return thread->top;
    }
    std::string temp(const std::string& name) {
        files.push_back(::testing::TempDir() + "vestra_book_" + std::to_string(getpid()) + "_" + name);
        return files.back();
    }
    std::string text(const Position* pos, u32 move) {
        char buf[8];
        move_text(pos, move, buf);
        return buf;
    }
    std::unique_ptr<SearchThread> thread{new SearchThread()};
    std::vector<std::string> files;
};

TEST_F(Book, KeyTableIsThePublishedOne) {
    std::ifstream in(VESTRA_TEST_DATA "/polyglot_random64.txt");
    ASSERT_TRUE(in) << "missing tests/data/polyglot_random64.txt";
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        ASSERT_LT(n, 781);
        EXPECT_EQ(polyglot_random64[n], std::stoull(line, nullptr, 16)) << "index " << n;
        ++n;
    }
    EXPECT_EQ(n, 781);
}

TEST_F(Book, KeysOfKnownPositions) {
    std::ifstream in(VESTRA_TEST_DATA "/book_gnuchess.txt");
    ASSERT_TRUE(in) << "missing tests/data/book_gnuchess.txt";
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        auto fields = split(line, '|');
        ASSERT_EQ(fields.size(), 3u) << line;
        std::string fen = trim(fields[0]);
        EXPECT_EQ(book_key(setup(fen.c_str())), std::stoull(trim(fields[1]), nullptr, 16)) << fen;
        ++n;
    }
    EXPECT_GT(n, 50);

    // The worked examples published with the format: en passant counted only with a
    // capturer beside the pawn, for either side to move, and partial castling rights.
    struct {
        const char* fen;
        u64 key;
    } cases[] = {
        {"rnbqkbnr/ppp1pppp/8/3p4/4P3/8/PPPP1PPP/RNBQKBNR w KQkq d6 0 2", 0x0756b94461c50fb0ULL},
        {"rnbqkbnr/ppp1pppp/8/3pP3/8/8/PPPP1PPP/RNBQKBNR b KQkq - 0 2", 0x662fafb965db29d4ULL},
        {"rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPP1PPP/RNBQKBNR w KQkq f6 0 3", 0x22a48b5a8e47ff78ULL},
        {"rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPPKPPP/RNBQ1BNR b kq - 0 3", 0x652a607ca3f242c1ULL},
        {"rnbq1bnr/ppp1pkpp/8/3pPp2/8/8/PPPPKPPP/RNBQ1BNR w - - 0 4", 0x00fdd303c946bdd9ULL},
        {"rnbqkbnr/p1pppppp/8/8/PpP4P/8/1P1PPPP1/RNBQKBNR b KQkq c3 0 3", 0x3c8123ea7b067637ULL},
        {"rnbqkbnr/p1pppppp/8/8/P6P/R1p5/1P1PPPP1/1NBQKBNR b Kkq - 0 4", 0x5c3f9b829b279560ULL},
    };
    for (auto& c : cases) EXPECT_EQ(book_key(setup(c.fen)), c.key) << c.fen;
}

TEST_F(Book, GnuChessBookLookups) {
    if (access(GNU_BOOK, R_OK) != 0)
        GTEST_SKIP() << GNU_BOOK << " not installed (Debian package gnuchess-book; tools/install-test-deps.sh)";
    std::ifstream in(VESTRA_TEST_DATA "/book_gnuchess.txt");
    ASSERT_TRUE(in);
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#') continue;
        auto fields = split(line, '|');
        std::string fen = trim(fields[0]);
        auto listed = split(trim(fields[2]), ' ');
        const Position* pos = setup(fen.c_str());
        BookEntry entries[BOOK_MAX_CANDIDATES];
        int n = book_entries(GNU_BOOK, book_key(pos), entries, BOOK_MAX_CANDIDATES);
        ASSERT_EQ(n, int(listed.size())) << fen;
        std::string best;
        unsigned best_weight = 0;
        for (int i = 0; i < n; ++i) {
            auto mw = split(listed[i], ':');
            EXPECT_EQ(raw_text(entries[i].move), mw[0]) << fen;
            EXPECT_EQ(entries[i].weight, std::stoul(mw[1])) << fen;
            if (std::stoul(mw[1]) > best_weight) best = mw[0], best_weight = unsigned(std::stoul(mw[1]));
        }
        EXPECT_EQ(text(pos, book_move(pos, GNU_BOOK, false)), best) << fen;
    }
}

TEST_F(Book, ChoiceByWeight) {
    const Position* pos = setup(START);
    const u64 key = book_key(pos);
    std::string path = temp("choice.bin");
    write_book(path, {{key - 1, word("a2a3"), 90, 0},
                      {key, word("d2d4"), 3, 0},
                      {key, word("e2e4"), 7, 0},
                      {key, word("g1f3"), 7, 0},
                      {key + 1, word("h2h3"), 90, 0}});
    // Heaviest, and of equal weights the first in the file.
    EXPECT_EQ(text(pos, book_move(pos, path.c_str(), false)), "e2e4");
    std::string r = text(pos, book_move(pos, path.c_str(), true));
    EXPECT_TRUE(r == "d2d4" || r == "e2e4" || r == "g1f3") << r;

    BookEntry e[4];
    ASSERT_EQ(book_entries(path.c_str(), key, e, 4), 3);
    for (i32 v = 0; v < 17; ++v) EXPECT_EQ(book_weighted_index(e, 3, v), v < 3 ? 0 : v < 10 ? 1 : 2) << v;
    // A list cut at `max` entries.
    EXPECT_EQ(book_entries(path.c_str(), key, e, 2), 2);

    // Weight 0 is never the choice; all weights 0 is no move under either rule.
    write_book(path, {{key, word("d2d4"), 0, 0}, {key, word("e2e4"), 5, 0}});
    ASSERT_EQ(book_entries(path.c_str(), key, e, 4), 2);
    for (i32 v = 0; v < 5; ++v) EXPECT_EQ(book_weighted_index(e, 2, v), 1);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(text(pos, book_move(pos, path.c_str(), true)), "e2e4");
    write_book(path, {{key, word("d2d4"), 0, 0}, {key, word("e2e4"), 0, 0}});
    EXPECT_EQ(book_move(pos, path.c_str(), false), 0u);
    EXPECT_EQ(book_move(pos, path.c_str(), true), 0u);
}

TEST_F(Book, SearchOnDisk) {
    // Many keys, some with several entries: every key is found whole, gaps are misses.
    std::vector<BookEntry> book;
    u64 x = 0x9e3779b97f4a7c15ULL;
    std::vector<u64> keys;
    for (int i = 0; i < 700; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        keys.push_back(x & ~1ULL);  // even keys only, so key + 1 is never in the book
    }
    keys.push_back(0);
    keys.push_back(~1ULL);
    std::sort(keys.begin(), keys.end());
    keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
    for (size_t i = 0; i < keys.size(); ++i)
        for (size_t j = 0; j <= i % 3; ++j) book.push_back({keys[i], u16(i * 4 + j), u16(j + 1), u32(i)});
    std::string path = temp("search.bin");
    write_book(path, book);
    BookEntry e[8];
    for (size_t i = 0; i < keys.size(); ++i) {
        ASSERT_EQ(book_entries(path.c_str(), keys[i], e, 8), int(i % 3) + 1) << i;
        EXPECT_EQ(e[0].move, u16(i * 4));
        EXPECT_EQ(e[0].learn, u32(i));
        EXPECT_EQ(book_entries(path.c_str(), keys[i] + 1, e, 8), 0) << i;
    }

    // One entry; a file cut inside its last record; no file, an empty file, no name.
    write_book(path, {{42, word("e2e4"), 1, 0}});
    EXPECT_EQ(book_entries(path.c_str(), 42, e, 8), 1);
    EXPECT_EQ(book_entries(path.c_str(), 41, e, 8), 0);
    EXPECT_EQ(book_entries(path.c_str(), 43, e, 8), 0);
    write_book(path, {{10, 1, 1, 0}, {20, 2, 1, 0}, {30, 3, 1, 0}}, 5);  // 16 * 3 + 5 bytes
    EXPECT_EQ(book_entries(path.c_str(), 30, e, 8), 1);
    EXPECT_EQ(book_entries(path.c_str(), 10, e, 8), 1);
    write_book(path, {{10, 1, 1, 0}, {20, 2, 1, 0}});
    ASSERT_EQ(truncate(path.c_str(), 16 + 10), 0);
    EXPECT_EQ(book_entries(path.c_str(), 10, e, 8), 1);
    EXPECT_EQ(book_entries(path.c_str(), 20, e, 8), 0);
    write_book(path, {});
    EXPECT_EQ(book_entries(path.c_str(), 0, e, 8), 0);
    EXPECT_EQ(book_entries(temp("missing.bin").c_str(), 0, e, 8), 0);
    EXPECT_EQ(book_entries("", 0, e, 8), 0);
}

TEST_F(Book, MoveConversionAndText) {
    struct {
        const char* fen;
        const char* stored;
        const char* standard;
        const char* chess960;
    } cases[] = {
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "e1h1", "e1g1", "e1h1"},
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "e1a1", "e1c1", "e1a1"},
        {"r3k2r/8/8/8/8/8/8/R3K2R w KQkq - 0 1", "e1g1", "e1g1", "e1g1"},
        {"r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1", "e8h8", "e8g8", "e8h8"},
        {"r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1", "e8a8", "e8c8", "e8a8"},
        {"r3k2r/8/8/8/8/8/8/R3K2R b KQq - 0 1", "e8h8", "e8h8", "e8h8"},  // right gone
        {"1r2k1r1/8/8/8/8/8/8/1R2K1R1 w GBgb - 0 1", "e1g1", "e1g1", "e1g1"},  // 960 rook on g1
        {"1r2k1r1/8/8/8/8/8/8/1R2K1R1 b GBgb - 0 1", "e8b8", "e8c8", "e8b8"},
        {"8/P6k/8/8/8/8/p6K/8 w - - 0 1", "a7a8q", "a7a8q", "a7a8q"},
        {"8/P6k/8/8/8/8/p6K/8 b - - 0 1", "a2a1n", "a2a1n", "a2a1n"},
        {START, "g8f6", "g8f6", "g8f6"},  // no check of legality
    };
    for (auto& c : cases) {
        const Position* pos = setup(c.fen);
        u32 m = book_word_to_move(pos, word(c.stored));
        engine_options.chess960 = false;
        EXPECT_EQ(text(pos, m), c.standard) << c.fen << " " << c.stored;
        engine_options.chess960 = true;
        EXPECT_EQ(text(pos, m), c.chess960) << c.fen << " " << c.stored;
    }
    // Castling in the engine's own form, for the move text and nothing else.
    const Position* pos = setup("r3k2r/8/8/8/8/8/8/R3K2R b KQkq - 0 1");
    EXPECT_EQ(book_word_to_move(pos, word("e8a8")), make_move_word(KING, 4, 2) | MOVE_IS_CASTLING);
    // A word that is a1a1 for White is no move at all.
    pos = setup(START);
    EXPECT_EQ(book_word_to_move(pos, 0), 0u);
}

TEST_F(Book, ProbeFromTheEngine) {
    const Position* pos = setup(START);
    std::string path = temp("probe.bin");
    write_book(path, {{book_key(pos), word("e2e4"), 1, 0}});
    std::snprintf(engine_options.book_file, sizeof engine_options.book_file, "%s", path.c_str());
    auto probe = [&](bool expect) {
        ::testing::internal::CaptureStdout();
        bool hit = probe_book(thread.get());
        EXPECT_EQ(hit, expect);
        return ::testing::internal::GetCapturedStdout();
    };

    EXPECT_EQ(probe(false), "");  // OwnBook off
    engine_options.own_book = true;
    EXPECT_EQ(probe(true), "bestmove e2e4\n");
    search_limits.mode = 2;
    EXPECT_EQ(probe(false), "");  // infinite never uses the book
    search_limits.mode = 0;
    std::snprintf(engine_options.book_file, sizeof engine_options.book_file, "%s", temp("none.bin").c_str());
    EXPECT_EQ(probe(false), "");

    // Pondering: the move is held until ponderhit (mode 0) or stop.
    std::snprintf(engine_options.book_file, sizeof engine_options.book_file, "%s", path.c_str());
    for (int how = 0; how < 2; ++how) {
        search_limits.mode = 1;
        search_limits.stop = 0;
        std::atomic<bool> done{false};
        ::testing::internal::CaptureStdout();
        std::thread t([&] {
            EXPECT_TRUE(probe_book(thread.get()));
            done = true;
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(done.load());
        if (how == 0)
            search_limits.mode = 0;
        else
            set_stop();
        t.join();
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "bestmove e2e4\n");
    }
}

TEST_F(Book, BuiltFromPgn) {
    std::string pgn = temp("games.pgn"), bin = temp("games.bin"), err = temp("err.txt");
    std::ofstream(pgn) << R"([Event "one"]
[Result "1-0"]

1. e4 {best by test} e5 (1... e6 2. d4 (2. Nf3) d5) 2. Nf3 $1 Nc6 3. Bc4 Bc5
4. O-O Nf6 1-0

[Event "two"]
[Result "0-1"]
1.e4 c5 ; 1. d4 is a comment here
2.Nf3 d6 0-1

[Event "three"]
1. d4 d5 2. c4 e6 1/2-1/2

[Event "illegal"]
[Result "1-0"]
1. e4 e5 2. Nf6 Nc6 1-0

[Event "four"]
[Result "1/2-1/2"]
1. e4! e5 2. Nf3 Nc6 3. Bb5 a6 1/2-1/2

[Event "unfinished"]
1. d4 Nf6 *

[Event "from a position"]
[SetUp "1"]
[FEN "rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - 0 1"]
[Result "0-1"]
1... c5 2. Nf3 Nc6 0-1

[Event "garbled"]
1. e4 e5 2. Qxz9 1-0
)";
    auto run = [&](int max_ply, int min_games) {
        std::string cmd = std::string(VESTRA_TOOLS_DIR "/vestra-book make ") + pgn + " " + bin + " --max-ply " +
                          std::to_string(max_ply) + " --min-games " + std::to_string(min_games) + " >/dev/null 2>" +
                          err;
        return std::system(cmd.c_str());
    };
    auto entries = [&](const char* fen) {
        const Position* pos = setup(fen);
        BookEntry e[16];
        int n = book_entries(bin.c_str(), book_key(pos), e, 16);
        std::string out;
        for (int i = 0; i < n; ++i) out += text(pos, book_word_to_move(pos, e[i].move)) + ":" + std::to_string(e[i].weight) + " ";
        return out;
    };
    const char* after_e4 = "rnbqkbnr/pppppppp/8/8/4P3/8/PPPP1PPP/RNBQKBNR b KQkq - 0 1";
    const char* before_castling = "r1bqk1nr/pppp1ppp/2n5/2b1p3/2B1P3/5N2/PPPP1PPP/RNBQK2R w KQkq - 4 4";

    ASSERT_EQ(run(8, 1), 0);
    std::ifstream es(err);
    std::string messages((std::istreambuf_iterator<char>(es)), std::istreambuf_iterator<char>());
    EXPECT_NE(messages.find("Nf6"), std::string::npos) << messages;
    EXPECT_NE(messages.find("Qxz9"), std::string::npos) << messages;
    EXPECT_EQ(std::count(messages.begin(), messages.end(), '\n'), 2) << messages;

    // 2 a win, 1 a draw, 0 a loss for the side that moved; variations and the bad
    // games left out.
    EXPECT_EQ(entries(START), "e2e4:3 d2d4:1 ");
    EXPECT_EQ(entries(after_e4), "c7c5:4 e7e5:1 ");
    EXPECT_EQ(entries("rnbqkbnr/pppp1ppp/4p3/8/4P3/8/PPPP1PPP/RNBQKBNR w KQkq - 0 2"), "");
    EXPECT_EQ(entries(before_castling), "e1g1:2 ");
    const Position* pos = setup(before_castling);
    BookEntry e[4];
    ASSERT_EQ(book_entries(bin.c_str(), book_key(pos), e, 4), 1);
    EXPECT_EQ(raw_text(e[0].move), "e1h1");

    // The file: sorted by key, one entry per key and move.
    std::ifstream f(bin, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    ASSERT_EQ(bytes.size() % 16, 0u);
    ASSERT_GT(bytes.size(), 0u);
    for (size_t i = 16; i < bytes.size(); i += 16) {
        std::string prev = bytes.substr(i - 16, 8) + bytes.substr(i - 8, 2);
        std::string cur = bytes.substr(i, 8) + bytes.substr(i + 8, 2);
        EXPECT_LE(bytes.substr(i - 16, 8), bytes.substr(i, 8));  // big-endian bytes sort as numbers
        EXPECT_NE(prev, cur);
    }

    // Fewer plies, more games per move.
    ASSERT_EQ(run(6, 2), 0);
    EXPECT_EQ(entries(START), "e2e4:3 ");
    EXPECT_EQ(entries(after_e4), "c7c5:4 e7e5:1 ");
    EXPECT_EQ(entries(before_castling), "");
}

}  // namespace
