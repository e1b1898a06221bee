// Threads, MultiPV, Strength, the book and the tables as a user meets them: through
// the real binary.
#include <gtest/gtest.h>
#include <chrono>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <unistd.h>
#include "engine_pipe.h"
#include "tb/tb.h"

namespace {

const char* const START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

void tables_ready() {
    static bool done = false;
    if (done) return;
    board_after(START, nullptr);
    tb_init_index_tables();
    tb_init("<empty>");
    done = true;
}

int field(const std::string& line, const std::string& name) {
    size_t at = line.find(" " + name + " ");
    return at == std::string::npos ? -99999 : std::stoi(line.substr(at + name.size() + 2));
}

long long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

TEST(EngineThreads, SeveralThreadsReportEveryDepthOnceAndStopTogether) {
    for (int threads : {2, 4}) {
        EnginePipe e;
        e.send("setoption name Threads value " + std::to_string(threads) +
               "\nsetoption name Hash value 16\nucinewgame\nposition startpos moves d2d4\ngo depth 9\n");
        std::string best = bestmove_word(e.wait_for("bestmove", 60000));
        EXPECT_TRUE(is_legal_text(START, "d2d4", best)) << best;
        int expected = 1;
        for (const std::string& l : e.lines) {
            if (l.rfind("info multipv 1 depth ", 0) != 0) continue;
            int d = field(l, "depth");
            if (expected <= 9) {
                EXPECT_EQ(d, expected) << l;
            }
            ++expected;
            int score = field(l, "cp");
            EXPECT_LT(std::abs(score), 400) << l;
        }
        EXPECT_EQ(expected, 11);  // depths 1..9 and the final line

        // Go/stop cycles, the thread count changed between games: every search ends
        // promptly with a legal move.
        for (int cycle = 0; cycle < 4; ++cycle) {
            e.send("setoption name Threads value " + std::to_string(1 + cycle % 3) +
                   "\nucinewgame\nposition startpos\ngo infinite\n");
            EXPECT_NE(e.wait_for("info", 10000), "");
            usleep(100000);
            auto start = std::chrono::steady_clock::now();
            e.send("stop\n");
            best = bestmove_word(e.wait_for("bestmove", 5000));
            EXPECT_TRUE(is_legal_text(START, "", best)) << best;
            EXPECT_LT(elapsed_ms(start), 2000);
        }
        e.send("quit\n");
        EXPECT_EQ(e.finish(), 0);
    }
}

TEST(EngineLines, MultiPvReportsDistinctLinesInOrder) {
    EnginePipe e;
    e.send("setoption name MultiPV value 3\nposition startpos\ngo depth 6\n");
    ASSERT_NE(e.wait_for("bestmove", 60000), "");
    // Per depth: multipv 3, 2, 1, with distinct first moves and scores falling from 1 to 3.
    for (int depth = 1; depth <= 6; ++depth) {
        std::vector<std::string> lines;
        for (const std::string& l : e.lines)
            if (l.rfind("info ", 0) == 0 && field(l, "depth") == depth) lines.push_back(l);
        ASSERT_EQ(lines.size(), 3u) << "depth " << depth;
        EXPECT_EQ(field(lines[0], "multipv"), 3);
        EXPECT_EQ(field(lines[2], "multipv"), 1);
        std::string first[3];
        for (int i = 0; i < 3; ++i) first[i] = lines[i].substr(lines[i].find(" pv ") + 4, 4);
        EXPECT_NE(first[0], first[1]);
        EXPECT_NE(first[1], first[2]);
        EXPECT_NE(first[0], first[2]);
        EXPECT_GE(field(lines[2], "cp"), field(lines[1], "cp"));
        EXPECT_GE(field(lines[1], "cp"), field(lines[0], "cp"));
    }
    // Two legal moves give two lines.
    e.send("position fen 7k/8/8/8/8/8/8/K7 w - - 0 1\ngo depth 3\n");
    ASSERT_NE(e.wait_for("bestmove", 20000), "");
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineStrength, WeakSettingStaysInsideTheClock) {
    EnginePipe e;
    e.send("setoption name Strength value 20\nposition startpos\nisready\n");
    // The clock starts once the engine is up, so a slow start on a busy machine is not charged.
    ASSERT_NE(e.wait_for("readyok", 20000), "");
    auto start = std::chrono::steady_clock::now();
    e.send("go wtime 3000 btime 3000\n");
    std::string best = bestmove_word(e.wait_for("bestmove", 10000));
    EXPECT_TRUE(is_legal_text(START, "", best)) << best;
    EXPECT_LT(elapsed_ms(start), 2900);
    // The waits limit the depth: at 960 ms per depth, a 3 s clock leaves very few.
    int deepest = 0;
    for (const std::string& l : e.lines)
        if (l.rfind("info ", 0) == 0) deepest = std::max(deepest, field(l, "depth"));
    EXPECT_LE(deepest, 3);
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(EngineBook, BookMovesAnswerAtOnceAndFailuresFallThrough) {
    char path[] = "/tmp/vestra-book-XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    // One entry for the start position: e2e4 (from e2 = 12, to e4 = 28), weight 1.
    const unsigned char entry[16] = {0x46, 0x3B, 0x96, 0x18, 0x16, 0x91, 0xFC, 0x9C,
                                     u8(((12 << 6) | 28) >> 8), u8((12 << 6) | 28), 0, 1, 0, 0, 0, 0};
    ASSERT_EQ(write(fd, entry, sizeof entry), 16);
    close(fd);

    EnginePipe e;
    e.send(std::string("setoption name OwnBook value true\nsetoption name BookFile value ") + path +
           "\nposition startpos\nisready\n");
    ASSERT_NE(e.wait_for("readyok", 20000), "");
    e.send("go wtime 10000 btime 10000\n");
    std::string line = e.wait_for("bestmove", 5000);
    EXPECT_EQ(line, "bestmove e2e4");
    for (const std::string& l : e.lines) EXPECT_NE(l.rfind("info", 0), 0u) << l;
    // infinite never uses the book; a position not in the book searches.
    e.send("go infinite\n");
    EXPECT_NE(e.wait_for("info", 5000), "");
    e.send("stop\n");
    EXPECT_TRUE(is_legal_text(START, "", bestmove_word(e.wait_for("bestmove", 5000))));
    e.send("position startpos moves e2e4\ngo depth 3\n");
    EXPECT_TRUE(is_legal_text(START, "e2e4", bestmove_word(e.wait_for("bestmove", 10000))));
    // A missing file falls through silently.
    e.send("setoption name BookFile value /nonexistent/book.bin\nposition startpos\ngo depth 3\n");
    EXPECT_TRUE(is_legal_text(START, "", bestmove_word(e.wait_for("bestmove", 10000))));
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
    unlink(path);
}

TEST(EngineTables, RootFilterKeepsWinsAndDraws) {
    struct Case {
        const char* fen;
        int wdl;  // for the side to move
    } cases[] = {
        {"8/8/8/4k3/8/8/8/4K2Q w - - 0 1", 2},
        {"8/8/3k4/8/8/8/2R5/3K4 w - - 40 1", 2},
        {"4k3/8/4K3/4P3/8/8/8/8 w - - 0 1", 2},
        {"8/8/8/4k3/8/8/3P4/3K4 b - - 0 1", 0},
        {"8/8/8/3k4/8/8/1B3b2/3K4 b - - 0 1", 0},
        {"8/2r5/8/3k4/8/8/4R3/3K4 w - - 0 1", 0},
    };
    EnginePipe e;
    for (const Case& c : cases) {
        e.send(std::string("position fen ") + c.fen + "\ngo depth 6\n");
        std::string best = bestmove_word(e.wait_for("bestmove", 20000));
        ASSERT_TRUE(is_legal_text(c.fen, "", best)) << c.fen << " " << best;
        tables_ready();
        auto t = board_after(c.fen, best.c_str());
        i32 ok = 0;
        i32 after = tb_probe_wdl(t.get(), &ok);
        ASSERT_TRUE(ok) << c.fen;
        // The opponent's view after the move: a kept win is a loss for them.
        if (c.wdl == 2) {
            EXPECT_EQ(after, -2) << c.fen << " " << best;
        }
        if (c.wdl == 0) {
            EXPECT_LE(after, 0) << c.fen << " " << best;
        }
        bool table_score = false;
        for (const std::string& l : e.lines)
            if (l.find("tbhits 0") == std::string::npos && l.rfind("info", 0) == 0) table_score = true;
        EXPECT_TRUE(table_score) << c.fen;
        e.lines.clear();
    }
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}
