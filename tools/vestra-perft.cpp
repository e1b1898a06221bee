// Move-generator check and speed measure.
//   vestra-perft [--960] [--divide] DEPTH FEN...
//   vestra-perft [--960] --epd FILE [--max-nodes N]
// EPD lines: FEN ;D1 n ;D2 n ...  Every listed depth whose count is at most N is
// checked; the exit status is 1 on any mismatch.
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include "search/thread.h"

static double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

static int usage() {
    std::fprintf(stderr,
                 "usage: vestra-perft [--960] [--divide] DEPTH FEN...\n"
                 "       vestra-perft [--960] --epd FILE [--max-nodes N]\n");
    return 2;
}

static int run_epd(SearchThread* t, const char* path, u64 max_nodes) {
    FILE* f = std::fopen(path, "r");
    if (!f) {
        std::fprintf(stderr, "cannot open %s\n", path);
        return 2;
    }
    char line[1024];
    u64 total = 0;
    int failures = 0, positions = 0;
    auto t0 = std::chrono::steady_clock::now();
    while (std::fgets(line, sizeof line, f)) {
        if (line[0] == '#' || line[0] == '\n' || line[0] == 0) continue;
        char* semi = std::strchr(line, ';');
        if (!semi) continue;
        std::string fen(line, size_t(semi - line));
        while (!fen.empty() && fen.back() == ' ') fen.pop_back();
        if (!fen_is_acceptable(fen.c_str())) {
            std::printf("%s: FEN refused FAIL\n", fen.c_str());
            ++failures;
            continue;
        }
        ++positions;
        std::printf("%s:", fen.c_str());
        for (char* c = semi; c && *c;) {
            int depth;
            unsigned long long expected;
            if (std::sscanf(c, " ;D%d %llu", &depth, &expected) == 2 && expected <= max_nodes) {
                set_position(t, fen.c_str(), nullptr);
                u64 n = perft(t, depth);
                total += n;
                bool ok = n == expected;
                failures += !ok;
                std::printf(" D%d %" PRIu64 " %s", depth, n, ok ? "OK" : "FAIL");
                if (!ok) std::printf(" (expected %llu)", expected);
                std::fflush(stdout);
            }
            c = std::strchr(c + 1, ';');
        }
        std::printf("\n");
    }
    std::fclose(f);
    double s = seconds_since(t0);
    std::printf("positions %d failures %d nodes %" PRIu64 " seconds %.3f nps %.0f\n", positions, failures, total, s,
                s > 0 ? double(total) / s : 0.0);
    return failures ? 1 : 0;
}

int main(int argc, char** argv) {
    init_board_tables();
    set_default_options(&engine_options);
    bool divide = false;
    const char* epd = nullptr;
    u64 max_nodes = ~u64(0);
    int i = 1;
    for (; i < argc && argv[i][0] == '-' && argv[i][1] == '-'; ++i) {
        if (!std::strcmp(argv[i], "--960")) engine_options.chess960 = true;
        else if (!std::strcmp(argv[i], "--divide")) divide = true;
        else if (!std::strcmp(argv[i], "--epd") && i + 1 < argc) epd = argv[++i];
        else if (!std::strcmp(argv[i], "--max-nodes") && i + 1 < argc) max_nodes = std::strtoull(argv[++i], nullptr, 10);
        else return usage();
    }
    auto thread = std::make_unique<SearchThread>();
    if (epd) return run_epd(thread.get(), epd, max_nodes);
    if (i + 2 > argc) return usage();
    int depth = std::atoi(argv[i++]);
    std::string fen;
    for (; i < argc; ++i) {
        if (!fen.empty()) fen += ' ';
        fen += argv[i];
    }
    if (!fen_is_acceptable(fen.c_str())) {
        std::fprintf(stderr, "FEN refused: %s\n", fen.c_str());
        return 2;
    }
    SearchThread* t = thread.get();
    set_position(t, fen.c_str(), nullptr);
    auto t0 = std::chrono::steady_clock::now();
    u64 total = 0;
    if (divide && depth >= 1) {
        ScoredMove list[MAX_MOVES];
        ScoredMove* end = gen_legal(t->top, list);
        for (ScoredMove* m = list; m < end; ++m) {
            char text[8];
            move_text(t->top, m->move, text);
            make_move(t, m->move, nullptr);
            u64 n = perft(t, depth - 1);
            --t->top;
            total += n;
            std::printf("%s %" PRIu64 "\n", text, n);
        }
    } else {
        total = perft(t, depth);
    }
    double s = seconds_since(t0);
    std::printf("nodes %" PRIu64 " seconds %.3f nps %.0f\n", total, s, s > 0 ? double(total) / s : 0.0);
    return 0;
}
