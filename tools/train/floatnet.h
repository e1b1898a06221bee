// The network in floating point, as the trainer holds it, with its conversion to and
// from the engine's integer image.
//
// Units. The float net computes exactly what the integer pass computes, with every
// integer value divided by its scale: first-layer weights and sums by 16 (4 fractional
// bits), activations by 8, hidden weights by 8, hidden sums by 64, output weights by 4
// and the output sum by 32. So the float output is the score in internal units, and
// the integer clamps become float clamps to 0..127/8:
//
//   a0 = clamp(first-layer sum, 0, 127/8)        (integer: clamp(sum >> 1), 3 bits)
//   h1 = clamp(W2 a0 + b2, 0, 127/8)             (integer: clamp(a >> 3))
//   h2 = clamp(W3 h1 + b3, 0, 127/8)
//   out = W4 h2 + b4                              (integer: a / 32, towards zero)
//
// Weight ranges of the image: hidden weights are i8 at 3 bits, so -16..127/8; output
// weights i8 at 2 bits, so -32..127/4. First-layer rows are kept within
// +-FEATURE_LIMIT so that no sum of 32 rows can leave the i16 range.
//
// Rounding. The integer pass rounds every activation down (arithmetic shifts). The
// export adds half a unit of the shifted value to each bias (1 to the feature biases,
// 4 to the hidden biases), which turns those floors into rounding to nearest, so the
// quantised net is unbiased against the float one; the import takes it off again.
//
// Factorised first layer. Besides its 40,960 king-relative rows the trainer keeps 640
// shared rows, one per (plane, square) without the king: a row's effective weights are
// its own plus the shared row's, and the export writes the sum into every king bucket.
// Every position trains the shared rows, so little data already gives every bucket a
// sensible piece-square value, and the king-relative rows learn the corrections.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>
#include "eval/network.h"
#include "tools/train/record.h"

constexpr int NET_ROWS = NET_FEATURES + 2;  // piece rows and the two castling rows
constexpr int FACTOR_ROWS = 640;            // plane * 64 + square, = row >> 6
constexpr float ACT_MAX = 127.0f / 8;
constexpr float HIDDEN_W_MIN = -16.0f, HIDDEN_W_MAX = 127.0f / 8;
constexpr float OUTPUT_W_MIN = -32.0f, OUTPUT_W_MAX = 127.0f / 4;
constexpr float FEATURE_LIMIT = 30.0f;  // own row and shared row each; the sum within 60

struct FloatNet {
    std::vector<float> w1;      // [NET_ROWS][256]
    std::vector<float> factor;  // [FACTOR_ROWS][256]
    alignas(32) float b1[NET_HALF];
    alignas(32) float w2[NET_HIDDEN1][NET_INPUTS];
    alignas(32) float b2[NET_HIDDEN1];
    alignas(32) float w3[NET_HIDDEN2][NET_HIDDEN1];
    alignas(32) float b3[NET_HIDDEN2];
    alignas(32) float w4[NET_HIDDEN2];
    float b4;

    FloatNet() : w1(size_t(NET_ROWS) * NET_HALF, 0.0f), factor(size_t(FACTOR_ROWS) * NET_HALF, 0.0f) {
        std::memset(b1, 0, sizeof b1);
        std::memset(w2, 0, sizeof w2);
        std::memset(b2, 0, sizeof b2);
        std::memset(w3, 0, sizeof w3);
        std::memset(b3, 0, sizeof b3);
        std::memset(w4, 0, sizeof w4);
        b4 = 0;
    }
    float* row(int r) { return w1.data() + size_t(r) * NET_HALF; }
    const float* row(int r) const { return w1.data() + size_t(r) * NET_HALF; }
    float* shared(int r) { return factor.data() + size_t(r >> 6) * NET_HALF; }
    const float* shared(int r) const { return factor.data() + size_t(r >> 6) * NET_HALF; }
};

