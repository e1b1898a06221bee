// Multi-threaded search soak: drives an engine binary through many searches of every
// kind (depth, nodes, clock, movetime, infinite and ponder ended by stop or ponderhit,
// stop at once after go), with option changes between them, and checks every answer.
//   vestra-soak [--cycles N] [--threads T] [--seed S] [--wait-ms W] ENGINE
// T is the largest thread count used (the count changes now and then between 1 and T).
// Every bestmove must be legal in its position (0000 exactly when there is none), every
// pv of an info line a legal sequence, every stopped search must answer within W ms
// (default 5000) and the engine must leave with status 0 at quit. Prints one verdict
// line; exit status 1 on any failure. Run it on a sanitizer build to catch races.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

static const char* engine_path = nullptr;
#define VESTRA_ENGINE_PATH engine_path  // the pipe starts whatever binary was named
#include "../tests/engine_pipe.h"
#include "board/rng.h"

namespace {


// Positions to search: openings, middlegames, endgames within the compiled-in tables,
// positions with one legal move, mates, stalemates and Chess960 starts.
const char* const FENS[] = {
    "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
    "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
    "8/2p5/3p4/KP5r/1R3p1k/8/4P1P1/8 w - - 0 1",
    "r2q1rk1/pP1p2pp/Q4n2/bbp1p3/Np6/1B3NBn/pPPP1PPP/R3K2R b KQ - 0 1",
    "1qr3k1/p3bppp/4pn2/1B2n3/N7/P3P2P/1P2QPP1/2R1B2K w - - 0 1",
    "8/p4k2/1p3r2/2pPnb2/2Pr3P/PPK3P1/4B1Q1/8 b - - 0 1",
    "8/8/8/8/3k4/8/8/R3K3 w - - 0 1",
    "8/8/3k4/8/r7/8/8/R3K3 b - - 0 1",
    "8/8/8/4k3/8/8/3P4/4K3 w - - 0 1",
    "8/8/3k4/8/8/8/1P6/R3K3 w - - 90 80",
    "4k3/8/8/8/8/8/8/4K2R w K - 0 1",
    "7k/8/6QK/8/8/8/8/8 b - - 0 1",
    "7k/6Q1/6K1/8/8/8/8/8 b - - 0 1",
    "k7/8/1QK5/8/8/8/8/8 b - - 0 1",
    "6k1/5ppp/8/8/8/8/5PPP/3R2K1 w - - 0 1",
    "8/8/8/8/8/5k2/6q1/7K w - - 0 1",
};
const char* const FENS_960[] = {
    "qnrnkbb1/ppppppp1/7r/7p/P2P4/8/1PP1PPPP/QNRNKBBR w HCc - 1 3",
    "bqnb1rkr/pp3ppp/3ppn2/2p5/5P2/P2P4/NPP1P1PP/BQ1BNRKR w HFhf - 2 9",
    "1r2k1r1/pppppppp/8/8/8/8/PPPPPPPP/1R2K1R1 w GBgb - 0 1",
};

struct Soak {
    EnginePipe& e;
    Rng rng;
    int wait_ms;
    bool chess960 = false;
    long searches = 0, stops = 0, ponderhits = 0, pvs = 0, failures = 0;
    double slowest_stop_ms = 0;

    void fail(const std::string& what) {
        if (failures++ < 20) std::fprintf(stderr, "soak: %s\n", what.c_str());
    }

    // The moves' texts that are legal after `moves` (a list of words) from `fen`.
    std::vector<std::string> legal(const std::string& fen, const std::vector<std::string>& moves) {
        std::string list;
        for (const std::string& m : moves) list += m + " ";
        engine_options.chess960 = chess960;
        auto t = board_after(fen.c_str(), list.c_str());
        ScoredMove buf[MAX_MOVES];
        ScoredMove* end = gen_legal(t->top, buf);
        std::vector<std::string> out;
        for (ScoredMove* p = buf; p < end; ++p) {
            char text[8];
            move_text(t->top, p->move, text);
            out.push_back(text);
        }
        return out;
    }

