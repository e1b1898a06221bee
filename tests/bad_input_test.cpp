// Hostile input through the real binary: a table of lines that a careless or broken
// GUI could send. After each the engine must still answer isready and play a legal
// move from the start position; where a case starts a search, its bestmove must be
// legal in the position the case set up (or 0000 when that position has none).
#include <gtest/gtest.h>
#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "engine_pipe.h"

namespace {

const char* const START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

// The legal moves' texts of a position given as the engine receives it.
std::vector<std::string> legal_texts(const char* fen, const char* moves, bool chess960 = false) {
    auto thread = board_after(fen, moves);  // sets the options up on first use
    engine_options.chess960 = chess960;
    thread = board_after(fen, moves);
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(thread->top, list);
    std::vector<std::string> out;
    for (ScoredMove* p = list; p < end; ++p) {
        char text[8];
        move_text(thread->top, p->move, text);
        out.push_back(text);
    }
    engine_options.chess960 = false;
    return out;
}

struct Case {
    std::string input;
    // When set, the case's own search must answer with one of this position's moves.
    const char* fen = nullptr;
    const char* moves = nullptr;
    bool chess960 = false;
    // When set, nothing in the case may start a search.
    bool silent = false;
};

std::string repeat(const std::string& s, int n) {
    std::string out;
    for (int i = 0; i < n; ++i) out += s;
    return out;
}

std::vector<Case> hostile_cases() {
    std::string garbage;  // bytes 0..255 apart from the line feed, NUL included
    for (int i = 0; i < 4000; ++i) {
        char c = char((i * 7919 + 13) % 256);
        garbage.push_back(c == '\n' ? ' ' : c);
    }
    std::string garbage_lines;  // many short lines that start with no command letter
    for (int i = 0; i < 300; ++i) {
        garbage_lines += char('A' + i % 26);
        for (int j = 0; j < i % 40; ++j) garbage_lines += char((i * 31 + j * 17) % 255 + 1 == '\n' ? 'x' : (i * 31 + j * 17) % 255 + 1);
        garbage_lines += '\n';
    }
    std::string shuffle;  // 240 knight moves: repetitions, and a stack longer than a search's
    for (int i = 0; i < 60; ++i) shuffle += " g1f3 g8f6 f3g1 f6g8";
    static const std::string shuffle_moves = shuffle.substr(1);  // outlives the table

    return {
        // Lines that are no command.
        {"\n"},
        {"   isready\n"},
        {"xyzzy foo bar\n"},
        {"uci \nUCI\nGo\n", nullptr, nullptr, false, true},
        {std::string(20000, 'x') + "\n"},
        {garbage + "\n"},
        {garbage_lines},
        {std::string("\0\0go\0infinite\n", 14), nullptr, nullptr, false, true},
        // Longer than the line buffer: dropped whole, also behind a NUL byte.
        {"go " + repeat("wtime 1 ", 1200) + "\n", nullptr, nullptr, false, true},
        {std::string(1, '\0') + std::string(8190, 'x') + "go depth 1\n", nullptr, nullptr, false, true},
        // 8,190 characters and the line feed is the longest line that fits.
        {"position startpos\ngo depth 1" + std::string(8180, ' ') + "\n", START, ""},
        {"position startpos\ngo depth 1" + std::string(8181, ' ') + "\n", nullptr, nullptr, false, true},
        {"position startpos moves " + repeat("e2e4 e7e5 ", 900) + "\n"},
        // FENs the engine cannot use keep the previous position.
        {"position fen\n"},
        {"position fen \n"},
        {"position fen 8/8/8/8/8/8/8/8 w - - 0 1\n"},
        {"position fen 4K3/8/8/8/8/8/8/8 w - - 0 1\n"},
        {"position fen rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKKNR w KQkq - 0 1\n"},
        {"position fen QQQQQQQQ/QQQQQQQQ/8/8/8/8/8/k6K w - - 0 1\n"},
        {"position fen rnbqkbnr/pppppppp/8/8/3Q4/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1\n"},
        {"position fen 4k3/8/8/8/8/8/8/P3K3 w - - 0 1\n"},
        {"position fen P3k3/8/8/8/8/8/8/4K3 b - - 0 1\n"},
        {"position fen 4k3/8/8/8/8/8/4Q3/4K3 w - - 0 1\n"},
        {"position fen 9/8/8/8/8/8/8/8 w - - 0 1\n"},
        {"position fen 8/8/8/8/8/8/8/8/8/4k3/4K3 w - - 0 1\n"},
        {"position fen rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR\n"},
        {"position fen rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR x KQkq - 0 1\n"},
        {"position fen " + std::string(300, 'k') + " w - - 0 1\n"},
        {"position fen 4k3/8/8/8/8/8/8/4K3 w - - 0 1 " + std::string(9000, '1') + "\n"},
        // Usable FENs with nonsense in their other fields, searched at once.
        {"position fen 4k3/8/8/8/8/8/8/4K3 w KQkq - 0 1\ngo depth 3\n", "4k3/8/8/8/8/8/8/4K3 w KQkq - 0 1"},
        {"position fen r3k2r/8/8/8/8/8/8/R3K2R w KQkqABCDEFGHzz - 0 1\ngo depth 3\n",
         "r3k2r/8/8/8/8/8/8/R3K2R w KQkqABCDEFGHzz - 0 1"},
        {"position fen 4k3/8/8/8/8/8/4P3/4K3 w - e3 0 1\ngo depth 3\n", "4k3/8/8/8/8/8/4P3/4K3 w - e3 0 1"},
        {"position fen 4k3/8/8/3pP3/8/8/8/4K3 w - z9 -5 0\ngo depth 3\n", "4k3/8/8/3pP3/8/8/8/4K3 w - z9 -5 0"},
        {"position fen 4k3/8/8/8/8/8/8/4K2R w K - 150 1\ngo depth 3\n", "4k3/8/8/8/8/8/8/4K2R w K - 150 1"},
        {"position fen 4k3/8/8/8/8/8/8/4K2R w K - 99999999999 99999999999\ngo depth 3\n",
         "4k3/8/8/8/8/8/8/4K2R w K - 99999999999 99999999999"},
        // Move lists: the replay stops at the first word it cannot play.
        {"position startpos moves e2e5 e2e4\ngo depth 2\n", START, "e2e5"},
        {"position startpos moves e2e4 e7e5 e1g1 a1a8\ngo depth 2\n", START, "e2e4 e7e5"},
        {"position startpos moves e2 e2e4\ngo depth 2\n", START, ""},
        {"position startpos moves e2e4e5 d2d4\ngo depth 2\n", START, ""},
        {"position startpos moves a1a1 0000 zz99 e9e9\ngo depth 2\n", START, ""},
        {"position startpos moves e2e4 d7d5 e4d5 e7e5 d5e6 f7f6 e6e7 e8f7 e7d8k\ngo depth 2\n", START,
         "e2e4 d7d5 e4d5 e7e5 d5e6 f7f6 e6e7 e8f7"},
        {"position startpos moves " + std::string(4000, 'a') + "\ngo depth 2\n", START, ""},
        {"position startpos moves f2f3 e7e5 g2g4 d8h4 a2a3\ngo depth 2\n", START, "f2f3 e7e5 g2g4 d8h4"},
        {"position startpos moves " + shuffle_moves + "\ngo depth 4\n", START, shuffle_moves.c_str()},
        {"position startpos moves\ngo depth 2\n", START, ""},
        {"position fen 4k3/8/8/8/8/8/8/4K2R w K - 0 1 moves e1h1\ngo depth 2\n", "4k3/8/8/8/8/8/8/4K2R w K - 0 1",
         "e1h1"},
        // Options with absurd, negative, missing or unknown values.
        {"setoption name Hash value 0\nucinewgame\n"},
        {"setoption name Hash value -5\nucinewgame\n"},
        {"setoption name Hash value abc\n"},
        {"setoption name Hash\nsetoption name Hash value\nsetoption name\nsetoption name \n"},
        {"setoption name Threads value 0\nucinewgame\n"},
        {"setoption name Threads value -3\nucinewgame\n"},
        {"setoption name MultiPV value 99999999999999\nposition startpos\ngo depth 3\n", START, ""},
        {"setoption name MultiPV value -1\nposition startpos\ngo depth 2\n", START, ""},
        {"setoption name MultiPV value 0\nposition startpos\ngo depth 2\n", START, ""},
        {"setoption name MoveOverhead value -5000\nposition startpos\ngo wtime 200 btime 200\n", START, ""},
        {"setoption name MoveOverhead value 99999999\nposition startpos\ngo wtime 200 btime 200\n", START, ""},
        {"setoption name Strength value 0\nposition startpos\ngo depth 2\n", START, ""},
        {"setoption name Strength value -50\nsetoption name Strength value 1000\n"},
        {"setoption name DrawScore value 1000000\nsetoption name DrawScore value -1000000\n"},
        {"setoption name SyzygyProbeLimit value -1\nsetoption name SyzygyProbeLimit value 100\n"},
        {"setoption name SyzygyPath value ;;;;\nsetoption name SyzygyPath value /\nsetoption name SyzygyPath value " +
         std::string(5000, 'p') + "\n"},
        {"setoption name SyzygyPath value <empty>\nsetoption name SyzygyProbeLimit value 7\n"},
        {"setoption name BookFile value " + std::string(600, 'b') + "\n"},
        {std::string("setoption name OwnBook value true\nsetoption name BookFile value ") + VESTRA_ENGINE_PATH +
             "\nposition startpos\ngo depth 2\n",
         START, ""},
        {"setoption name OwnBook value false\nsetoption name Unknown value 3\nsetoption name hash value 3\n"},
        {"setoption name UCI_Chess960 value true\nposition startpos moves e2e4 e7e5 g1f3 b8c6 f1c4 g8f6\ngo depth 2\n",
         START, "e2e4 e7e5 g1f3 b8c6 f1c4 g8f6", true},
        {"setoption name UCI_Chess960 value maybe\nsetoption name Ponder value True\n"},
        {"setoption name Threads value 100000\nucinewgame\nposition startpos\ngo depth 2\n", START, ""},
        {"setoption name Threads value 2\nucinewgame\nposition startpos\ngo depth 3\n", START, ""},
        // go with negative, missing or enormous values; every search is stopped.
        {"position startpos\ngo wtime -100 btime -100\nstop\n", START, ""},
        {"position startpos\ngo wtime 0 btime 0 winc 0 binc 0\nstop\n", START, ""},
        {"position startpos\ngo movetime -1\nstop\n", START, ""},
        {"position startpos\ngo movetime 0\nstop\n", START, ""},
        {"position startpos\ngo depth -5\nstop\n", START, ""},
        {"position startpos\ngo depth 0\nstop\n", START, ""},
        {"position startpos\ngo depth\nstop\n", START, ""},
        {"position startpos\ngo nodes -5\nstop\n", START, ""},
        {"position startpos\ngo nodes 0\nstop\n", START, ""},
        {"position startpos\ngo movestogo -4 wtime 1000\nstop\n", START, ""},
        {"position startpos\ngo movestogo 0 wtime 50\nstop\n", START, ""},
        {"position startpos\ngo wtime 99999999999999999999999 winc 99999999999999999999\nstop\n", START, ""},
        {"position startpos\ngo wtime -99999999999999999999999 winc -99999999999999999999\nstop\n", START, ""},
        {"position startpos\ngo infinite\nisready\nstop\n", START, ""},
        {"position startpos\ngo ponder wtime 100 btime 100\nponderhit\nstop\n", START, ""},
        {"position startpos\ngo ponder\nstop\n", START, ""},
        {"position startpos\ngo searchmoves e2e4 e2e5 zz\nstop\n", START, ""},
        {"position startpos\ngo searchmoves\nstop\n"},
        {"position startpos\ngo searchmoves " + repeat("a2a3 ", 400) + "\nstop\n", START, ""},
        {"position startpos\ngo infinite\nstop\ngo infinite\nstop\ngo depth 1\nstop\n", START, ""},
        {"stop\nponderhit\nstop\n"},
        {"position fen 7k/6Q1/6K1/8/8/8/8/8 b - - 0 1\ngo infinite\nstop\n", "7k/6Q1/6K1/8/8/8/8/8 b - - 0 1"},
        {"position fen 7k/5Q2/6K1/8/8/8/8/8 b - - 0 1\ngo\nstop\n", "7k/5Q2/6K1/8/8/8/8/8 b - - 0 1"},
    };
}

// How many lines of `input` begin with `word`.
int lines_starting(const std::string& input, const char* word) {
    int n = input.rfind(word, 0) == 0;
    for (size_t at = input.find('\n'); at != std::string::npos; at = input.find('\n', at + 1))
        n += input.compare(at + 1, std::strlen(word), word) == 0;
    return n;
}

// Deadlines only matter when something hangs; they are wide enough for sanitizer
// builds, where 512 threads take most of a minute to start.
constexpr int WAIT_MS = 180000;

// Sends isready and reads up to its readyok (after `earlier` ones still to come),
// returning every bestmove on the way.
std::vector<std::string> sync(EnginePipe& e, bool* ok, int earlier = 0) {
    std::vector<std::string> best;
    e.send("isready\n");
    std::string line;
    *ok = false;
    while (e.read_line(&line, WAIT_MS)) {
        if (line == "readyok" && earlier-- == 0) {
            *ok = true;
            break;
        }
        if (line.rfind("bestmove", 0) == 0) best.push_back(bestmove_word(line));
    }
    return best;
}

}  // namespace

