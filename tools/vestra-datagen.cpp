// vestra-datagen: self-play games by the engine's own search at a fixed depth, written
// as training records (tools/train/record.h, tools/TRAINING.md).
//
//   vestra-datagen --out DIR --positions N [options]
//     --workers W        processes, one search each (default 1)
//     --depth D          search depth of every move (default 7)
//     --hash MB          table of each worker (default 16)
//     --random-plies R   random moves from the start position, R-1 or R (default 8)
//     --openings FILE    EPD/FEN lines; a game starts from a random one, then 2 random plies
//     --seed S           (default 1)
//     --cap X            record only positions with |score| below X (default 3000)
//     --balance X        play only openings whose searched score is within X of level
//                        (default 0: every opening)
//     --sample K         search and record about one position in K at --depth, chosen at
//                        random; the other moves are played by a --play-depth search and
//                        not recorded (default 1: every position)
//     --play-depth D     depth of the unrecorded moves with --sample (default 6)
//     --opening-margin M each opening ply is drawn from the moves that a search of all of
//                        them at --opening-depth puts within M of the best, instead of
//                        from every legal move (default 0: every legal move)
//     --opening-depth D  depth of that search (default 4)
//
// Each worker w owns DIR/part-<w>.bin and plays until that file holds N / W records.
// A rerun with the same arguments continues where the parts stand: the files only grow
// by whole games, a torn tail is cut, and the seed of a worker mixes in the size it
// starts from, so no game is played twice. The search's state is global, hence one
// search per process; the parent shows the progress of all of them.
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>
#include "search/search.h"
#include "tb/tb.h"
#include "uci/uci.h"
#include "tools/train/record.h"
#include "board/rng.h"

