// Helpers shared by the evaluation tests: a small generator, images made on the fly and
// a scope that points the engine at one of them.
#pragma once
#include <memory>
#include "eval/kernels.h"
#include "search/thread.h"
#include "board/rng.h"


struct ImageDeleter {
    void operator()(NetworkImage* p) const { network_free(p); }
};
using ImagePtr = std::unique_ptr<NetworkImage, ImageDeleter>;

// Points the engine at another image for the length of a scope.
struct UseImage {
    const NetworkImage* saved = network_image;
    explicit UseImage(const NetworkImage* image) {
        network_image = image;
        network_startup_check();
    }
    ~UseImage() {
        network_image = saved;
        network_startup_check();
    }
};

// An image with every section filled with random values of the given spans.
inline ImagePtr random_image(u64 seed, int feature_span, int weight_span, int bias_span) {
    ImagePtr net(network_alloc());
    Rng r{seed};
    i16* w = &net->feature_weights[0][0];
    for (size_t i = 0; i < size_t(NET_FEATURES + 2) * NET_HALF; ++i) w[i] = i16(r.range(-feature_span, feature_span));
    for (auto& b : net->feature_biases) b = i16(r.range(-feature_span, feature_span));
    for (auto& row : net->hidden1_weights)
        for (auto& v : row) v = i8(r.range(-weight_span - 1, weight_span));
    for (auto& row : net->hidden2_weights)
        for (auto& v : row) v = i8(r.range(-weight_span - 1, weight_span));
    for (auto& v : net->output_weights) v = i8(r.range(-weight_span - 1, weight_span));
    for (auto& b : net->hidden1_biases) b = r.range(-bias_span, bias_span);
    for (auto& b : net->hidden2_biases) b = r.range(-bias_span, bias_span);
    net->output_bias = r.range(-bias_span, bias_span);
    return net;
}

inline std::unique_ptr<SearchThread> new_thread() {
    static bool tables = false;
    if (!tables) {
        init_board_tables();
        set_default_options(&engine_options);
        tables = true;
    }
    network_startup_check();  // working copies of whichever image is in use
    return std::make_unique<SearchThread>();
}