    static bool contains(const std::vector<std::string>& v, const std::string& s) {
        for (const std::string& x : v)
            if (x == s) return true;
        return false;
    }

    // A pv must be a legal line from the position.
    void check_pv(const std::string& fen, const std::string& line) {
        size_t at = line.find(" pv ");
        if (at == std::string::npos) return;
        std::istringstream words(line.substr(at + 4));
        std::vector<std::string> played;
        for (std::string w; words >> w;) {
            if (!contains(legal(fen, played), w)) {
                fail("illegal pv move " + w + " in '" + line + "' from " + fen);
                return;
            }
            played.push_back(w);
            if (played.size() > 40) break;  // long lines cost quadratic time here
        }
        ++pvs;
    }

    // Reads to the bestmove; checks it and every pv on the way. False on a hang.
    bool collect(const std::string& fen, int timeout_ms) {
        std::string line;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        for (;;) {
            int left = EnginePipe::ms_left(deadline);
            if (left <= 0 || !e.read_line(&line, left)) {
                fail("no bestmove within " + std::to_string(timeout_ms) + " ms from " + fen);
                return false;
            }
            if (line.rfind("info multipv", 0) == 0) {
                if (rng.below(4) == 0) check_pv(fen, line);
                continue;
            }
            if (line.rfind("bestmove ", 0) != 0) continue;
            std::istringstream words(line);
            std::string tag, best, ponder_tag, ponder;
            words >> tag >> best >> ponder_tag >> ponder;
            std::vector<std::string> moves = legal(fen, {});
            if (moves.empty() ? best != "0000" : !contains(moves, best))
                fail("illegal bestmove '" + line + "' from " + fen);
            else if (!ponder.empty() && !contains(legal(fen, {best}), ponder))
                fail("illegal ponder move '" + line + "' from " + fen);
            ++searches;
            return true;
        }
    }

    std::string pick_position(std::string* command) {
        const char* fen;
        if (chess960 && rng.below(2) == 0)
            fen = FENS_960[rng.below(sizeof FENS_960 / sizeof FENS_960[0])];
        else
            fen = FENS[rng.below(sizeof FENS / sizeof FENS[0])];
        // A few random legal moves on top, so that positions vary from cycle to cycle.
        std::vector<std::string> moves;
        for (int n = rng.below(12); n > 0; --n) {
            std::vector<std::string> l = legal(fen, moves);
            if (l.empty()) break;
            moves.push_back(l[size_t(rng.below(int(l.size())))]);
        }
        std::string list;
        for (const std::string& m : moves) list += " " + m;
        *command = std::string("position fen ") + fen + (list.empty() ? "" : " moves" + list) + "\n";
        // The position reached, as a FEN, for the checks.
        engine_options.chess960 = chess960;
        auto t = board_after(fen, list.c_str());
        char text[100];
        position_fen(t->top, text);
        return text;
    }

    void sleep_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