namespace {

const char* const START_FEN = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

struct Options {
    std::string out;
    long positions = 0;
    int workers = 1;
    int depth = 7;
    int hash = 16;
    int random_plies = 8;
    std::string openings_file;
    u64 seed = 1;
    int cap = 3000;
    int balance = 0;
    // The records of one game are much alike, and what a net learns from them beyond a
    // few is that game: the same number of records from eight times the games trained
    // the dense layers as well as all of them, and the first layer without learning the
    // games by heart (tools/TRAINING.md, 23w). Games whose unrecorded moves come from a
    // shallow search cost a fraction of the nodes.
    int sample = 1;
    int play_depth = 6;
    // Uniformly random plies give openings that no player would choose (a rook walked
    // out by the a-pawn, a king stepped up); a margin keeps each ply among moves the
    // engine itself would consider, so that the games look like those it plays.
    int opening_margin = 0;
    int opening_depth = 4;
};

// Adjudication. Scores are internal units (160 to a pawn with the first network).
constexpr int WIN_MARGIN = 1600;    // a side this far ahead for WIN_PLIES plies in a row has won
constexpr int WIN_PLIES = 4;
constexpr int DRAW_MARGIN = 16;     // this close to zero for DRAW_PLIES plies after DRAW_START: drawn
constexpr int DRAW_PLIES = 12;
constexpr int DRAW_START = 80;
constexpr int MAX_GAME_PLIES = 400;

struct WorkerStatus {
    std::atomic<long> positions;  // records in the part file
    std::atomic<long> games;      // games finished in this run
    std::atomic<long> new_positions;
    std::atomic<long> nodes;
    std::atomic<int> finished;
};


u64 mix(u64 x) {
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

std::string part_path(const Options& o, int w) { return o.out + "/part-" + std::to_string(w) + ".bin"; }

// Cuts a torn record off the end and returns the number of whole records.
long prepare_part(const std::string& path) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return 0;
    const long whole = long(st.st_size) / long(sizeof(TrainRecord));
    if (st.st_size % long(sizeof(TrainRecord)) && truncate(path.c_str(), whole * long(sizeof(TrainRecord))) != 0)
        return -1;
    return whole;
}

// Too little material for either side to mate.
bool insufficient_material(const Position* p) {
    if (p->pawns | p->rooks | p->queens) return false;
    return popcount(p->knights | p->bishops) <= 1;
}

// Of the legal moves of the root that set_position made, the ones a search of every
// move puts within `margin` of the best; returns their count, at least one.
int moves_near_best(SearchThread* t, int depth, int margin, u32* chosen) {
    const int saved = engine_options.multi_pv;
    engine_options.multi_pv = MAX_MOVES;
    u32 best = 0;
    search_fixed_depth(t, depth, &best);
    engine_options.multi_pv = saved;
    const int count = int(t->root_end - t->root_moves);
    int n = 0;
    for (int i = 0; i < count; ++i)
        if (t->root_scores[i] >= t->root_scores[0] - margin) chosen[n++] = t->root_moves[i].move;
    return n;
}

// Plays the opening moves, drawn from every legal move or from those near the best;
// false when the line runs into a finished game.
bool random_opening(const Options& o, SearchThread* t, Rng& rng, const std::string& fen, int plies,
                    std::string* moves, long* nodes) {
    set_position(t, fen.c_str(), "");
    for (int i = 0; i < plies; ++i) {
        ScoredMove list[MAX_MOVES];
        ScoredMove* end = gen_legal(t->top, list);
        if (end == list) return false;
        u32 m;
        if (o.opening_margin > 0) {
            // The search's root and its list of moves come from set_position, not from
            // the moves made here.
            set_position(t, fen.c_str(), moves->c_str());
            u32 near[MAX_MOVES];
            const int n = moves_near_best(t, o.opening_depth, o.opening_margin, near);
            *nodes += t->nodes.load(std::memory_order_relaxed);
            m = near[rng.below(n)];
        } else {
            m = list[rng.below(int(end - list))].move;
        }
        char text[8];
        move_text(t->top, m, text);
        *moves += text;
        *moves += ' ';
        make_move(t, m, nullptr);
    }
    ScoredMove list[MAX_MOVES];
    return gen_legal(t->top, list) != list;
}

// Random plies often drop material (a third of generation 17's games began more than a
// pawn from level), and a game that starts a piece down is decided before it begins. The
// search of the opening's last position fills the table for the game's first move, so
// the check costs little beyond the openings it turns away.
bool balanced_opening(const Options& o, SearchThread* t, const std::string& fen, const std::string& moves,
                      long* nodes) {
    if (o.balance <= 0) return true;
    set_position(t, fen.c_str(), moves.c_str());
    u32 best = 0;
    const i32 score = search_fixed_depth(t, o.depth, &best);
    *nodes += t->nodes.load(std::memory_order_relaxed);
    return best && score >= -o.balance && score <= o.balance;
}

// One game; appends its records (results filled in) to `out`. Returns the result from
// White's view (0, 1, 2).
int play_game(const Options& o, Rng& rng, const std::vector<std::string>& openings, std::vector<TrainRecord>* out,
              long* nodes) {
    i64 mark = 0;
    engine_memory_init(&mark);  // a new game: fresh table and histories
    SearchThread* t = search_shared.main_thread;
    std::string fen, moves;
    int opening_plies;
    do {
        moves.clear();
        if (!openings.empty()) {
            fen = openings[size_t(rng.below(int(openings.size())))];
            opening_plies = 2;
        } else {
            fen = START_FEN;
            opening_plies = o.random_plies - rng.below(2);
        }
    } while (!fen_is_acceptable(fen.c_str()) || !random_opening(o, t, rng, fen, opening_plies, &moves, nodes) ||
             !balanced_opening(o, t, fen, moves, nodes));


    std::vector<u64> keys;
    std::vector<TrainRecord> game;
    int white_result = 1;  // a game cut at the length limit is a draw
    int win_run = 0, win_sign = 0, draw_run = 0;
    for (int ply = 0; ply < MAX_GAME_PLIES; ++ply) {
        set_position(t, fen.c_str(), moves.c_str());
        const Position* pos = t->top;
        const bool black = pos->flags & POS_BLACK;
        const int white = black ? -1 : 1;
        keys.push_back(pos->key);
        if (pos->halfmove_clock >= 100 || insufficient_material(pos) ||
            std::count(keys.begin(), keys.end(), pos->key) >= 3)
            break;
        if (popcount(pos->occupied) <= 4 && pos->castling == 0x8888) {
            i32 ok = 0;
            const i32 wdl = tb_probe_wdl(t, &ok);
            if (ok) {
                if (wdl >= 2 || wdl <= -2) white_result = 1 + white * (wdl > 0 ? 1 : -1);
                break;
            }
        }
        // No draw from the generator without sampling, so that the games of earlier
        // generations stay what their seeds made.
        const bool labelled = o.sample <= 1 || rng.below(o.sample) == 0;
        u32 best = 0;
        const i32 score = search_fixed_depth(t, labelled ? o.depth : o.play_depth, &best);
        *nodes += t->nodes.load(std::memory_order_relaxed);
        if (!best) {
            if (pos->flags & POS_IN_CHECK) white_result = 1 - white;
            break;
        }
        const bool quiet = !(best & (MOVE_IS_CAPTURE | MOVE_IS_PROMOTION));
        if (labelled && !(pos->flags & POS_IN_CHECK) && quiet && score > -o.cap && score < o.cap)
            game.push_back(record_from_position(pos, score, RESULT_DRAW, opening_plies + ply));

        // Adjudication by the search's own verdict, from White's view.
        const int w_score = score * white;
        if (score > MATE_THRESHOLD || score < -MATE_THRESHOLD) {
            white_result = w_score > 0 ? 2 : 0;
            break;
        }
        const int sign = w_score >= WIN_MARGIN ? 1 : w_score <= -WIN_MARGIN ? -1 : 0;
        win_run = sign != 0 && sign == win_sign ? win_run + 1 : sign != 0;
        win_sign = sign;
        if (win_run >= WIN_PLIES) {
            white_result = 1 + sign;
            break;
        }
        draw_run = (score >= -DRAW_MARGIN && score <= DRAW_MARGIN) ? draw_run + 1 : 0;
        if (opening_plies + ply >= DRAW_START && draw_run >= DRAW_PLIES) break;

        char text[8];
        move_text(pos, best, text);
        moves += text;
        moves += ' ';
    }
    for (TrainRecord& r : game) {
        r.result = u8(record_black_to_move(r) ? 2 - white_result : white_result);
        out->push_back(r);
    }
    return white_result;
}

std::vector<std::string> read_openings(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        // EPD: the four fields of the position; the counters default.
        size_t pos = 0;
        int fields = 0;
        while (fields < 4 && pos != std::string::npos) {
            pos = line.find(' ', pos + (fields ? 1 : 0));
            ++fields;
        }
        std::string fen = line.substr(0, pos);
        if (fields >= 4 && !fen.empty()) lines.push_back(fen + " 0 1");
    }
    return lines;
}

