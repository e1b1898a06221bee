#include <fstream>
#include <sstream>
#include "board_test_util.h"

// Depths whose leaf count is at most this are checked; the full depths are in
// tools/perft-full.sh.
constexpr u64 NODE_BUDGET = 5000000;

static void run_file(SearchThread* t, const char* name) {
    std::ifstream in(std::string(VESTRA_TEST_DATA) + "/" + name);
    ASSERT_TRUE(in) << name;
    std::string line;
    int checked = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t semi = line.find(';');
        std::string fen = line.substr(0, semi);
        ASSERT_TRUE(fen_is_acceptable(fen.c_str())) << fen;
        std::istringstream fields(line.substr(semi));
        std::string tag;
        u64 expected;
        while (fields >> tag >> expected) {
            if (expected > NODE_BUDGET) continue;
            set_position(t, fen.c_str(), nullptr);
            EXPECT_EQ(perft(t, std::stoi(tag.substr(2))), expected) << fen << " " << tag;
            ++checked;
        }
    }
    EXPECT_GT(checked, 20);
}

TEST_F(BoardTest, PerftClassic) { run_file(thread.get(), "perft_classic.epd"); }
TEST_F(BoardTest, PerftRandomGames) { run_file(thread.get(), "perft_std.epd"); }
TEST_F(BoardTest, PerftChess960) {
    engine_options.chess960 = true;
    run_file(thread.get(), "perft_960.epd");
}