// Everything the backward pass needs from one forward pass.
struct ForwardTrace {
    alignas(32) float acc[2][NET_HALF];
    alignas(32) float a0[NET_INPUTS];
    alignas(32) float z1[NET_HIDDEN1];
    alignas(32) float h1[NET_HIDDEN1];
    alignas(32) float z2[NET_HIDDEN2];
    alignas(32) float h2[NET_HIDDEN2];
    float out;
};

inline float clamp_act(float x) { return x < 0 ? 0 : x > ACT_MAX ? ACT_MAX : x; }
// The integer pass's activation with the bias correction of the export: nearest 1/8.
inline float clamp_act_integer(float x) { return std::clamp(std::floor(8 * x + 0.5f), 0.0f, 127.0f) / 8; }

// The dense layers after the first, shared by training (with weights already rounded
// when quantisation-aware) and evaluation.
struct DenseWeights {
    const float (*w2)[NET_INPUTS];
    const float* b2;
    const float (*w3)[NET_HIDDEN1];
    const float* b3;
    const float* w4;
    float b4;
};
inline DenseWeights dense_of(const FloatNet& net) { return {net.w2, net.b2, net.w3, net.b3, net.w4, net.b4}; }

inline constexpr float ZERO_ROW[NET_HALF] = {};

// Forward pass from the active rows. With `integer` the first-layer values and the
// biases are taken on the image's grids, the activations are rounded as the integer pass rounds them
// and the output is cut towards zero: this is the quantised net, and on a net imported
// from an image it reproduces the engine's evaluation (before its final limit) exactly,
// since every partial sum is a small dyadic number that a float holds without error.
// (Rows are not limited to the image's +-FEATURE_INT_LIMIT here; training keeps them
// far inside it.)
inline float float_forward(const FloatNet& net, const DenseWeights& d, const RecordFeatures& f, ForwardTrace* t,
                           bool integer = false) {
    for (int h = 0; h < 2; ++h) {
        float* __restrict acc = t->acc[h];
        if (integer) {
            // The image's values: every row and the bias on the 1/16 grid.
            for (int i = 0; i < NET_HALF; ++i) acc[i] = std::nearbyint(16 * net.b1[i]) / 16;
            for (int n = 0; n < f.count[h]; ++n) {
                const int r = f.rows[h][n];
                const float* __restrict w = net.row(r);
                const float* __restrict s = r < NET_FEATURES ? net.shared(r) : ZERO_ROW;
                for (int i = 0; i < NET_HALF; ++i) acc[i] += std::nearbyint(16 * (w[i] + s[i])) / 16;
            }
        } else {
            std::memcpy(acc, net.b1, sizeof net.b1);
            for (int n = 0; n < f.count[h]; ++n) {
                const int r = f.rows[h][n];
                const float* __restrict w = net.row(r);
                for (int i = 0; i < NET_HALF; ++i) acc[i] += w[i];
                if (r < NET_FEATURES) {
                    const float* __restrict s = net.shared(r);
                    for (int i = 0; i < NET_HALF; ++i) acc[i] += s[i];
                }
            }
        }
        float* __restrict a = t->a0 + h * NET_HALF;
        if (integer)
            for (int i = 0; i < NET_HALF; ++i) a[i] = clamp_act_integer(acc[i]);
        else
            for (int i = 0; i < NET_HALF; ++i) a[i] = clamp_act(acc[i]);
    }
    for (int j = 0; j < NET_HIDDEN1; ++j) {
        const float* __restrict w = d.w2[j];
        float s = 0;
        for (int i = 0; i < NET_INPUTS; ++i) s += w[i] * t->a0[i];
        t->z1[j] = s + (integer ? std::nearbyint(64 * d.b2[j]) / 64 : d.b2[j]);
        t->h1[j] = integer ? clamp_act_integer(t->z1[j]) : clamp_act(t->z1[j]);
    }
    for (int j = 0; j < NET_HIDDEN2; ++j) {
        const float* __restrict w = d.w3[j];
        float s = 0;
        for (int i = 0; i < NET_HIDDEN1; ++i) s += w[i] * t->h1[i];
        t->z2[j] = s + (integer ? std::nearbyint(64 * d.b3[j]) / 64 : d.b3[j]);
        t->h2[j] = integer ? clamp_act_integer(t->z2[j]) : clamp_act(t->z2[j]);
    }
    float s = 0;
    for (int i = 0; i < NET_HIDDEN2; ++i) s += d.w4[i] * t->h2[i];
    t->out = s + (integer ? std::nearbyint(32 * d.b4) / 32 : d.b4);
    if (integer) t->out = std::trunc(t->out);
    return t->out;
}