void worker(const Options& o, int w, WorkerStatus* status) {
    const std::string path = part_path(o, w);
    long have = prepare_part(path);
    if (have < 0) {
        std::fprintf(stderr, "cannot prepare %s\n", path.c_str());
        status->finished = 1;
        return;
    }
    status->positions = have;
    const long target = o.positions / o.workers + (w < o.positions % o.workers);
    Rng rng{mix(mix(o.seed) ^ mix(u64(w) + 1000) ^ mix(u64(have) + 77)) | 1};

    uci_startup();  // the engine's own start-up: tables, compiled-in endgames, the net
    engine_options.hash_mb = o.hash;
    engine_options.threads = 1;
    search_shared.quiet = true;
    const std::vector<std::string> openings = o.openings_file.empty() ? std::vector<std::string>{}
                                                                      : read_openings(o.openings_file);

    std::vector<TrainRecord> records;
    while (have < target) {
        records.clear();
        long nodes = 0;
        play_game(o, rng, openings, &records, &nodes);
        if (!records.empty() && !records_append(path.c_str(), records.data(), records.size())) {
            std::fprintf(stderr, "cannot write %s\n", path.c_str());
            break;
        }
        have += long(records.size());
        status->positions = have;
        status->new_positions += long(records.size());
        status->nodes += nodes;
        ++status->games;
    }
    status->finished = 1;
}

