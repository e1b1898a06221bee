// vestra-tb: probes positions in the endgame tables.
//
//   vestra-tb [--path DIR;DIR] FEN...   WDL, DTZ and the table's best move of each FEN
//   vestra-tb [--path DIR;DIR] --bench  WDL and DTZ probes per second on random
//                                       positions of the compiled-in tables
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "tb/tb.h"

static void usage() {
    fprintf(stderr, "usage: vestra-tb [--path DIR;DIR] FEN...\n       vestra-tb [--path DIR;DIR] --bench\n");
    exit(2);
}

static bool setup(SearchThread* thread, const char* fen) {
    if (!fen_is_acceptable(fen)) return false;
    set_position(thread, fen, nullptr);
    return true;
}

static bool probeable(const Position* pos) {
    return popcount(pos->occupied) <= search_shared.tb_largest && pos->castling == 0x8888;
}

static void probe_fen(SearchThread* thread, const char* fen) {
    if (!setup(thread, fen)) {
        printf("%s: not a usable position\n", fen);
        return;
    }
    const Position* pos = thread->top;
    if (!probeable(pos)) {
        printf("%s: outside the tables\n", fen);
        return;
    }
    i32 success;
    i32 wdl = tb_probe_wdl(thread, &success);
    if (success == 0) {
        printf("%s: no table answers\n", fen);
        return;
    }
    i32 dtz_success;
    i32 dtz = tb_probe_dtz(thread, &dtz_success);

    thread->root_end = gen_legal(pos, thread->root_moves);
    int count = int(thread->root_end - thread->root_moves);
    i32 root_dtz, distance[MAX_MOVES];
    char best[16] = "(none)";
    if (count > 0 && tb_root_distances(thread, &root_dtz, distance)) {
        // Quickest win, the draw, or the longest resistance.
        int pick = 0;
        for (int i = 1; i < count; ++i) {
            i32 d = distance[i], b = distance[pick];
            bool better = (d > 0 && (b <= 0 || d < b)) || (d == 0 && b < 0) || (d < 0 && b < 0 && d < b);
            if (better) pick = i;
        }
        move_text(pos, thread->root_moves[pick].move, best);
    }
    if (dtz_success)
        printf("%s: wdl %d dtz %d best %s\n", fen, wdl, dtz, best);
    else
        printf("%s: wdl %d dtz - best %s\n", fen, wdl, best);
}

// Random legal positions of every compiled-in table, both sides to move.
static std::vector<std::string> bench_positions(SearchThread* thread) {
    std::vector<std::string> fens;
    u64 state = 0x9e3779b97f4a7c15ULL;
    auto next = [&state]() {
        state ^= state >> 12;
        state ^= state << 25;
        state ^= state >> 27;
        return state * 0x2545f4914f6cdd1dULL;
    };
    for (u64 f = 0; f < tb_embedded_file_count; ++f) {
        const char* file = tb_embedded_files[f].name;
        if (!strstr(file, ".rtbw")) continue;
        std::string name(file, strchr(file, '.') - file);
        int made = 0;
        for (int attempt = 0; attempt < 20000 && made < 200; ++attempt) {
            char board[64];
            memset(board, 0, sizeof board);
            bool white = true, ok = true;
            for (char c : name) {
                if (c == 'v') {
                    white = false;
                    continue;
                }
                int sq;
                do sq = int(next() & 63);
                while (board[sq]);
                if (c == 'P' && (sq < 8 || sq >= 56)) ok = false;
                board[sq] = white ? c : char(c - 'A' + 'a');
            }
            if (!ok) continue;
            std::string fen;
            for (int r = 7; r >= 0; --r) {
                int empty = 0;
                for (int fl = 0; fl < 8; ++fl) {
                    char c = board[r * 8 + fl];
                    if (!c) {
                        ++empty;
                        continue;
                    }
                    if (empty) fen += char('0' + empty);
                    empty = 0;
                    fen += c;
                }
                if (empty) fen += char('0' + empty);
                if (r) fen += '/';
            }
            fen += (next() & 1) ? " w - - 0 1" : " b - - 0 1";
            if (!setup(thread, fen.c_str())) continue;
            fens.push_back(fen);
            ++made;
        }
    }
    return fens;
}

static void bench(SearchThread* thread) {
    std::vector<std::string> fens = bench_positions(thread);
    std::vector<Position> positions;
    for (const std::string& fen : fens) {
        set_position(thread, fen.c_str(), nullptr);
        positions.push_back(*thread->top);
    }
    for (int type = 0; type < 2; ++type) {
        // First pass loads every table; the timed passes probe loaded tables only.
        i64 answered = 0, probes = 0;
        double seconds = 0;
        for (int pass = 0; pass < 4 || seconds < 1.0; ++pass) {
            auto start = std::chrono::steady_clock::now();
            for (const Position& p : positions) {
                thread->stack[0] = p;
                thread->top = thread->stack;
                i32 success;
                if (type == TB_WDL)
                    tb_probe_wdl(thread, &success);
                else
                    tb_probe_dtz(thread, &success);
                if (pass > 0) {
                    answered += success != 0;
                    ++probes;
                }
            }
            if (pass > 0) seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        }
        printf("%s: %lld probes (%lld answered) of %zu positions in %.3f s: %.0f probes/s\n", type == TB_WDL ? "WDL" : "DTZ",
               (long long)probes, (long long)answered, positions.size(), seconds, probes / seconds);
    }
}

int main(int argc, char** argv) {
    set_default_options(&engine_options);
    init_board_tables();
    tb_init_index_tables();
    const char* path = "<empty>";
    bool run_bench = false;
    std::vector<const char*> fens;
    for (int i = 1; i < argc; ++i) {
        if (!strcmp(argv[i], "--path")) {
            if (++i >= argc) usage();
            path = argv[i];
        } else if (!strcmp(argv[i], "--bench")) {
            run_bench = true;
        } else if (argv[i][0] == '-') {
            usage();
        } else {
            fens.push_back(argv[i]);
        }
    }
    if (!run_bench && fens.empty()) usage();
    search_shared.tb_largest = tb_init(path);
    std::unique_ptr<SearchThread> thread(new SearchThread());
    if (run_bench) bench(thread.get());
    for (const char* fen : fens) probe_fen(thread.get(), fen);
    return 0;
}
