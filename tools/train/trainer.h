// The training step: forward and backward over a mini-batch, sparse Adam on the first
// layer, dense Adam on the rest. Kept in a header so that the tests can run a small
// training without the command-line tool.
#pragma once
#include <algorithm>
#include <cmath>
#include <random>
#include <thread>
#include <vector>
#include "tools/train/floatnet.h"

struct TrainConfig {
    float scale = 340;        // internal units per logit: sigmoid(score / scale)
    float lambda = 0.7f;      // weight of the search score against the game result
    float lr = 2e-3f;
    float output_lr_factor = 16;  // output weights and bias live on a 16x larger scale
    // The king-relative rows learn slower than the shared rows: Adam gives a rarely
    // seen row as large a step as a common one, so at full rate the 40,960 rows would
    // memorise positions that the 640 shared rows ought to explain.
    float row_lr_factor = 0.1f;
    float shared_lr_factor = 1;  // of the shared rows (0 with --row-lr 0 freezes the first layer)
    // Pull of the shared rows back to where the run started them, per unit of their rate.
    // From an image on the grid, a shared value then settles at (its mean normalised
    // step) / shared_anchor away from the start, and crosses the half step that changes
    // the image only where that mean exceeds shared_anchor / 32: only pushes that keep
    // their sign, not the random walk of a noisy gradient, reach the image.
    float shared_anchor = 0;
    // The same pull for the king-relative rows, per unit of their rate. Every row feels it
    // at every step, touched or not, so a row that few records reach stays near its start
    // and only the rows of common king squares, pushed the same way step after step, move.
    float row_anchor = 0;
    int threads = 2;
    // Quantisation-aware: the dense layers are evaluated with their image values and the
    // activations rounded to the integer pass's 1/8 steps (straight-through gradients).
    bool quantise_aware = true;
    // Show each record without castling rights mirrored across the d/e line half the time.
    bool mirror = false;
};

// Win probability of a score, and the training target of a record.
inline float win_probability(float score, float scale) { return 1.0f / (1.0f + std::exp(-score / scale)); }
inline float record_target(const TrainRecord& r, const TrainConfig& c) {
    return c.lambda * win_probability(r.score, c.scale) + (1 - c.lambda) * 0.5f * r.result;
}

struct DenseGrads {
    alignas(32) float w2[NET_HIDDEN1][NET_INPUTS];
    alignas(32) float b2[NET_HIDDEN1];
    alignas(32) float w3[NET_HIDDEN2][NET_HIDDEN1];
    alignas(32) float b3[NET_HIDDEN2];
    alignas(32) float w4[NET_HIDDEN2];
    alignas(32) float b1[NET_HALF];
    float b4;
    double loss;
    long samples;
    void clear() { std::memset(static_cast<void*>(this), 0, sizeof *this); }
};

// Adam moments of the whole net, in the same shapes.
struct AdamState {
    std::vector<float> m1, v1, mf, vf;  // first layer rows and shared rows
    DenseGrads m, v;                    // dense parts (the loss fields unused)
    long step = 0;
    AdamState()
        : m1(size_t(NET_ROWS) * NET_HALF, 0.0f), v1(m1.size(), 0.0f), mf(size_t(FACTOR_ROWS) * NET_HALF, 0.0f),
          vf(mf.size(), 0.0f) {
        m.clear();
        v.clear();
    }
};

struct AdamStep {
    float lr, b1c, b2c;  // rate and the two bias corrections of this step
    static constexpr float beta1 = 0.9f, beta2 = 0.999f, eps = 1e-8f;
    void apply(float* __restrict w, float* __restrict m, float* __restrict v, const float* __restrict g, int n,
               float rate_factor, float lo, float hi) const {
        const float a = lr * rate_factor / b1c;
        for (int i = 0; i < n; ++i) {
            m[i] = beta1 * m[i] + (1 - beta1) * g[i];
            v[i] = beta2 * v[i] + (1 - beta2) * g[i] * g[i];
            const float x = w[i] - a * m[i] / (std::sqrt(v[i] / b2c) + eps);
            w[i] = x < lo ? lo : x > hi ? hi : x;
        }
    }
};

