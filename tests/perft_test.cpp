#include <fstream>
#include <sstream>
#include <vector>
#include "board_test_util.h"

// Depths whose leaf count is at most this are checked; the full depths are in
// tools/perft-full.sh.
constexpr u64 NODE_BUDGET = 5000000;

static std::vector<std::string> fens_of(const char* name) {
    std::ifstream in(std::string(VESTRA_TEST_DATA) + "/" + name);
    std::vector<std::string> fens;
    std::string line;
    while (std::getline(in, line))
        if (!line.empty() && line[0] != '#') fens.push_back(line.substr(0, line.find(';')));
    return fens;
}

// Every node of the tree below the top position to `depth` plies: the leaf counter of
// perft against the length of gen_legal, and the pin test against the full attack test
// for every move the generators offer. Returns the number of nodes visited.
static int compare_shortcuts(SearchThread* t, int depth) {
    const Position* p = t->top;
    char fen[100];
    position_fen(p, fen);
    ScoredMove legal[MAX_MOVES];
    ScoredMove* legal_end = gen_legal(p, legal);
    EXPECT_EQ(count_legal_moves(p), legal_end - legal) << fen;

    ScoredMove offered[MAX_MOVES];
    ScoredMove* end = gen_pseudo_legal(p, offered);
    const u64 pinned = pinned_men(p);
    for (ScoredMove* m = offered; m < end; ++m) {
        char text[8];
        move_text(p, m->move, text);
        EXPECT_EQ(exposes_king(p, m->move, pinned), leaves_king_attacked(p, m->move) != 0) << fen << " " << text;
    }

    int nodes = 1;
    if (depth > 0)
        for (ScoredMove* m = legal; m < legal_end; ++m) {
            make_move(t, m->move, nullptr);
            nodes += compare_shortcuts(t, depth - 1);
            --t->top;
        }
    return nodes;
}

static void compare_file(SearchThread* t, const char* name, int depth) {
    std::vector<std::string> fens = fens_of(name);
    ASSERT_FALSE(fens.empty()) << name;
    int nodes = 0;
    for (const std::string& fen : fens) {
        set_position(t, fen.c_str(), nullptr);
        nodes += compare_shortcuts(t, depth);
    }
    EXPECT_GT(nodes, 100 * int(fens.size()));
}

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

TEST_F(BoardTest, LeafCountAndPinTestAgreeWithFullGeneration) {
    compare_file(thread.get(), "perft_classic.epd", 3);
    compare_file(thread.get(), "perft_std.epd", 2);
    engine_options.chess960 = true;
    compare_file(thread.get(), "perft_960.epd", 2);
}