void usage() {
    std::fprintf(stderr,
                 "usage: vestra-datagen --out DIR --positions N [--workers W] [--depth D] [--hash MB]\n"
                 "                      [--random-plies R] [--openings FILE] [--seed S] [--cap X]\n"
                 "                      [--balance X] [--sample K] [--play-depth D]\n"
                 "                      [--opening-margin M] [--opening-depth D]\n");
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has = i + 1 < argc;
        if (a == "--out" && has) o.out = argv[++i];
        else if (a == "--positions" && has) o.positions = std::atol(argv[++i]);
        else if (a == "--workers" && has) o.workers = std::clamp(std::atoi(argv[++i]), 1, 256);
        else if (a == "--depth" && has) o.depth = std::clamp(std::atoi(argv[++i]), 1, 60);
        else if (a == "--hash" && has) o.hash = std::clamp(std::atoi(argv[++i]), 1, 65536);
        else if (a == "--random-plies" && has) o.random_plies = std::clamp(std::atoi(argv[++i]), 1, 40);
        else if (a == "--openings" && has) o.openings_file = argv[++i];
        else if (a == "--seed" && has) o.seed = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--cap" && has) o.cap = std::clamp(std::atoi(argv[++i]), 1, 30000);
        else if (a == "--balance" && has) o.balance = std::clamp(std::atoi(argv[++i]), 0, 30000);
        else if (a == "--sample" && has) o.sample = std::clamp(std::atoi(argv[++i]), 1, 1000);
        else if (a == "--play-depth" && has) o.play_depth = std::clamp(std::atoi(argv[++i]), 1, 60);
        else if (a == "--opening-margin" && has) o.opening_margin = std::clamp(std::atoi(argv[++i]), 0, 30000);
        else if (a == "--opening-depth" && has) o.opening_depth = std::clamp(std::atoi(argv[++i]), 1, 20);
        else {
            usage();
            return 2;
        }
    }
    if (o.out.empty() || o.positions <= 0) {
        usage();
        return 2;
    }
    mkdir(o.out.c_str(), 0755);

    // Counters shared with the children.
    void* shared = mmap(nullptr, sizeof(WorkerStatus) * size_t(o.workers), PROT_READ | PROT_WRITE,
                        MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) {
        std::perror("mmap");
        return 1;
    }
    WorkerStatus* status = new (shared) WorkerStatus[size_t(o.workers)]();
    std::vector<pid_t> children;
    for (int w = 0; w < o.workers; ++w) {
        pid_t pid = fork();
        if (pid == 0) {
            worker(o, w, &status[w]);
            _exit(0);
        }
        if (pid < 0) {
            std::perror("fork");
            return 1;
        }
        children.push_back(pid);
    }

    const auto start = std::chrono::steady_clock::now();
    int running = o.workers;
    long start_positions = -1;
    while (running > 0) {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        int status_code;
        while (waitpid(-1, &status_code, WNOHANG) > 0) --running;
        static int tick = 0;
        if (++tick % 10 && running > 0) continue;
        long positions = 0, games = 0, fresh = 0, nodes = 0;
        for (int w = 0; w < o.workers; ++w) {
            positions += status[w].positions;
            games += status[w].games;
            fresh += status[w].new_positions;
            nodes += status[w].nodes;
        }
        if (start_positions < 0) start_positions = positions - fresh;
        const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        const double rate = double(fresh) / secs;
        const double eta = rate > 0 ? double(o.positions - positions) / rate : 0;
        std::printf("positions %ld/%ld  %.1f/s  games %ld  nodes/record %.0f  elapsed %.0f s  ETA %.0f min\n",
                    positions, o.positions, rate, games, fresh ? double(nodes) / double(fresh) : 0.0, secs,
                    eta > 0 ? eta / 60 : 0.0);
        std::fflush(stdout);
    }
    return 0;
}
