#include "uci/uci.h"
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "eval/network.h"
#include "search/search.h"
#include "search/think.h"
#include "tb/tb.h"
#include "search/report.h"

const char* const benchmark_positions[10] = {
    "1qr3k1/p3bppp/4pn2/1B2n3/N7/P3P2P/1P2QPP1/2R1B2K w - -",
    "2br2k1/r5p1/4p3/5p2/8/pP3B2/1q2RPPP/Q3R1K1 b - - ",
    "r5k1/5p2/7p/5qP1/1P1QR3/5P2/r4RK1/8 b - - ",
    "r4rk1/1p2bppp/p3bn2/8/Pq1BP3/1BN1Q3/1PP3PP/R3K2R w KQ - ",
    "r2qk2r/3nbpp1/2bBp2p/p3P3/1p6/8/PPPQBPPP/1NKR3R w kq - ",
    "3r4/3r2bk/1p4pp/pN2n3/P6P/4Q1P1/1P2B1K1/8 b - h3",
    "6k1/1b2bp2/p3p2p/4P1p1/1pr5/4BP1P/PP2N1P1/3R2K1 b - - ",
    "1rr3k1/1q3pp1/pnbQp2p/1p2P3/3B1P2/2PB4/P1P2RPP/R5K1 w - - ",
    "2r2rk1/p3qp1p/2b1pp1Q/2b5/1n6/2N2NP1/1P2PPBP/R2R2K1 w - - ",
    "8/p4k2/1p3r2/2pPnb2/2Pr3P/PPK3P1/4B1Q1/8 b - - ",
};

static const char* const START_FEN = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

static i64 large_page_mark = 0;
static u32 kept_moves_played = 0;
// The last accepted `position`, so that a new block after `ucinewgame` holds it too.
static char kept_fen[8192] = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";
static char kept_moves[8192] = "";
static bool kept_has_moves = false;

void uci_startup() {
    set_default_options(&engine_options);
    search_shared.print_lock.store(0);
    search_shared.tt = nullptr;
    search_shared.tb_largest = 0;
    init_board_tables();
    init_lmr_table();
    tb_init_index_tables();
    search_shared.tb_largest = tb_init("<empty>");
    network_startup_check();
}

void uci_shutdown() {
    set_stop();
    search_shared.search_lock.acquire();
    search_shared.search_lock.release();
    if (search_shared.tt) engine_memory_release(large_page_mark);
    search_shared.tt = nullptr;
}

static void apply_kept_position() {
    kept_moves_played = set_position(search_shared.main_thread, kept_fen, kept_has_moves ? kept_moves : nullptr);
}

static void ensure_memory() {
    if (!search_shared.tt) {
        engine_memory_init(&large_page_mark);
        apply_kept_position();
    }
}

static void print_uci() {
    char text[4096];
    int n = std::snprintf(
        text, sizeof text,
        "id name Vestra " VESTRA_VERSION "\nid author Ilario Tessen\n"
        "option name Hash type spin default %d min 1 max 1048576\n"
        "option name Threads type spin default 1 min 1 max %d\n"
        "option name Ponder type check default false\n"
        "option name OwnBook type check default false\n"
        "option name BookFile type string default %s\n"
        "option name BookRandom type check default false\n"
        "option name DrawScore type spin default %d min -100 max 100\n"
        "option name MoveOverhead type spin default %d min 0 max 5000\n"
        "option name Strength type spin default %d min 1 max %d\n"
        "option name MultiPV type spin default 1 min 1 max %d\n"
        "option name LargePages type check default false\n"
        "option name UCI_Chess960 type check default false\n"
        "option name SyzygyPath type string default <empty>\n"
        "option name Syzygy50MoveRule type check default true\n"
        "option name SyzygyProbeLimit type spin default 7 min 0 max 7\n"
        "uciok\n",
        256, 512, engine_options.book_file, 0, 100, 100, 100, 256);
    (void)n;
    print_line(text);
}

// Numbers outside the advertised ranges are pulled back into them, so that no later
// arithmetic sees an impossible value.
static i32 int_value(const char* text, i32 lo, i32 hi) {
    long long v = std::strtoll(text, nullptr, 10);
    return i32(std::clamp<long long>(v, lo, hi));
}

