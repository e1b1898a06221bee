// vestra-evalbench [POSITIONS]: evaluations per second of the compiled-in network.
//
// "forward": the three small layers alone.
// "refresh": both halves rebuilt from the position for every evaluation.
// "incremental": random game walks from the start position, make_move with the
// delta and evaluate after every move, as the search does (the figure includes
// make_move and the move choice, which is the same work for both kernels; the
// "no eval" line measures that part alone, and "sums" adds catch_up without the
// small layers).
// Each is run with the build's kernels and with the plain-integer ones; the two
// checksums of a pair must agree.
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>
#include "eval/kernels.h"
#include "search/thread.h"

namespace {

const char* START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";
constexpr int WALK_LENGTH = 160;

u64 rng_state = 0x2545f4914f6cdd1dULL;
u64 next_random() {
    rng_state ^= rng_state >> 12;
    rng_state ^= rng_state << 25;
    rng_state ^= rng_state >> 27;
    return rng_state * 0x2545f4914f6cdd1dULL;
}

// The machine may be shared: time is the thread's processor time, not the wall clock.
double cpu_seconds() {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

// Positions along random walks, for the refresh measurement.
std::vector<Position> sample_positions(SearchThread* thread, size_t count) {
    std::vector<Position> out;
    ScoredMove list[MAX_MOVES];
    while (out.size() < count) {
        set_position(thread, START, "");
        for (int ply = 0; ply < WALK_LENGTH && out.size() < count; ++ply) {
            ScoredMove* end = gen_legal(thread->top, list);
            if (end == list) break;
            make_move(thread, list[next_random() % u64(end - list)].move, nullptr);
            out.push_back(*thread->top);
        }
    }
    return out;
}

template <i32 (*output)(const i16*, const i16*)>
void bench_forward(const std::vector<Position>& positions, long long evals, const char* name) {
    // Accumulators of real positions, then the small layers alone.
    std::vector<PlyRecord> records(256);
    for (size_t i = 0; i < records.size(); ++i) {
        refresh_half(&positions[i * 37 % positions.size()], 0, records[i].sums[0]);
        refresh_half(&positions[i * 37 % positions.size()], 1, records[i].sums[1]);
    }
    long long checksum = 0, count = 0;
    double t0 = cpu_seconds();
    while (count < evals) {
        for (const PlyRecord& r : records) checksum += output(r.sums[0], r.sums[1]);
        count += static_cast<long long>(records.size());
    }
    double s = cpu_seconds() - t0;
    std::printf("forward     %-7s %10.0f evals/s  (%lld evals, %.2f s, checksum %lld)\n", name, double(count) / s,
                count, s, checksum);
}

template <i32 (*eval)(SearchThread*, int)>
void bench_refresh(SearchThread* thread, const std::vector<Position>& positions, int rounds, const char* name) {
    long long checksum = 0, count = 0;
    double t0 = cpu_seconds();
    for (int r = 0; r < rounds; ++r) {
        for (const Position& p : positions) {
            thread->stack[0] = p;
            thread->top = thread->stack;
            thread->ply_records[0].computed = 0;
            checksum += eval(thread, 0);
            ++count;
        }
    }
    double s = cpu_seconds() - t0;
    std::printf("refresh     %-7s %10.0f evals/s  (%lld evals, %.2f s, checksum %lld)\n", name, double(count) / s,
                count, s, checksum);
}

template <i32 (*eval)(SearchThread*, int)>
void bench_incremental(SearchThread* thread, long long evals, u64 seed, const char* name) {
    rng_state = seed;
    long long checksum = 0, count = 0;
    ScoredMove list[MAX_MOVES];
    double t0 = cpu_seconds();
    while (count < evals) {
        set_position(thread, START, "");
        Position* base = thread->top;
        thread->ply_records[0].computed = 0;
        checksum += eval(thread, 0);
        ++count;
        for (int ply = 0; ply < WALK_LENGTH && count < evals; ++ply) {
            ScoredMove* end = gen_legal(thread->top, list);
            if (end == list) break;
            make_move(thread, list[next_random() % u64(end - list)].move, &thread->ply_records[ply].delta);
            thread->ply_records[ply + 1].computed = 0;
            checksum += eval(thread, ply + 1);
            ++count;
        }
        thread->top = base;
    }
    double s = cpu_seconds() - t0;
    std::printf("incremental %-7s %10.0f evals/s  (%lld evals, %.2f s, checksum %lld)\n", name, double(count) / s,
                count, s, checksum);
}

// The walk alone (move generation, choice, make_move), to set against the above.
i32 no_evaluation(SearchThread*, int) { return 0; }
// The accumulator alone.
i32 sums_only(SearchThread* thread, int ply) {
    catch_up(thread, ply);
    return thread->ply_records[ply].sums[0][0];
}

}  // namespace

int main(int argc, char** argv) {
    long long n = argc > 1 ? std::atoll(argv[1]) : 200000;
    if (n < 1000) n = 1000;
    set_default_options(&engine_options);
    init_board_tables();
    network_startup_check();
    auto thread = std::make_unique<SearchThread>();

    std::vector<Position> positions = sample_positions(thread.get(), 20000);
    int rounds = int((n + 19999) / 20000);
#ifdef VESTRA_EVAL_AVX2
    bench_refresh<evaluate>(thread.get(), positions, rounds, "avx2");
#else
    bench_refresh<evaluate>(thread.get(), positions, rounds, "build");
#endif
    bench_refresh<evaluate_scalar>(thread.get(), positions, rounds, "scalar");

#ifdef VESTRA_EVAL_AVX2
    bench_forward<network_output_avx2>(positions, n, "avx2");
#endif
    bench_forward<network_output_scalar>(positions, n, "scalar");

    const u64 seed = 0x9e3779b97f4a7c15ULL;
#ifdef VESTRA_EVAL_AVX2
    bench_incremental<evaluate>(thread.get(), n, seed, "avx2");
#else
    bench_incremental<evaluate>(thread.get(), n, seed, "build");
#endif
    bench_incremental<evaluate_scalar>(thread.get(), n, seed, "scalar");
    bench_incremental<sums_only>(thread.get(), n, seed, "sums");
    bench_incremental<no_evaluation>(thread.get(), n, seed, "no eval");
    return 0;
}
