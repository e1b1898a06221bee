// vestra-netcompare: how closely the quantised image plays like the float net.
//
//   vestra-netcompare --ckpt FILE.ckpt --net FILE.nnue [--val X] [--max N] DATA_FILE...
//
// Evaluates the held-out tail of each data file (the share --val, as vestra-train holds
// it out; --val 1 takes whole files) three ways: the float net of the checkpoint, the
// engine's integer `evaluate` with the image, and the float pass run on the image with
// the integer rounding (which must agree with the engine to the unit). Prints the mean
// and largest absolute differences in internal units. The float net is evaluated as the
// trainer sees it: dense layers at their image values.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>
#include "tools/train/engine_eval.h"
#include "tools/train/floatnet.h"

int main(int argc, char** argv) {
    std::string ckpt, image_path;
    double val_share = 0.05;
    size_t max_records = 100000;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool has = i + 1 < argc;
        if (a == "--ckpt" && has) ckpt = argv[++i];
        else if (a == "--net" && has) image_path = argv[++i];
        else if (a == "--val" && has) val_share = std::atof(argv[++i]);
        else if (a == "--max" && has) max_records = std::strtoull(argv[++i], nullptr, 10);
        else if (!a.empty() && a[0] != '-') files.push_back(a);
        else {
            std::fprintf(stderr, "usage: vestra-netcompare --ckpt FILE --net IMAGE [--val X] [--max N] DATA...\n");
            return 2;
        }
    }
    if (ckpt.empty() || image_path.empty() || files.empty()) {
        std::fprintf(stderr, "usage: vestra-netcompare --ckpt FILE --net IMAGE [--val X] [--max N] DATA...\n");
        return 2;
    }
    std::vector<TrainRecord> records;
    for (const std::string& path : files) {
        std::vector<TrainRecord> part;
        if (!records_load(path.c_str(), &part)) {
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
            return 1;
        }
        const size_t held = std::min(part.size(), size_t(double(part.size()) * val_share + 0.5));
        records.insert(records.end(), part.end() - long(held), part.end());
    }
    if (records.size() > max_records) records.resize(max_records);

    auto net = std::make_unique<FloatNet>();
    if (!checkpoint_read_net(ckpt.c_str(), net.get())) {
        std::fprintf(stderr, "cannot read checkpoint %s\n", ckpt.c_str());
        return 1;
    }
    NetworkImage* image = network_alloc();
    if (!image || !network_read_file(image_path.c_str(), image)) {
        std::fprintf(stderr, "cannot read image %s\n", image_path.c_str());
        return 1;
    }
    auto imported = std::make_unique<FloatNet>();
    net_from_image(image, imported.get());

    init_board_tables();
    set_default_options(&engine_options);
    network_image = image;
    network_startup_check();
    auto thread = std::make_unique<SearchThread>();

    // The trainer evaluates the dense layers with their image values (quantisation-aware
    // training); the unrounded masters are shown beside it.
    auto rounded = std::make_unique<RoundedDense>();
    round_dense(*net, rounded.get());
    double float_diff = 0, emulated_diff = 0, max_float = 0, master_diff = 0, trained_diff = 0;
    long mismatches = 0, n = 0;
    ForwardTrace trace;
    RecordFeatures f;
    for (const TrainRecord& r : records) {
        if (!record_features(r, &f)) continue;
        const i32 engine = engine_evaluate_record(thread.get(), r);
        const float fl = float_forward(*net, rounded->view(*net), f, &trace);
        trained_diff += std::fabs(double(float_forward(*net, rounded->view(*net), f, &trace, true)) - engine);
        master_diff += std::fabs(double(float_forward(*net, dense_of(*net), f, &trace)) - engine);
        const float em = std::clamp(float_forward(*imported, dense_of(*imported), f, &trace, true), -30966.0f, 30966.0f);
        const double d = std::fabs(double(fl) - engine);
        float_diff += d;
        max_float = std::max(max_float, d);
        emulated_diff += std::fabs(double(em) - engine);
        mismatches += em != float(engine);
        ++n;
    }
    if (!n) {
        std::fprintf(stderr, "no usable records\n");
        return 1;
    }
    std::printf("%ld positions\n", n);
    std::printf("float net vs engine evaluate:      mean |diff| %.2f, max %.0f internal units\n", float_diff / double(n),
                max_float);
    std::printf("as trained (rounded activations):  mean |diff| %.2f\n", trained_diff / double(n));
    std::printf("unrounded dense masters vs engine: mean |diff| %.2f\n", master_diff / double(n));
    std::printf("integer emulation vs engine:       mean |diff| %.4f, %ld positions differ\n", emulated_diff / double(n),
                mismatches);
    network_free(image);
    return 0;
}