static void handle_setoption(char* line) {
    search_shared.search_lock.acquire();
    if (char* lf = std::strchr(line, '\n')) *lf = 0;
    char* p = line + 15;
    while (*p == ' ') ++p;
    char* name = p;
    while (*p && *p != ' ') ++p;
    char* name_end = p;
    while (*p == ' ') ++p;
    char* second = p;
    size_t rest = std::strlen(second);
    // The value starts six bytes behind the second word ("value "); a line that ends
    // at that word has no value and changes nothing.
    if (*second && rest > 6) {
        *name_end = 0;
        const char* value = second + 6;
        bool check = std::strcmp(value, "true") == 0;
        EngineOptions& o = engine_options;
        if (!std::strcmp(name, "Hash")) o.hash_mb = int_value(value, 1, 1048576);
        else if (!std::strcmp(name, "Threads")) o.threads = int_value(value, 1, 512);
        else if (!std::strcmp(name, "Ponder")) o.ponder = check;
        else if (!std::strcmp(name, "OwnBook")) o.own_book = check;
        else if (!std::strcmp(name, "BookFile")) {
            if (std::strlen(value) < sizeof o.book_file) std::strcpy(o.book_file, value);
        } else if (!std::strcmp(name, "BookRandom")) o.book_random = check;
        else if (!std::strcmp(name, "DrawScore")) o.draw_score = int_value(value, -100, 100);
        else if (!std::strcmp(name, "MoveOverhead")) o.move_overhead = int_value(value, 0, 5000);
        else if (!std::strcmp(name, "Strength")) o.strength = int_value(value, 1, 100);
        else if (!std::strcmp(name, "MultiPV")) o.multi_pv = int_value(value, 1, 256);
        else if (!std::strcmp(name, "LargePages")) o.large_pages = check;
        else if (!std::strcmp(name, "UCI_Chess960")) o.chess960 = check;
        else if (!std::strcmp(name, "SyzygyPath")) search_shared.tb_largest = tb_init(value);
        else if (!std::strcmp(name, "Syzygy50MoveRule")) o.syzygy_50_move_rule = check;
        else if (!std::strcmp(name, "SyzygyProbeLimit")) o.syzygy_probe_limit = int_value(value, 0, 7);
    }
    search_shared.search_lock.release();
}

static void handle_position(char* line) {
    search_shared.search_lock.acquire();
    if (char* lf = std::strchr(line, '\n')) *lf = 0;
    size_t len = std::strlen(line);
    const char* moves = nullptr;
    if (len > 18) {
        if (char* m = std::strstr(line + 18, "moves")) {
            m[-1] = 0;
            moves = m + 6 <= line + len ? m + 6 : line + len;
        }
    }
    const char* fen = START_FEN;
    if (len >= 12 && std::strncmp(line + 9, "fen", 3) == 0) fen = len > 13 ? line + 13 : "";
    // A FEN the engine cannot search safely is refused whole; the previous position stays.
    if (fen_is_acceptable(fen) && std::strlen(fen) < sizeof kept_fen) {
        std::strcpy(kept_fen, fen);
        kept_has_moves = moves != nullptr;
        std::snprintf(kept_moves, sizeof kept_moves, "%s", moves ? moves : "");
        if (!search_shared.tt)
            ensure_memory();
        else
            apply_kept_position();
    } else {
        ensure_memory();
    }
    search_shared.search_lock.release();
}

static bool word_is(const char* word, const char* name, size_t n) { return std::strncmp(word, name, n) == 0; }

static bool looks_like_move(const char* w) {
    return w[0] >= 'a' && w[0] <= 'h' && w[1] >= '1' && w[1] <= '8' && w[2] >= 'a' && w[2] <= 'h' && w[3] >= '1' &&
           w[3] <= '8';
}

