// The protocol through the real binary: exact replies, option handling and move lists
// (hostile input has its own table in bad_input_test.cpp).
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <string>
#include "board/board.h"
#include "engine_pipe.h"
#include "search/thread.h"

namespace {


const char* const START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";



}  // namespace

TEST(Uci, ReplyTextAndOptions) {
    EnginePipe e;
    e.send("uci\n");
    std::string expected[] = {
        "id name Vestra " VESTRA_VERSION,
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
