// Shared set-up of the search tests: global tables once, a small table and one thread
// per test, the options restored afterwards. Tablebases stay out of these tests.
#pragma once
#include <gtest/gtest.h>
#include "eval/network.h"
#include "search/search.h"
#include "search/tt.h"

class SearchFixture : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static bool tables_ready = false;
        if (!tables_ready) {
            init_board_tables();
            init_lmr_table();
            network_startup_check();
            tables_ready = true;
        }
    }

    void SetUp() override {
        saved_options_ = engine_options;
        saved_tb_largest_ = search_shared.tb_largest;
        saved_quiet_ = search_shared.quiet;
        set_default_options(&engine_options);
        engine_options.hash_mb = 4;
        engine_options.threads = 1;
        search_shared.tb_largest = 0;
        search_shared.quiet = true;
        fresh_memory();
    }

    void TearDown() override {
        engine_options = saved_options_;
        search_shared.tb_largest = saved_tb_largest_;
        search_shared.quiet = saved_quiet_;
    }

    void fresh_memory() {
        engine_memory_init(&large_page_mark);
        search_shared.previous_move = search_shared.previous_move_2 = 0;
    }

    SearchThread* main_thread() { return search_shared.main_thread; }

    static inline i64 large_page_mark = 0;

    void set(const char* fen, const char* moves = nullptr) { set_position(main_thread(), fen, moves); }

    i32 search_depth(int depth, u32* best) { return search_fixed_depth(main_thread(), depth, best); }

    std::string text(u32 move) {
        char buffer[8];
        move_text(main_thread()->top, move, buffer);
        return buffer;
    }

private:
    EngineOptions saved_options_;
    i32 saved_tb_largest_ = 0;
    bool saved_quiet_ = false;
};
