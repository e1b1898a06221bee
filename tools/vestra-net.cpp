// vestra-net: looks into a network image and evaluates positions with it.
//
//   vestra-net [--net FILE] [--chess960] --stats      statistics of every section
//   vestra-net [--net FILE] [--chess960] FEN...       evaluate each FEN argument
//   vestra-net [--net FILE] [--chess960]              evaluate FENs read from stdin
//   vestra-net [--net FILE] --scale-output X OUT      write the image with every evaluation
//                                                     about X times as large to OUT
//   vestra-net [--net FILE] --diff OTHER              how many values of each section differ
//                                                     from OTHER's, and by how much at most
//   vestra-net [--net FILE] --ratio OTHER RECORDS     how large OTHER's evaluations are against
//                                                     this net's, and the records' search scores,
//                                                     over up to 20,000 positions of a data file
//
// Without --net the image compiled into the program is used. Scores are the engine's
// static evaluation: from the side to move's view, and also from White's.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>
#include "eval/network.h"
#include "search/thread.h"
#include "tools/train/engine_eval.h"

namespace {

template <class T>
void section(const char* name, const T* values, size_t count) {
    long long lo = values[0], hi = values[0], nonzero = 0;
    double total = 0;
    for (size_t i = 0; i < count; ++i) {
        long long v = values[i];
        lo = v < lo ? v : lo;
        hi = v > hi ? v : hi;
        total += double(v);
        nonzero += v != 0;
    }
    std::printf("%-18s %9zu values  min %7lld  max %7lld  mean %10.4f  nonzero %lld\n", name, count, lo, hi,
                total / double(count), nonzero);
}

// Calls visit(name, values of a, values of b, count) for every array section of the
// image, in file order; the one list that the statistics and the comparison share.
template <class F>
void each_section(const NetworkImage* a, const NetworkImage* b, F&& visit) {
    visit("feature_weights", &a->feature_weights[0][0], &b->feature_weights[0][0], size_t(NET_FEATURES) * NET_HALF);
    visit("castling_weights", &a->castling_weights[0][0], &b->castling_weights[0][0], size_t(2) * NET_HALF);
    visit("feature_biases", a->feature_biases, b->feature_biases, size_t(NET_HALF));
    visit("hidden1_weights", &a->hidden1_weights[0][0], &b->hidden1_weights[0][0], size_t(NET_HIDDEN1) * NET_INPUTS);
    visit("hidden1_biases", a->hidden1_biases, b->hidden1_biases, size_t(NET_HIDDEN1));
    visit("hidden2_weights", &a->hidden2_weights[0][0], &b->hidden2_weights[0][0], size_t(NET_HIDDEN2) * NET_HIDDEN1);
    visit("hidden2_biases", a->hidden2_biases, b->hidden2_biases, size_t(NET_HIDDEN2));
    visit("output_weights", a->output_weights, b->output_weights, size_t(NET_HIDDEN2));
}

void print_stats(const NetworkImage* net) {
    each_section(net, net, [](const char* name, const auto* values, const auto*, size_t count) {
        section(name, values, count);
    });
    std::printf("output_bias        %d\n", int(net->output_bias));
    std::printf("fraction_bits      %d %d %d %d (expected %d %d %d %d)\n", int(net->fraction_bits[0]),
                int(net->fraction_bits[1]), int(net->fraction_bits[2]), int(net->fraction_bits[3]),
                int(NET_FRACTION_BITS[0]), int(NET_FRACTION_BITS[1]), int(NET_FRACTION_BITS[2]),
                int(NET_FRACTION_BITS[3]));
    std::printf("trailer            %d at 0x%x, 0x%x\n", int(net->trailer_one), unsigned(NET_OFF_TRAILER_ONE),
                unsigned(net->trailer_offset));
    char message[96];
    if (network_check(net, message, sizeof message)) std::printf("check: %s", message);
    else std::printf("check: fits the engine's arithmetic\n");
}

// Training from an image can leave most of it as it was (a value moves only once its
// float master has drifted half a step), so this is the quick check that it moved.
template <class T>
void section_diff(const char* name, const T* a, const T* b, size_t count) {
    size_t differ = 0;
    long long largest = 0;
    for (size_t i = 0; i < count; ++i) {
        const long long d = std::llabs(static_cast<long long>(a[i]) - static_cast<long long>(b[i]));
        differ += d != 0;
        largest = d > largest ? d : largest;
    }
    std::printf("%-18s %9zu values  %9zu differ (%6.3f %%)  largest difference %lld\n", name, count, differ,
                100.0 * double(differ) / double(count), largest);
}

void print_diff(const NetworkImage* a, const NetworkImage* b) {
    each_section(a, b, [](const char* name, const auto* x, const auto* y, size_t count) {
        section_diff(name, x, y, count);
    });
    section_diff("output_bias", &a->output_bias, &b->output_bias, 1);
}

// The search's margins are fixed numbers, so a net that evaluates a few per cent larger
// than its parent plays as if they were a few per cent smaller (tools/TRAINING.md,
// *Evaluation scale*); training drifts the scale, and this measures it: the slope of a
// line through the origin, fitted where this net's evaluation is beyond 60 either way
// (nearer zero the ratio is mostly noise).
bool print_ratio(const NetworkImage* self, const NetworkImage* other, const char* records_path) {
    std::vector<TrainRecord> records;
    if (!records_load(records_path, &records) || records.empty()) {
        std::fprintf(stderr, "cannot read records from %s\n", records_path);
        return false;
    }
    init_board_tables();
    auto thread = std::make_unique<SearchThread>();
    const size_t step = records.size() / 20000 + 1;
    // One net at a time: what the engine derives from an image is derived at the switch.
    // This net goes last, so it is the one in place afterwards.
    std::vector<double> mine, theirs;
    for (const NetworkImage* net : {other, self}) {
        network_image = net;
        network_startup_check();
        std::vector<double>& out = net == self ? mine : theirs;
        for (size_t i = 0; i < records.size(); i += step)
            out.push_back(engine_evaluate_record(thread.get(), records[i]));
    }
    double xo = 0, xs = 0, xx = 0;
    long fitted = 0;
    const long used = long(mine.size());
    for (size_t k = 0; k < mine.size(); ++k) {
        const double a = mine[k];
        if (std::fabs(a) <= 60) continue;
        ++fitted;
        xo += a * theirs[k];
        xs += a * records[k * step].score;
        xx += a * a;
    }
    if (!fitted) {
        std::printf("no position of %ld evaluated beyond 60\n", used);
        return true;
    }
    std::printf("%ld positions, %ld evaluated beyond 60: the other net's evaluations are %.3f times this net's, "
                "the records' search scores %.3f times\n",
                used, fitted, xo / xx, xs / xx);
    return true;
}

void evaluate_fen(SearchThread* thread, const std::string& fen) {
    if (!fen_is_acceptable(fen.c_str())) {
        std::printf("%s | not an acceptable position\n", fen.c_str());
        return;
    }
    set_position(thread, fen.c_str(), "");
    thread->ply_records[0].computed = 0;
    i32 score = evaluate(thread, 0);
    i32 white = (thread->top->flags & POS_BLACK) ? -score : score;
    std::printf("%s | eval %d (side to move), %d (White)\n", fen.c_str(), int(score), int(white));
}

// Writes a copy of `image` with its output scaled by `factor` to `path`.
bool write_scaled(const NetworkImage* image, double factor, const char* path) {
    if (!(factor > 0)) {
        std::fprintf(stderr, "--scale-output needs a factor above 0\n");
        return false;
    }
    std::unique_ptr<NetworkImage, void (*)(NetworkImage*)> out(network_alloc(), network_free);
    if (!out) {
        std::fprintf(stderr, "cannot allocate a network image\n");
        return false;
    }
    std::memcpy(static_cast<void*>(out.get()), image, sizeof(NetworkImage));
    if (!network_scale_output(out.get(), factor)) {
        std::fprintf(stderr, "cannot scale the output by %g: an output weight leaves i8\n", factor);
        return false;
    }
    if (!network_write_file(path, out.get())) {
        std::fprintf(stderr, "cannot write %s\n", path);
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    const char* net_path = nullptr;
    bool stats = false;
    double scale_output = 0;
    const char* scaled_path = nullptr;
    const char* diff_path = nullptr;
    const char* ratio_path = nullptr;
    const char* ratio_records = nullptr;
    std::vector<std::string> fens;
    set_default_options(&engine_options);
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--net") && i + 1 < argc) net_path = argv[++i];
        else if (!std::strcmp(argv[i], "--stats")) stats = true;
        else if (!std::strcmp(argv[i], "--scale-output") && i + 2 < argc) {
            scale_output = std::atof(argv[++i]);
            scaled_path = argv[++i];
        }
        else if (!std::strcmp(argv[i], "--diff") && i + 1 < argc) diff_path = argv[++i];
        else if (!std::strcmp(argv[i], "--ratio") && i + 2 < argc) {
            ratio_path = argv[++i];
            ratio_records = argv[++i];
        }
        else if (!std::strcmp(argv[i], "--chess960")) engine_options.chess960 = true;
        else if (argv[i][0] == '-') {
            std::fprintf(stderr, "usage: vestra-net [--net FILE] [--chess960] [--stats | --scale-output X OUT |\n"
                         "                  --diff OTHER | --ratio OTHER RECORDS] [FEN...]\n");
            return 2;
        } else fens.push_back(argv[i]);
    }

    NetworkImage* loaded = nullptr;
    if (net_path) {
        loaded = network_alloc();
        if (!loaded || !network_read_file(net_path, loaded)) {
            std::fprintf(stderr, "cannot read a %zu-byte image from %s\n", NET_IMAGE_SIZE, net_path);
            return 1;
        }
        network_image = loaded;
    }
    if (scaled_path) {
        const bool ok = write_scaled(network_image, scale_output, scaled_path);
        network_free(loaded);
        return ok ? 0 : 1;
    }
    if (diff_path || ratio_path) {
        const char* other_path = diff_path ? diff_path : ratio_path;
        NetworkImage* other = network_alloc();
        bool ok = other && network_read_file(other_path, other);
        if (!ok) std::fprintf(stderr, "cannot read a %zu-byte image from %s\n", NET_IMAGE_SIZE, other_path);
        else if (diff_path) print_diff(network_image, other);
        else ok = print_ratio(network_image, other, ratio_records);
        network_free(other);
        network_free(loaded);
        return ok ? 0 : 1;
    }
    if (stats) {
        print_stats(network_image);
        network_free(loaded);
        return 0;
    }

    init_board_tables();
    network_startup_check();
    auto thread = std::make_unique<SearchThread>();
    if (fens.empty()) {
        char line[1024];
        while (std::fgets(line, sizeof line, stdin)) {
            std::string fen(line);
            while (!fen.empty() && (fen.back() == '\n' || fen.back() == '\r' || fen.back() == ' ')) fen.pop_back();
            if (!fen.empty()) evaluate_fen(thread.get(), fen);
        }
    } else {
        for (const std::string& fen : fens) evaluate_fen(thread.get(), fen);
    }
    network_free(loaded);
    return 0;
}