// Forward and backward of one record: loss returned, dense gradients accumulated into
// `g`, the gradient of the two halves' sums written to `dacc` (2 x 256).
inline float train_sample(const FloatNet& net, const DenseWeights& d, const RecordFeatures& f, float target,
                          const TrainConfig& c, ForwardTrace* t, DenseGrads* g, float* dacc) {
    const float out = float_forward(net, d, f, t, c.quantise_aware);
    const float p = win_probability(out, c.scale);
    const float diff = p - target;
    const float dout = 2 * diff * p * (1 - p) / c.scale;

    g->b4 += dout;
    float dz2[NET_HIDDEN2];
    for (int i = 0; i < NET_HIDDEN2; ++i) {
        g->w4[i] += dout * t->h2[i];
        dz2[i] = (t->z2[i] > 0 && t->z2[i] < ACT_MAX) ? dout * d.w4[i] : 0.0f;
    }
    alignas(32) float dh1[NET_HIDDEN1] = {};
    for (int j = 0; j < NET_HIDDEN2; ++j) {
        if (dz2[j] == 0) continue;
        g->b3[j] += dz2[j];
        for (int i = 0; i < NET_HIDDEN1; ++i) {
            g->w3[j][i] += dz2[j] * t->h1[i];
            dh1[i] += dz2[j] * d.w3[j][i];
        }
    }
    alignas(32) float da0[NET_INPUTS] = {};
    for (int j = 0; j < NET_HIDDEN1; ++j) {
        const float dz1 = (t->z1[j] > 0 && t->z1[j] < ACT_MAX) ? dh1[j] : 0.0f;
        if (dz1 == 0) continue;
        g->b2[j] += dz1;
        float* __restrict gw = g->w2[j];
        const float* __restrict w = d.w2[j];
        for (int i = 0; i < NET_INPUTS; ++i) {
            gw[i] += dz1 * t->a0[i];
            da0[i] += dz1 * w[i];
        }
    }
    for (int h = 0; h < 2; ++h)
        for (int i = 0; i < NET_HALF; ++i) {
            const float a = t->acc[h][i];
            const float v = (a > 0 && a < ACT_MAX) ? da0[h * NET_HALF + i] : 0.0f;
            dacc[h * NET_HALF + i] = v;
            g->b1[i] += v;
        }
    return diff * diff;
}

// Everything a run keeps between batches.
struct Trainer {
    FloatNet& net;
    AdamState adam;
    TrainConfig config;
    std::vector<float> grad1, gradf;        // first-layer gradients, zero outside touched rows
    std::vector<u8> touched1, touchedf;
    std::vector<float> factor_start;        // shared rows at the first step (with shared_anchor)
    std::vector<float> rows_start;          // king-relative rows at the first step (with row_anchor)
    std::vector<RecordFeatures> features;   // of the batch
    std::vector<float> targets;
    std::vector<float> dacc;                // batch x 512
    std::vector<DenseGrads> grads;          // per thread
    RoundedDense rounded;

    Trainer(FloatNet& n, const TrainConfig& c)
        : net(n), config(c), grad1(size_t(NET_ROWS) * NET_HALF, 0.0f), gradf(size_t(FACTOR_ROWS) * NET_HALF, 0.0f),
          touched1(NET_ROWS, 0), touchedf(FACTOR_ROWS, 0), grads(std::max(1, c.threads)) {}

    DenseWeights dense() {
        if (!config.quantise_aware) return dense_of(net);
        round_dense(net, &rounded);
        return rounded.view(net);
    }