static void handle_go(char* line) {
    search_shared.search_lock.acquire();
    ensure_memory();
    SearchThread* main = search_shared.main_thread;
    if (char* lf = std::strchr(line, '\n')) *lf = ' ';

    bool searchmoves = false;
    const char* stored[256];
    int stored_count = 0;
    i32 mode = 0, moves_to_go = 0, depth_limit = 127;
    i64 time_left = 1000000000000LL, increment = 0, node_limit = 0x7FFFFFFFFFFFFFFFLL;
    bool black = main->top->flags & POS_BLACK;

    main->root_end = generate_root_moves(main, main->root_moves);

    // Split at single blanks; a keyword without its value is ignored.
    char* words[4096];
    int count = 0;
    for (char* p = line + std::min<size_t>(3, std::strlen(line)); count < 4096;) {
        words[count++] = p;
        char* b = std::strchr(p, ' ');
        if (!b) break;
        *b = 0;
        p = b + 1;
    }
    auto value = [&](int& i) -> const char* { return i + 1 < count ? words[++i] : nullptr; };
    auto clamp64 = [](const char* v) {
        return std::clamp<long long>(std::strtoll(v, nullptr, 10), -1000000000000LL, 1000000000000LL);
    };
    for (int i = 0; i < count; ++i) {
        const char* w = words[i];
        const char* v;
        if (word_is(w, "ponder", 6)) mode = 1;
        else if (word_is(w, "wtime", 5)) { if ((v = value(i)) && !black) time_left = clamp64(v); }
        else if (word_is(w, "btime", 5)) { if ((v = value(i)) && black) time_left = clamp64(v); }
        else if (word_is(w, "winc", 4)) { if ((v = value(i)) && !black) increment = clamp64(v); }
        else if (word_is(w, "binc", 4)) { if ((v = value(i)) && black) increment = clamp64(v); }
        else if (word_is(w, "movestogo", 9)) { if ((v = value(i))) moves_to_go = i32(std::clamp<long long>(clamp64(v), 0, 1000000)); }
        else if (word_is(w, "depth", 5)) { if ((v = value(i))) depth_limit = i32(std::clamp<long long>(clamp64(v), -1000, 127)); }
        else if (word_is(w, "nodes", 5)) { if ((v = value(i))) node_limit = std::strtoll(v, nullptr, 10); }
        else if (word_is(w, "movetime", 8)) {
            if ((v = value(i))) { moves_to_go = 1; time_left = increment = clamp64(v); }
        } else if (word_is(w, "infinite", 8)) mode = 2;
        else if (word_is(w, "searchmoves", 11)) searchmoves = true;
        else if (std::strlen(w) >= 4 && looks_like_move(w) && stored_count < 256) stored[stored_count++] = w;
    }

    if (searchmoves) {
        ScoredMove* out = main->root_moves;
        for (ScoredMove* p = main->root_moves; p < main->root_end; ++p) {
            char text[8];
            move_text(main->top, p->move, text);
            for (int i = 0; i < stored_count; ++i)
                if (!std::strcmp(text, stored[i])) {
                    *out++ = *p;
                    break;
                }
        }
        main->root_end = out;
    }

    if (main->root_end == main->root_moves) {
        print_line("bestmove 0000\n");
        search_shared.search_lock.release();
        return;
    }

    search_limits.mode.store(mode, std::memory_order_relaxed);
    search_limits.time_left = time_left;
    search_limits.increment = increment;
    search_limits.node_limit = node_limit;
    search_limits.moves_to_go = moves_to_go;
    search_limits.depth_limit = depth_limit;
    search_limits.moves_played = i32(kept_moves_played);
    search_limits.stop.store(0, std::memory_order_relaxed);
    start_think_thread();
}

bool handle_line(char* line) {
    if (!std::strncmp(line, "uci\n", 4)) {
        print_uci();
    } else if (!std::strncmp(line, "setoption name ", 15)) {
        handle_setoption(line);
    } else if (!std::strncmp(line, "ucinewgame", 10)) {
        search_shared.search_lock.acquire();
        engine_memory_init(&large_page_mark);
        apply_kept_position();
        search_shared.search_lock.release();
    } else if (!std::strncmp(line, "isready", 7)) {
        spin_lock(search_shared.print_lock);
        print_line("readyok\n");
        spin_unlock(search_shared.print_lock);
    } else if (!std::strncmp(line, "ponderhit", 9)) {
        search_limits.mode.store(0, std::memory_order_relaxed);
    } else if (!std::strncmp(line, "stop", 4)) {
        set_stop();
    } else if (!std::strncmp(line, "position", 8)) {
        handle_position(line);
    } else if (!std::strncmp(line, "go", 2)) {
        handle_go(line);
    }
    return std::strncmp(line, "quit", 4) != 0;
}

void run_benchmark() {
    long long total = 0;
    for (const char* fen : benchmark_positions) {
        engine_memory_init(&large_page_mark);
        SearchThread* main = search_shared.main_thread;
        u32 played = set_position(main, fen, nullptr);
        main->root_end = generate_root_moves(main, main->root_moves);
        search_limits.mode.store(0, std::memory_order_relaxed);
        search_limits.time_left = 4000000000LL;
        search_limits.increment = 0;
        search_limits.node_limit = 0x7FFFFFFFFFFFFFFFLL;
        search_limits.moves_to_go = 0;
        search_limits.depth_limit = 14;
        search_limits.moves_played = i32(played);
        search_limits.stop.store(0, std::memory_order_relaxed);
        search_shared.search_lock.acquire();
        think();
        total += main->nodes.load(std::memory_order_relaxed);
    }
    char text[64];
    std::snprintf(text, sizeof text, "Total nodes searched: %lld\n", total);
    print_line(text);
}
