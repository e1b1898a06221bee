// The protocol through the real binary: exact replies, option handling, hostile input
// and every way a search can be started and ended.
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <string>
#include "board/board.h"
#include "engine_pipe.h"
#include "search/thread.h"

namespace {


const char* const START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";



void expect_alive(EnginePipe& e) {
    e.send("isready\n");
    EXPECT_EQ(e.wait_for("readyok", 10000), "readyok");
}

}  // namespace

TEST(Uci, ReplyTextAndOptions) {
    EnginePipe e;
    e.send("uci\n");
    std::string expected[] = {
        "id name Vestra 3.1",
        "id author Ilario Tessen",
        "option name Hash type spin default 256 min 1 max 1048576",
        "option name Threads type spin default 1 min 1 max 512",
        "option name Ponder type check default false",
        "option name OwnBook type check default false",
        "option name BookFile type string default vestrabook.bin",
        "option name BookRandom type check default false",
        "option name DrawScore type spin default 0 min -100 max 100",
        "option name MoveOverhead type spin default 100 min 0 max 5000",
        "option name Strength type spin default 100 min 1 max 100",
        "option name MultiPV type spin default 1 min 1 max 256",
        "option name LargePages type check default false",
        "option name UCI_Chess960 type check default false",
        "option name SyzygyPath type string default <empty>",
        "option name Syzygy50MoveRule type check default true",
        "option name SyzygyProbeLimit type spin default 7 min 0 max 7",
        "uciok",
    };
    for (const std::string& want : expected) {
        std::string line;
        ASSERT_TRUE(e.read_line(&line, 10000));
        EXPECT_EQ(line, want);
    }
    // A string value keeps its blanks; "uci " with a blank is no command.
    e.send("setoption name BookFile value my book.bin\nuci \nuci\n");
    EXPECT_EQ(e.wait_for("option name BookFile"), "option name BookFile type string default my book.bin");
    e.send("setoption name BookFile value\nuci\n");
    EXPECT_EQ(e.wait_for("option name BookFile"), "option name BookFile type string default my book.bin");
    EXPECT_EQ(e.wait_for("uciok"), "uciok");
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(Uci, HostileInputKeepsEngineAnswering) {
    EnginePipe e;
    std::string long_line(20000, 'x');
    std::string garbage;
    for (int i = 0; i < 3000; ++i) garbage.push_back(char((i * 7919) % 255 + 1));
    const std::string inputs[] = {
        "\n",
        "   isready_not\n",
        "xyzzy foo bar\n",
        long_line + "\n",
        garbage + "\n",
        "position fen\n",
        "position fen 8/8/8/8/8/8/8/8 w - - 0 1\n",
        "position fen rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQQBNR w KQkq - 0 1\n",
        "position fen QQQQQQQQ/QQQQQQQQ/8/8/8/8/8/k6K w - - 0 1\n",
        "position fen 4k3/8/8/8/8/8/8/4K2P w - - 0 1\n",
        "position fen 4k3/8/8/8/8/8/4Q3/4K3 w - - 0 1\n",
        "position fen rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkqABCDEFGH zz -5 1\n",
        "position startpos moves e2e4 e7e5 e1e8 a1a8 zz99 e9e9\n",
        "position startpos moves " + std::string(4000, 'a') + "\n",
        "setoption name Hash value 0\n",
        "setoption name Threads value 100000\n",
        "setoption name MultiPV value 99999999999999\n",
        "setoption name MoveOverhead value -5000\n",
        "setoption name Unknown value 3\n",
        "setoption name\n",
        "go wtime -100 btime -100\nstop\n",
        "go depth\nstop\n",
        "go movestogo -4 wtime 1000\nstop\n",
        "go nodes -5\nstop\n",
        "go wtime 99999999999999999999999 winc 99999999999999999999\nstop\n",
    };
    for (const std::string& in : inputs) {
        e.send(in);
        expect_alive(e);
    }
    e.send("ucinewgame\nposition startpos\ngo depth 2\n");
    std::string best = bestmove_word(e.wait_for("bestmove", 30000));
    EXPECT_TRUE(is_legal_text(START, nullptr, best)) << best;
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}

TEST(Uci, MoveListsAndReplay) {
    EnginePipe e;
    // A long list with repetitions and captures; the engine must answer from its end.
    std::string moves = "e2e4 e7e5 g1f3 b8c6 f1b5 a7a6 b5a4 g8f6 e1g1 f8e7";
    for (int i = 0; i < 60; ++i) moves += " f3g5 f6g4 g5f3 g4f6";
    e.send("position startpos moves " + moves + "\ngo depth 3\n");
    std::string best = bestmove_word(e.wait_for("bestmove", 30000));
    EXPECT_TRUE(is_legal_text(START, moves.c_str(), best)) << best;
    // An illegal word stops the replay where it stands: after e2e4 Black is to move.
    e.send("position startpos moves e2e4 e2e4 d7d5\ngo depth 1\n");
    best = bestmove_word(e.wait_for("bestmove", 30000));
    EXPECT_TRUE(is_legal_text(START, "e2e4", best)) << best;
    e.send("quit\n");
    EXPECT_EQ(e.finish(), 0);
}