    // One optimiser step over `count` records; returns the summed loss.
    double step(const TrainRecord* const* batch, int count) {
        const int threads = std::max(1, config.threads);
        features.resize(size_t(count));
        targets.resize(size_t(count));
        dacc.resize(size_t(count) * NET_INPUTS);
        const DenseWeights d = dense();

        auto forward_backward = [&](int t) {
            DenseGrads& g = grads[size_t(t)];
            g.clear();
            ForwardTrace trace;
            for (int s = count * t / threads; s < count * (t + 1) / threads; ++s) {
                RecordFeatures& f = features[size_t(s)];
                bool mirror = false;
                if (config.mirror && record_mirrorable(*batch[s])) {
                    // The coin is a hash of the step and the slot: reproducible for a seed,
                    // and a record gets a fresh one in every epoch's shuffle.
                    u64 coin = u64(adam.step) * 0x9e3779b97f4a7c15ULL + u64(s);
                    coin = (coin ^ coin >> 31) * 0xbf58476d1ce4e5b9ULL;
                    mirror = (coin >> 63) != 0;
                }
                if (!record_features(*batch[s], &f, mirror)) {
                    f.count[0] = f.count[1] = 0;
                    std::fill_n(&dacc[size_t(s) * NET_INPUTS], NET_INPUTS, 0.0f);
                    continue;
                }
                const float target = record_target(*batch[s], config);
                g.loss += train_sample(net, d, f, target, config, &trace, &g, &dacc[size_t(s) * NET_INPUTS]);
                ++g.samples;
            }
        };
        run_threads(threads, forward_backward);

        DenseGrads& total = grads[0];
        for (int t = 1; t < threads; ++t) {
            const float* src = reinterpret_cast<const float*>(&grads[size_t(t)]);
            float* dst = reinterpret_cast<float*>(&total);
            for (size_t i = 0; i < offsetof(DenseGrads, loss) / sizeof(float); ++i) dst[i] += src[i];
            total.loss += grads[size_t(t)].loss;
            total.samples += grads[size_t(t)].samples;
        }
        if (total.samples == 0) return 0;
        const float inv = 1.0f / float(total.samples);

        if (config.shared_anchor > 0 && factor_start.empty()) factor_start = net.factor;
        if (config.row_anchor > 0 && rows_start.empty()) rows_start = net.w1;
        ++adam.step;
        AdamStep a{config.lr, 1 - std::pow(AdamStep::beta1, float(adam.step)),
                   1 - std::pow(AdamStep::beta2, float(adam.step))};

        // Sparse part: each thread owns the rows whose number is its index modulo the
        // thread count, gathers their gradients from the whole batch and updates them.
        auto sparse = [&](int t) {
            std::vector<int> rows, shared_rows;
            for (int s = 0; s < count; ++s) {
                const RecordFeatures& f = features[size_t(s)];
                for (int h = 0; h < 2; ++h) {
                    const float* __restrict g = &dacc[size_t(s) * NET_INPUTS + size_t(h) * NET_HALF];
                    for (int n = 0; n < f.count[h]; ++n) {
                        const int r = f.rows[h][n];
                        if (r % threads == t) {
                            float* __restrict dst = &grad1[size_t(r) * NET_HALF];
                            for (int i = 0; i < NET_HALF; ++i) dst[i] += g[i];
                            if (!touched1[size_t(r)]) touched1[size_t(r)] = 1, rows.push_back(r);
                        }
                        if (r < NET_FEATURES && (r >> 6) % threads == t) {
                            float* __restrict dst = &gradf[size_t(r >> 6) * NET_HALF];
                            for (int i = 0; i < NET_HALF; ++i) dst[i] += g[i];
                            if (!touchedf[size_t(r >> 6)]) touchedf[size_t(r >> 6)] = 1, shared_rows.push_back(r >> 6);
                        }
                    }
                }
            }
            auto update = [&](std::vector<float>& grad, std::vector<u8>& touched, float* weights, float* m, float* v,
                              const std::vector<int>& list, float rate) {
                for (int r : list) {
                    float* g = &grad[size_t(r) * NET_HALF];
                    for (int i = 0; i < NET_HALF; ++i) g[i] *= inv;
                    const size_t o = size_t(r) * NET_HALF;
                    a.apply(weights + o, m + o, v + o, g, NET_HALF, rate, -FEATURE_LIMIT, FEATURE_LIMIT);
                    std::fill_n(g, NET_HALF, 0.0f);
                    touched[size_t(r)] = 0;
                }
            };
            update(grad1, touched1, net.w1.data(), adam.m1.data(), adam.v1.data(), rows, config.row_lr_factor);
            update(gradf, touchedf, net.factor.data(), adam.mf.data(), adam.vf.data(), shared_rows,
                   config.shared_lr_factor);
            // Every anchored row this thread owns, touched or not.
            auto anchor = [&](float* weights, const std::vector<float>& start, int count_rows, float pull) {
                const float keep = 1 - std::min(1.0f, config.lr * pull);
                for (int r = t; r < count_rows; r += threads) {
                    float* w = weights + size_t(r) * NET_HALF;
                    const float* s0 = &start[size_t(r) * NET_HALF];
                    for (int i = 0; i < NET_HALF; ++i) w[i] = s0[i] + keep * (w[i] - s0[i]);
                }
            };
            if (config.shared_anchor > 0)
                anchor(net.factor.data(), factor_start, FACTOR_ROWS, config.shared_lr_factor * config.shared_anchor);
            if (config.row_anchor > 0)
                anchor(net.w1.data(), rows_start, NET_ROWS, config.row_lr_factor * config.row_anchor);
        };
        run_threads(threads, sparse);

        float* g = reinterpret_cast<float*>(&total);
        for (size_t i = 0; i < offsetof(DenseGrads, loss) / sizeof(float); ++i) g[i] *= inv;
        a.apply(net.b1, adam.m.b1, adam.v.b1, total.b1, NET_HALF, 1, -FEATURE_LIMIT, FEATURE_LIMIT);
        a.apply(&net.w2[0][0], &adam.m.w2[0][0], &adam.v.w2[0][0], &total.w2[0][0], NET_HIDDEN1 * NET_INPUTS, 1,
                HIDDEN_W_MIN, HIDDEN_W_MAX);
        a.apply(net.b2, adam.m.b2, adam.v.b2, total.b2, NET_HIDDEN1, 1, -1e4f, 1e4f);
        a.apply(&net.w3[0][0], &adam.m.w3[0][0], &adam.v.w3[0][0], &total.w3[0][0], NET_HIDDEN2 * NET_HIDDEN1, 1,
                HIDDEN_W_MIN, HIDDEN_W_MAX);
        a.apply(net.b3, adam.m.b3, adam.v.b3, total.b3, NET_HIDDEN2, 1, -1e4f, 1e4f);
        a.apply(net.w4, adam.m.w4, adam.v.w4, total.w4, NET_HIDDEN2, config.output_lr_factor, OUTPUT_W_MIN,
                OUTPUT_W_MAX);
        a.apply(&net.b4, &adam.m.b4, &adam.v.b4, &total.b4, 1, config.output_lr_factor, -1e5f, 1e5f);
        return total.loss;
    }

