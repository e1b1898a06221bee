// Shared set-up for the board tests: tables, options and one search thread.
#pragma once
#include <gtest/gtest.h>
#include <cstring>
#include <memory>
#include <string>
#include "search/thread.h"

class BoardTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        init_board_tables();
    }
    void SetUp() override {
        set_default_options(&engine_options);
        thread = std::make_unique<SearchThread>();
    }
    void TearDown() override { engine_options.chess960 = false; }

    const Position* setup(const char* fen, const char* moves = nullptr) {
        set_position(thread.get(), fen, moves);
        return thread->top;
    }
    u64 key_of(const char* fen) { return setup(fen)->key; }
    // The legal move of the top position whose text is `text`, or 0.
    u32 find(const char* text) {
        ScoredMove list[MAX_MOVES];
        ScoredMove* end = gen_legal(thread->top, list);
        for (ScoredMove* m = list; m < end; ++m) {
            char t[8];
            move_text(thread->top, m->move, t);
            if (!std::strcmp(t, text)) return m->move;
        }
        return 0;
    }
    void play(const char* text) {
        u32 m = find(text);
        ASSERT_NE(m, 0u) << text;
        make_move(thread.get(), m, nullptr);
    }
    std::string fen() {
        char buf[100];
        position_fen(thread->top, buf);
        return buf;
    }
    std::unique_ptr<SearchThread> thread;
};