TEST(BadInput, EngineSurvivesEveryHostileLine) {
    EnginePipe e;
    e.send("uci\n");
    ASSERT_EQ(e.wait_for("uciok"), "uciok");
    e.send("setoption name Hash value 4\n");
    const std::vector<std::string> start_moves = legal_texts(START, nullptr);
    int index = 0;
    for (const Case& c : hostile_cases()) {
        SCOPED_TRACE("case " + std::to_string(index++) + ": " + c.input.substr(0, 120));
        e.send(c.input);
        bool ok;
        std::vector<std::string> during = sync(e, &ok, lines_starting(c.input, "isready"));
        ASSERT_TRUE(ok) << "no readyok; last line: " << (e.lines.empty() ? "" : e.lines.back());
        // `position` waits for a running search: the case's bestmove comes before it.
        e.send("position startpos\n");
        std::vector<std::string> after = sync(e, &ok);
        ASSERT_TRUE(ok) << "no readyok after position";
        during.insert(during.end(), after.begin(), after.end());
        if (c.silent) {
            EXPECT_TRUE(during.empty()) << during[0];
        }
        if (c.fen) {
            size_t searches = size_t(lines_starting(c.input, "go"));
            ASSERT_EQ(during.size(), searches) << "one bestmove per search";
            std::vector<std::string> legal = legal_texts(c.fen, c.moves, c.chess960);
            for (const std::string& best : during) {
                if (legal.empty())
                    EXPECT_EQ(best, "0000");
                else
                    EXPECT_NE(std::find(legal.begin(), legal.end(), best), legal.end()) << best;
            }
        }
        e.send("setoption name UCI_Chess960 value false\ngo depth 1\n");
        std::string best = bestmove_word(e.wait_for("bestmove", WAIT_MS));
        ASSERT_NE(std::find(start_moves.begin(), start_moves.end(), best), start_moves.end()) << "'" << best << "'";
    }
    // quit during a search: the bestmove comes, then the exit.
    e.send("go infinite\nquit\n");
    EXPECT_NE(bestmove_word(e.wait_for("bestmove", WAIT_MS)), "");
    EXPECT_EQ(e.finish(), 0);
}

// The end of input leaves as quit does, also in the middle of a search or a line.
TEST(BadInput, EndOfInputEndsTheEngine) {
    {
        EnginePipe e;
        e.send("position startpos\ngo infinite\n");
        EXPECT_EQ(e.finish(WAIT_MS), 0);
        bool answered = false;
        for (const std::string& l : e.lines) answered |= l.rfind("bestmove ", 0) == 0;
        EXPECT_TRUE(answered);
    }
    {
        EnginePipe e;
        e.send("position startpos moves e2e4 e7");
        EXPECT_EQ(e.finish(WAIT_MS), 0);
    }
}
