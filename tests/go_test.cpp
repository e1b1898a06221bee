// Every way a search starts and ends, through the real binary.
#include <gtest/gtest.h>
#include <chrono>
#include <string>
#include "engine_pipe.h"

namespace {


long long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

TEST(Go, LimitsEndWithBestmove) {
    EnginePipe e;
    e.send("setoption name Hash value 16\nposition startpos moves e2e4\ngo depth 4\n");
    std::string line = e.wait_for("bestmove", 60000);
    EXPECT_FALSE(bestmove_word(line).empty());
    // Every depth from 1 to 4 reported, then the final line repeats depth 4.
    int depth_lines = 0;
    for (const std::string& l : e.lines)
        if (l.rfind("info multipv 1 depth ", 0) == 0) ++depth_lines;
    EXPECT_EQ(depth_lines, 5);

    e.send("go nodes 5000\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 30000)).empty());

    auto start = std::chrono::steady_clock::now();
    e.send("go movetime 300\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 10000)).empty());
    EXPECT_LT(elapsed_ms(start), 5000);

    // A second `go` without a new position searches the same position again.
    e.send("go depth 1\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 10000)).empty());
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(Go, InfinitePonderStopAndQuit) {
    EnginePipe e;
    e.send("setoption name Hash value 16\nposition startpos\ngo infinite\n");
    EXPECT_NE(e.wait_for("info", 10000), "");
    // isready is answered while the search runs, and nothing ends the search but stop.
    e.send("isready\n");
    EXPECT_EQ(e.wait_for("readyok", 5000), "readyok");
    EXPECT_EQ(e.wait_for("bestmove", 500), "");
    auto start = std::chrono::steady_clock::now();
    e.send("stop\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 5000)).empty());
    EXPECT_LT(elapsed_ms(start), 2000);

    // Ponder: no answer until ponderhit, even past the depth limit.
    e.send("go ponder depth 2 wtime 100000 btime 100000\n");
    EXPECT_EQ(e.wait_for("bestmove", 700), "");
    e.send("ponderhit\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 5000)).empty());

    // quit in the middle of a search answers with bestmove and ends the process.
    e.send("go infinite\n");
    EXPECT_NE(e.wait_for("info", 10000), "");
    start = std::chrono::steady_clock::now();
    e.send("quit\n");
    EXPECT_FALSE(bestmove_word(e.wait_for("bestmove", 5000)).empty());
    EXPECT_EQ(e.finish(), 0);
    EXPECT_LT(elapsed_ms(start), 3000);
}

TEST(Go, SearchmovesAndNoLegalMove) {
    EnginePipe e;
    e.send("position startpos\ngo depth 3 searchmoves a2a3 h2h4 zz\n");
    std::string best = bestmove_word(e.wait_for("bestmove", 30000));
    EXPECT_TRUE(best == "a2a3" || best == "h2h4") << best;
    e.send("go depth 3 searchmoves e2e5\n");
    EXPECT_EQ(e.wait_for("bestmove", 5000), "bestmove 0000");
    // Mated and stalemated sides answer at once, and the next command is not blocked.
    e.send("position fen rnb1kbnr/pppp1ppp/8/4p3/6Pq/5P2/PPPPP2P/RNBQKBNR w KQkq - 1 3\ngo depth 5\n");
    EXPECT_EQ(e.wait_for("bestmove", 5000), "bestmove 0000");
    e.send("position fen 7k/5Q2/6K1/8/8/8/8/8 b - - 0 1\ngo\n");
    EXPECT_EQ(e.wait_for("bestmove", 5000), "bestmove 0000");
    e.send("position fen 6k1/5ppp/8/8/8/8/8/K2R4 w - - 0 1\ngo depth 4\n");
    std::string line = e.wait_for("bestmove", 30000);
    EXPECT_EQ(bestmove_word(line), "d1d8");
    bool mate_reported = false;
    for (const std::string& l : e.lines)
        if (l.find("score mate 1 pv d1d8") != std::string::npos) mate_reported = true;
    EXPECT_TRUE(mate_reported);
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(Go, BenchmarkIsDeterministic) {
    long long counts[2] = {-1, -2};
    for (long long& count : counts) {
        EnginePipe e({"pgo"});
        std::string line = e.wait_for("Total nodes searched: ", 300000);
        ASSERT_FALSE(line.empty());
        count = std::stoll(line.substr(22));
        EXPECT_EQ(e.finish(), 0);
    }
    EXPECT_GT(counts[0], 0);
    EXPECT_EQ(counts[0], counts[1]);
}