    template <class F>
    static void run_threads(int threads, F&& work) {
        if (threads == 1) {
            work(0);
            return;
        }
        std::vector<std::thread> pool;
        for (int t = 1; t < threads; ++t) pool.emplace_back(work, t);
        work(0);
        for (auto& th : pool) th.join();
    }
};

// Mean loss of records under the present net (multi-threaded, no update).
inline double evaluate_loss(const FloatNet& net, const DenseWeights& d, const TrainConfig& c,
                            const std::vector<TrainRecord>& records, int threads) {
    threads = std::max(1, threads);
    std::vector<double> sums(size_t(threads), 0.0);
    std::vector<long> counts(size_t(threads), 0);
    auto work = [&](int t) {
        ForwardTrace trace;
        RecordFeatures f;
        const size_t n = records.size();
        for (size_t i = n * size_t(t) / size_t(threads); i < n * size_t(t + 1) / size_t(threads); ++i) {
            if (!record_features(records[i], &f)) continue;
            const float p = win_probability(float_forward(net, d, f, &trace, c.quantise_aware), c.scale);
            const float diff = p - record_target(records[i], c);
            sums[size_t(t)] += diff * diff;
            ++counts[size_t(t)];
        }
    };
    Trainer::run_threads(threads, work);
    double s = 0;
    long n = 0;
    for (int t = 0; t < threads; ++t) s += sums[size_t(t)], n += counts[size_t(t)];
    return n ? s / double(n) : 0.0;
}

// A fresh net: shared rows small and random, own rows zero (so every king bucket starts
// from the same piece-square values), dense layers scaled for activations of a few
// units and weights that survive the image's 1/8 and 1/4 steps.
inline void net_init_random(FloatNet* net, u64 seed) {
    std::mt19937_64 rng(seed);
    auto uniform = [&](float span) { return std::uniform_real_distribution<float>(-span, span)(rng); };
    std::fill(net->w1.begin(), net->w1.end(), 0.0f);
    for (float& w : net->factor) w = uniform(0.2f);
    for (float& b : net->b1) b = 1.0f;
    for (auto& row : net->w2)
        for (float& w : row) w = uniform(0.25f);
    for (float& b : net->b2) b = 1.0f;
    for (auto& row : net->w3)
        for (float& w : row) w = uniform(0.5f);
    for (float& b : net->b3) b = 1.0f;
    for (float& w : net->w4) w = uniform(8.0f);
    net->b4 = 0;
}