// ---------------------------------------------------------------------------------
// Image conversion.

inline i32 round_to_int(float x) { return i32(std::lrint(x)); }  // nearest, ties to even, as nearbyint
inline i8 quantise_i8(float x, float scale) { return i8(std::clamp(round_to_int(x * scale), -128, 127)); }

// Largest first-layer value in the image: 32 rows and the bias stay inside i16.
constexpr int FEATURE_INT_LIMIT = 960;

inline void net_to_image(const FloatNet& net, NetworkImage* image) {
    for (int r = 0; r < NET_ROWS; ++r) {
        i16* out = network_row(image, r);
        const float* w = net.row(r);
        const float* s = r < NET_FEATURES ? net.shared(r) : nullptr;
        for (int i = 0; i < NET_HALF; ++i) {
            const float v = w[i] + (s ? s[i] : 0.0f);
            out[i] = i16(std::clamp(round_to_int(16 * v), -FEATURE_INT_LIMIT, FEATURE_INT_LIMIT));
        }
    }
    for (int i = 0; i < NET_HALF; ++i)
        image->feature_biases[i] = i16(std::clamp(round_to_int(16 * net.b1[i]) + 1, -FEATURE_INT_LIMIT, FEATURE_INT_LIMIT));
    for (int j = 0; j < NET_HIDDEN1; ++j) {
        for (int i = 0; i < NET_INPUTS; ++i) image->hidden1_weights[j][i] = quantise_i8(net.w2[j][i], 8);
        image->hidden1_biases[j] = round_to_int(64 * net.b2[j]) + 4;
    }
    for (int j = 0; j < NET_HIDDEN2; ++j) {
        for (int i = 0; i < NET_HIDDEN1; ++i) image->hidden2_weights[j][i] = quantise_i8(net.w3[j][i], 8);
        image->hidden2_biases[j] = round_to_int(64 * net.b3[j]) + 4;
    }
    for (int i = 0; i < NET_HIDDEN2; ++i) image->output_weights[i] = quantise_i8(net.w4[i], 4);
    image->output_bias = round_to_int(32 * net.b4);
    for (int layer = 0; layer < 4; ++layer) image->fraction_bits[layer] = NET_FRACTION_BITS[layer];
    image->trailer_one = 1;
    image->trailer_offset = i32(NET_OFF_TRAILER_ONE);
}

// The inverse: shared rows zero, everything else exactly the image's values.
inline void net_from_image(const NetworkImage* image, FloatNet* net) {
    std::fill(net->factor.begin(), net->factor.end(), 0.0f);
    for (int r = 0; r < NET_ROWS; ++r) {
        const i16* in = network_row(image, r);
        float* w = net->row(r);
        for (int i = 0; i < NET_HALF; ++i) w[i] = in[i] / 16.0f;
    }
    for (int i = 0; i < NET_HALF; ++i) net->b1[i] = (image->feature_biases[i] - 1) / 16.0f;
    for (int j = 0; j < NET_HIDDEN1; ++j) {
        for (int i = 0; i < NET_INPUTS; ++i) net->w2[j][i] = image->hidden1_weights[j][i] / 8.0f;
        net->b2[j] = float(image->hidden1_biases[j] - 4) / 64.0f;
    }
    for (int j = 0; j < NET_HIDDEN2; ++j) {
        for (int i = 0; i < NET_HIDDEN1; ++i) net->w3[j][i] = image->hidden2_weights[j][i] / 8.0f;
        net->b3[j] = float(image->hidden2_biases[j] - 4) / 64.0f;
    }
    for (int i = 0; i < NET_HIDDEN2; ++i) net->w4[i] = image->output_weights[i] / 4.0f;
    net->b4 = float(image->output_bias) / 32.0f;
}