    void cycle(int max_threads) {
        // Option changes between searches.
        switch (rng.below(24)) {
            case 0:
                e.send("setoption name Threads value " + std::to_string(1 + rng.below(max_threads)) +
                       "\nucinewgame\n");
                break;
            case 1: e.send("setoption name MultiPV value " + std::to_string(1 + rng.below(4)) + "\n"); break;
            case 2: e.send("setoption name Hash value " + std::to_string(1 << rng.below(5)) + "\nucinewgame\n"); break;
            case 3:
                chess960 = !chess960;
                e.send(std::string("setoption name UCI_Chess960 value ") + (chess960 ? "true" : "false") + "\n");
                break;
            case 4: e.send("setoption name Strength value " + std::to_string(rng.below(3) ? 100 : 50) + "\n"); break;
            case 5: e.send("ucinewgame\n"); break;
            default: break;
        }
        std::string position;
        std::string fen = pick_position(&position);
        e.send(position);
        switch (rng.below(8)) {
            case 0:
                e.send("go depth " + std::to_string(1 + rng.below(7)) + "\n");
                collect(fen, 120000);
                break;
            case 1:
                e.send("go nodes " + std::to_string(1 + rng.below(20000)) + "\n");
                collect(fen, 120000);
                break;
            case 2: {
                int t = 10 + rng.below(2000);
                e.send("go wtime " + std::to_string(t) + " btime " + std::to_string(t) + " winc " +
                       std::to_string(rng.below(50)) + " binc " + std::to_string(rng.below(50)) + "\n");
                collect(fen, 120000);
                break;
            }
            case 3:
                e.send("go movetime " + std::to_string(1 + rng.below(50)) + "\n");
                collect(fen, 120000);
                break;
            case 4:
            case 5: {
                // Infinite or ponder search ended by stop (or ponderhit) after a while.
                bool ponder = rng.below(2);
                e.send(ponder ? "go ponder wtime 500 btime 500\n" : "go infinite\n");
                sleep_ms(rng.below(40));
                if (rng.below(3) == 0) e.send("isready\n");
                if (ponder && rng.below(2)) {
                    e.send("ponderhit\n");
                    ++ponderhits;
                    collect(fen, 120000);
                    break;
                }
                auto t0 = std::chrono::steady_clock::now();
                e.send("stop\n");
                ++stops;
                collect(fen, wait_ms);
                double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
                if (ms > slowest_stop_ms) slowest_stop_ms = ms;
                break;
            }
            default: {
                // Stop at once: the race of the search thread's start with stop.
                auto t0 = std::chrono::steady_clock::now();
                e.send(rng.below(2) ? "go infinite\nstop\n" : "go depth 30\nstop\nstop\n");
                ++stops;
                collect(fen, wait_ms);
                double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
                if (ms > slowest_stop_ms) slowest_stop_ms = ms;
                break;
            }
        }
    }
};

int usage() {
    std::fprintf(stderr, "usage: vestra-soak [--cycles N] [--threads T] [--seed S] [--wait-ms W] ENGINE\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    long cycles = 500;
    int threads = 2, wait_ms = 5000;
    u64 seed = u64(std::chrono::steady_clock::now().time_since_epoch().count()) | 1;
    int i = 1;
    for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
        if (!std::strcmp(argv[i], "--cycles"))
            cycles = std::atol(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--threads"))
            threads = std::atoi(argv[i + 1]);
        else if (!std::strcmp(argv[i], "--seed"))
            seed = std::strtoull(argv[i + 1], nullptr, 10) | 1;
        else if (!std::strcmp(argv[i], "--wait-ms"))
            wait_ms = std::atoi(argv[i + 1]);
        else
            return usage();
    }
    if (i + 1 != argc || cycles < 1 || threads < 1) return usage();
    engine_path = argv[i];
    board_after(FENS[0], nullptr);  // sets up the board tables and options once

    EnginePipe e;
    Soak soak{e, Rng{seed}, wait_ms};
    auto t0 = std::chrono::steady_clock::now();
    e.send("setoption name Hash value 16\nsetoption name Threads value " + std::to_string(threads) +
           "\nucinewgame\nisready\n");
    if (e.wait_for("readyok", 60000) != "readyok") soak.fail("no readyok at start");
    for (long c = 0; c < cycles && soak.failures == 0; ++c) soak.cycle(threads);
    e.send("quit\n");
    int status = e.finish(30000);
    if (status != 0) soak.fail("exit status " + std::to_string(status) + " at quit");
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("soak: %s (%ld searches, %ld stopped, %ld ponderhits, %ld pvs checked, slowest stop %.0f ms, "
                "%ld failures, %.0f s, seed %llu)\n",
                soak.failures ? "FAIL" : "PASS", soak.searches, soak.stops, soak.ponderhits, soak.pvs,
                soak.slowest_stop_ms, soak.failures, seconds, static_cast<unsigned long long>(seed));
    return soak.failures ? 1 : 0;
}