// A net imported from an image may have neurons that never fire (all rows and the bias
// zero, like the unused neurons of the hand-made first network); at exactly zero they
// get no gradient. Such neurons get small shared rows and a bias that switches them on,
// so that training can put them to use; their outgoing weights stay zero, which keeps
// the net's output unchanged at the start. Returns the number revived.
inline int net_revive_unused(FloatNet* net, u64 seed) {
    std::mt19937_64 rng(seed);
    auto uniform = [&](float span) { return std::uniform_real_distribution<float>(-span, span)(rng); };
    int revived = 0;
    for (int i = 0; i < NET_HALF; ++i) {
        bool used = std::fabs(net->b1[i]) > 1.0f / 16;  // an image bias of 0 or 1 reads back as -1/16 or 0
        for (int r = 0; r < NET_ROWS && !used; ++r) used = net->row(r)[i] != 0;
        if (used) continue;
        ++revived;
        net->b1[i] = 1.0f;
        for (int r = 0; r < FACTOR_ROWS; ++r) net->factor[size_t(r) * NET_HALF + size_t(i)] = uniform(0.2f);
    }
    return revived;
}

// A net imported from an image sits exactly on the grid, where a quantisation-aware
// step sees a value change only after it has drifted half a step, so small rates stall
// (every crossing needs a whole half step of steady push). A trained checkpoint instead
// has its values spread over their rounding cells, and a push of any size turns into
// crossings in proportion to its size. This spreads each value of the net uniformly
// over the cell that rounds to its image value (a little inside, so that ties cannot
// flip): the quantised net, and so every forward pass, stays exactly the image's.
// First-layer rows are spread only where the shared row is zero (it is, after an
// import, except on revived neurons). Returns the number of values moved. (Measured on
// one generation's games, what the first layer then learns is those games: the grid was
// also a guard, tools/TRAINING.md.)
inline long net_dither(FloatNet* net, u64 seed) {
    std::mt19937_64 rng(seed ^ 0xd1b54a32d192ed03ULL);
    std::uniform_real_distribution<float> cell(-0.49f, 0.49f);
    long moved = 0;
    auto spread = [&](float* p, size_t n, float grid, float lo, float hi) {
        for (size_t i = 0; i < n; ++i) {
            // An imported value beyond the training bounds stays beyond them: Adam's own
            // clamp decides about it, as it would without the spread.
            p[i] = std::clamp(p[i] + cell(rng) / grid, std::min(lo, p[i]), std::max(hi, p[i]));
            ++moved;
        }
    };
    for (int r = 0; r < NET_ROWS; ++r) {
        float* w = net->row(r);
        const float* s = r < NET_FEATURES ? net->shared(r) : ZERO_ROW;
        for (int i = 0; i < NET_HALF; ++i)
            if (s[i] == 0) spread(w + i, 1, 16, -FEATURE_LIMIT, FEATURE_LIMIT);
    }
    spread(net->b1, NET_HALF, 16, -FEATURE_LIMIT, FEATURE_LIMIT);
    spread(&net->w2[0][0], size_t(NET_HIDDEN1) * NET_INPUTS, 8, HIDDEN_W_MIN, HIDDEN_W_MAX);
    spread(net->b2, NET_HIDDEN1, 64, -1e4f, 1e4f);
    spread(&net->w3[0][0], size_t(NET_HIDDEN2) * NET_HIDDEN1, 8, HIDDEN_W_MIN, HIDDEN_W_MAX);
    spread(net->b3, NET_HIDDEN2, 64, -1e4f, 1e4f);
    spread(net->w4, NET_HIDDEN2, 4, OUTPUT_W_MIN, OUTPUT_W_MAX);
    spread(&net->b4, 1, 32, -1e5f, 1e5f);
    return moved;
}