// The dense weights as the image will hold them (quantisation-aware training evaluates
// with these and updates the float masters).
struct RoundedDense {
    alignas(32) float w2[NET_HIDDEN1][NET_INPUTS];
    alignas(32) float w3[NET_HIDDEN2][NET_HIDDEN1];
    alignas(32) float w4[NET_HIDDEN2];
    DenseWeights view(const FloatNet& net) const { return {w2, net.b2, w3, net.b3, w4, net.b4}; }
};
inline void round_dense(const FloatNet& net, RoundedDense* q) {
    for (int j = 0; j < NET_HIDDEN1; ++j)
        for (int i = 0; i < NET_INPUTS; ++i) q->w2[j][i] = quantise_i8(net.w2[j][i], 8) / 8.0f;
    for (int j = 0; j < NET_HIDDEN2; ++j)
        for (int i = 0; i < NET_HIDDEN1; ++i) q->w3[j][i] = quantise_i8(net.w3[j][i], 8) / 8.0f;
    for (int i = 0; i < NET_HIDDEN2; ++i) q->w4[i] = quantise_i8(net.w4[i], 4) / 4.0f;
}

// ---------------------------------------------------------------------------------
// Checkpoints: the float net, optionally followed by the optimiser's state (the
// trainer's business). Layout: magic, version, then the arrays in declaration order.

constexpr u32 CHECKPOINT_MAGIC = 0x4e525456;  // "VTRN"
constexpr u32 CHECKPOINT_VERSION = 1;

inline bool write_floats(FILE* f, const float* p, size_t n) { return std::fwrite(p, sizeof(float), n, f) == n; }
inline bool read_floats(FILE* f, float* p, size_t n) { return std::fread(p, sizeof(float), n, f) == n; }

inline bool net_write(FILE* f, const FloatNet& net) {
    return write_floats(f, net.w1.data(), net.w1.size()) && write_floats(f, net.factor.data(), net.factor.size()) &&
           write_floats(f, net.b1, NET_HALF) && write_floats(f, &net.w2[0][0], NET_HIDDEN1 * NET_INPUTS) &&
           write_floats(f, net.b2, NET_HIDDEN1) && write_floats(f, &net.w3[0][0], NET_HIDDEN2 * NET_HIDDEN1) &&
           write_floats(f, net.b3, NET_HIDDEN2) && write_floats(f, net.w4, NET_HIDDEN2) && write_floats(f, &net.b4, 1);
}
inline bool net_read(FILE* f, FloatNet* net) {
    return read_floats(f, net->w1.data(), net->w1.size()) && read_floats(f, net->factor.data(), net->factor.size()) &&
           read_floats(f, net->b1, NET_HALF) && read_floats(f, &net->w2[0][0], NET_HIDDEN1 * NET_INPUTS) &&
           read_floats(f, net->b2, NET_HIDDEN1) && read_floats(f, &net->w3[0][0], NET_HIDDEN2 * NET_HIDDEN1) &&
           read_floats(f, net->b3, NET_HIDDEN2) && read_floats(f, net->w4, NET_HIDDEN2) && read_floats(f, &net->b4, 1);
}

// Reads only the net of a checkpoint (tools that evaluate it).
inline bool checkpoint_read_net(const char* path, FloatNet* net) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    u32 head[2] = {0, 0};
    bool ok = std::fread(head, sizeof head, 1, f) == 1 && head[0] == CHECKPOINT_MAGIC &&
              head[1] == CHECKPOINT_VERSION && net_read(f, net);
    std::fclose(f);
    return ok;
}
