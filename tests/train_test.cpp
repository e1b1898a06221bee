#include <gtest/gtest.h>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>
#include <unistd.h>
#include "eval_test_util.h"
#include "tools/train/engine_eval.h"
#include "tools/train/trainer.h"

namespace {

const char* const START = "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1";

// Records of the positions along random games from a few starting points, Black and
// White to move, with castling rights lost on the way, en-passant squares and
// promotions. Every position is checked against itself: record, FEN, set-up.
std::vector<TrainRecord> random_game_records(SearchThread* t, u64 seed, int games, int plies) {
    static const char* const starts[] = {
        START,
        "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
        "rnbqkbnr/ppp1p1pp/8/3pPp2/8/8/PPPP1PPP/RNBQKBNR w KQkq f6 0 3",
        "8/2P3k1/8/8/8/8/1p3K2/8 b - - 4 60",
    };
    Rng rng{seed};
    std::vector<TrainRecord> out;
    for (int g = 0; g < games; ++g) {
        set_position(t, starts[g % 4], "");
        for (int ply = 0; ply < plies; ++ply) {
            ScoredMove list[MAX_MOVES];
            ScoredMove* end = gen_legal(t->top, list);
            if (end == list) break;
            out.push_back(record_from_position(t->top, rng.range(-3000, 3000), rng.below(3), ply));
            make_move(t, list[rng.below(int(end - list))].move, nullptr);
        }
    }
    return out;
}

}  // namespace

TEST(TrainData, RecordRoundTripKeepsThePosition) {
    auto t = new_thread();
    auto u = new_thread();
    Rng rng{7};
    int checked = 0, with_ep = 0, black = 0;
    for (int g = 0; g < 24; ++g) {
        set_position(t.get(), g % 2 ? START : "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R w KQkq - 0 1",
                     "");
        for (int ply = 0; ply < 120; ++ply) {
            ScoredMove list[MAX_MOVES];
            ScoredMove* end = gen_legal(t->top, list);
            if (end == list) break;
            const TrainRecord r = record_from_position(t->top, -1234 + ply, ply % 3, ply);
            char fen[100];
            record_fen(r, fen);
            set_position(u.get(), fen, "");
            const Position* a = t->top;
            const Position* b = u->top;
            ASSERT_EQ(a->key, b->key) << fen;
            EXPECT_EQ(a->castling, b->castling) << fen;
            EXPECT_EQ(a->flags & ~POS_REPETITION, b->flags & ~POS_REPETITION) << fen;
            EXPECT_EQ(a->halfmove_clock, b->halfmove_clock) << fen;
            for (int i = 0; i < 8; ++i) EXPECT_EQ(a->boards[i], b->boards[i]) << fen;
            EXPECT_EQ(r.score, -1234 + ply);
            EXPECT_EQ(r.result, ply % 3);
            // The record of the rebuilt position is the same record, byte for byte.
            const TrainRecord again = record_from_position(u->top, -1234 + ply, ply % 3, ply);
            EXPECT_EQ(std::memcmp(&r, &again, sizeof r), 0) << fen;
            ++checked;
            with_ep += ep_file(a->flags) != EP_NONE;
            black += (a->flags & POS_BLACK) != 0;
            make_move(t.get(), list[rng.below(int(end - list))].move, nullptr);
        }
    }
    EXPECT_GT(checked, 1000);
    EXPECT_GT(with_ep, 0);
    EXPECT_GT(black, checked / 3);

    // Corrupt records never reach a feature list: no king, two kings, too many men.
    TrainRecord r = record_from_position(t->top, 0, 1, 0);
    RecordFeatures f;
    EXPECT_TRUE(record_features(r, &f));
    TrainRecord bad{};
    bad.occupied = 0xffffffffffULL;
    EXPECT_FALSE(record_features(bad, &f));
    bad.occupied = 3;
    bad.pieces[0] = 0x66;  // two white kings
    EXPECT_FALSE(record_features(bad, &f));
    char fen[100];
    bad.occupied = ~0ULL;
    record_fen(bad, fen);  // must not read past the 32 codes

    // Rescaled scores round to nearest and saturate instead of wrapping; nothing else of
    // the record changes.
    std::vector<TrainRecord> scaled(4, r);
    scaled[0].score = 301, scaled[1].score = -301, scaled[2].score = 30000, scaled[3].score = -30000;
    records_scale_scores(&scaled, 0.75f);
    EXPECT_EQ(scaled[0].score, 226);
    EXPECT_EQ(scaled[1].score, -226);
    records_scale_scores(&scaled, 2.0f);
    EXPECT_EQ(scaled[2].score, 32767);
    EXPECT_EQ(scaled[3].score, -32767);
    scaled[0].score = r.score;
    EXPECT_EQ(std::memcmp(&scaled[0], &r, sizeof r), 0);
}

// A FEN mirrored across the d/e line (castling rights must be gone).
static std::string mirror_files_fen(const std::string& fen) {
    std::string out, rank;
    size_t i = 0;
    auto flush = [&] {
        int gap = 0;
        for (auto c = rank.rbegin(); c != rank.rend(); ++c) {
            if (*c == '.') {
                ++gap;
                continue;
            }
            if (gap) out += char('0' + gap);
            gap = 0;
            out += *c;
        }
        if (gap) out += char('0' + gap);
        rank.clear();
    };
    for (; fen[i] != ' '; ++i) {
        if (fen[i] == '/') {
            flush();
            out += '/';
        } else if (fen[i] >= '1' && fen[i] <= '8') {
            rank.append(size_t(fen[i] - '0'), '.');
        } else {
            rank += fen[i];
        }
    }
    flush();
    std::string rest = fen.substr(i);
    const size_t ep = rest.find_first_of("abcdefgh", 4);  // past " w - "
    if (ep != std::string::npos && rest[ep + 1] >= '1' && rest[ep + 1] <= '8') rest[ep] = char('h' - (rest[ep] - 'a'));
    return out + rest;
}

// Training on mirrored records is sound only if the mirrored features are exactly those
// of the mirrored position, for both halves, with either side to move.
TEST(TrainData, MirroredFeaturesAreTheMirroredPosition) {
    auto t = new_thread();
    auto u = new_thread();
    std::vector<TrainRecord> records = random_game_records(t.get(), 21, 24, 120);
    int mirrored = 0, refused = 0, differ = 0;
    for (const TrainRecord& r : records) {
        if (!record_mirrorable(r)) {
            ++refused;
            continue;
        }
        char fen[100];
        record_fen(r, fen);
        const std::string m = mirror_files_fen(fen);
        set_position(u.get(), m.c_str(), "");
        const TrainRecord mr = record_from_position(u->top, r.score, r.result, r.ply);
        RecordFeatures a, b, plain;
        ASSERT_TRUE(record_features(r, &a, true));
        ASSERT_TRUE(record_features(mr, &b));
        ASSERT_TRUE(record_features(r, &plain));
        for (int h = 0; h < 2; ++h) {
            ASSERT_EQ(a.count[h], b.count[h]) << fen;
            std::sort(a.rows[h], a.rows[h] + a.count[h]);
            std::sort(b.rows[h], b.rows[h] + b.count[h]);
            std::sort(plain.rows[h], plain.rows[h] + plain.count[h]);
            for (int n = 0; n < a.count[h]; ++n) EXPECT_EQ(a.rows[h][n], b.rows[h][n]) << fen << " -> " << m;
            differ += !std::equal(a.rows[h], a.rows[h] + a.count[h], plain.rows[h]);
        }
        ++mirrored;
    }
    EXPECT_GT(mirrored, 500);
    EXPECT_GT(refused, 100);
    EXPECT_GT(differ, mirrored);  // the mirror is not the identity
}

// The float pass on a net imported from an image reproduces the engine's integer
// evaluation exactly when it rounds as the integer pass does, and stays within the
// quantisation error when it does not.
TEST(TrainNet, FloatPassMatchesTheEngine) {
    auto t = new_thread();
    std::vector<TrainRecord> records = random_game_records(t.get(), 11, 16, 90);
    ASSERT_GT(records.size(), 800u);

    ImagePtr image = random_image(5, 40, 20, 3000);
    auto imported = std::make_unique<FloatNet>();
    net_from_image(image.get(), imported.get());
    {
        UseImage use(image.get());
        auto u = new_thread();
        ForwardTrace trace;
        RecordFeatures f;
        int exact = 0, nonzero = 0;
        for (const TrainRecord& r : records) {
            ASSERT_TRUE(record_features(r, &f));
            const float fl = float_forward(*imported, dense_of(*imported), f, &trace, true);
            const i32 engine = engine_evaluate_record(u.get(), r);
            exact += float(engine) == std::clamp(fl, -30966.0f, 30966.0f);
            nonzero += engine != 0;
        }
        EXPECT_EQ(exact, int(records.size()));
        EXPECT_GT(nonzero, int(records.size()) / 2);
    }

    // A float net with dense weights already on the image's grid (as quantisation-aware
    // training keeps them) and arbitrary first-layer weights: the image differs only by
    // the rounding of the first layer (1/32 per weight at most) and of the activations
    // (1/16 each), which the output weights (up to 8) carry into a few units.
    auto net = std::make_unique<FloatNet>();
    net_init_random(net.get(), 3);
    for (float& w : net->w1) w = 0.0f;
    Rng rng{9};
    for (size_t i = 0; i < net->w1.size(); i += 7) net->w1[i] = float(rng.range(-100, 100)) / 97.0f;
    RoundedDense q;
    round_dense(*net, &q);
    std::memcpy(net->w2, q.w2, sizeof q.w2);
    std::memcpy(net->w3, q.w3, sizeof q.w3);
    std::memcpy(net->w4, q.w4, sizeof q.w4);
    ImagePtr exported(network_alloc());
    net_to_image(*net, exported.get());
    UseImage use(exported.get());
    auto u = new_thread();
    ForwardTrace trace;
    RecordFeatures f;
    double total = 0, worst = 0, spread = 0;
    int exact = 0;
    for (const TrainRecord& r : records) {
        ASSERT_TRUE(record_features(r, &f));
        const float fl = float_forward(*net, dense_of(*net), f, &trace);
        const i32 engine = engine_evaluate_record(u.get(), r);
        // With every value on the image's grid, as quantisation-aware training runs it,
        // the float pass is the integer pass.
        exact += float_forward(*net, dense_of(*net), f, &trace, true) == float(engine);
        const double d = std::fabs(double(fl) - engine);
        total += d;
        worst = std::max(worst, d);
        spread += std::fabs(fl);
    }
    const double n = double(records.size());
    EXPECT_LT(total / n, 6.0);
    EXPECT_LT(worst, 40.0);
    EXPECT_GT(spread / n, 50.0);  // the net says something, so the comparison means something
    EXPECT_EQ(exact, int(records.size()));
}

// A short run on synthetic labels (the material balance) brings the held-out loss well
// down.
TEST(TrainNet, TrainingLowersTheLoss) {
    auto t = new_thread();
    std::vector<TrainRecord> records = random_game_records(t.get(), 21, 300, 70);
    static const int value[7] = {0, 160, 480, 500, 800, 1500, 0};
    for (TrainRecord& r : records) {
        int balance = 0, n = 0;
        const int stm = record_black_to_move(r) ? 8 : 0;
        for (u64 b = r.occupied; b; b &= b - 1, ++n) {
            const int code = record_man(r, n);
            balance += (code & 8) == stm ? value[code & 7] : -value[code & 7];
        }
        r.score = i16(balance);
        r.result = balance > 200 ? 2 : balance < -200 ? 0 : 1;
    }
    const size_t held = records.size() / 5;
    std::vector<TrainRecord> valid(records.end() - long(held), records.end());
    records.resize(records.size() - held);

    auto net = std::make_unique<FloatNet>();
    net_init_random(net.get(), 1);
    TrainConfig c;
    c.lr = 4e-3f;
    Trainer tr(*net, c);
    const double before = evaluate_loss(*net, tr.dense(), c, valid, 2);
    std::vector<const TrainRecord*> batch;
    Rng rng{3};
    for (int step = 0; step < 60; ++step) {
        batch.clear();
        for (int i = 0; i < 512; ++i) batch.push_back(&records[size_t(rng.below(int(records.size())))]);
        tr.step(batch.data(), int(batch.size()));
    }
    const double after = evaluate_loss(*net, tr.dense(), c, valid, 2);
    EXPECT_LT(after, before * 0.5) << before << " -> " << after;
    for (float w : net->w2[0]) EXPECT_TRUE(w >= HIDDEN_W_MIN && w <= HIDDEN_W_MAX);

    // Full-strength anchors hold every shared and king-relative row (those of both
    // threads, touched by the batch or not) where the run started them, while the rest
    // of the net learns on.
    c.shared_anchor = 1 / c.lr;
    c.row_anchor = 1 / (c.lr * c.row_lr_factor);
    Trainer anchored(*net, c);
    const std::vector<float> start = net->factor, rows_start = net->w1;
    const std::vector<float> w2_start(&net->w2[0][0], &net->w2[0][0] + NET_HIDDEN1 * NET_INPUTS);
    for (int step = 0; step < 5; ++step) {
        batch.clear();
        for (int i = 0; i < 512; ++i) batch.push_back(&records[size_t(rng.below(int(records.size())))]);
        anchored.step(batch.data(), int(batch.size()));
        EXPECT_EQ(net->factor, start) << "step " << step;
        EXPECT_TRUE(net->w1 == rows_start) << "step " << step;
    }
    EXPECT_FALSE(std::equal(w2_start.begin(), w2_start.end(), &net->w2[0][0]));
}

// The export saturates instead of wrapping, keeps every first-layer sum inside i16, and
// an image survives the file and a float round trip byte for byte.
TEST(TrainNet, QuantisedImageStaysInRange) {
    auto net = std::make_unique<FloatNet>();
    net_init_random(net.get(), 4);
    Rng rng{17};
    for (size_t i = 0; i < net->w1.size(); i += 3) net->w1[i] = float(rng.range(-9000, 9000)) / 100.0f;
    net->w2[0][0] = 100.0f;
    net->w2[0][1] = -100.0f;
    net->w3[1][2] = 17.0f;
    net->w4[3] = -40.0f;
    net->w4[4] = 31.9f;
    ImagePtr image(network_alloc());
    net_to_image(*net, image.get());
    EXPECT_EQ(image->hidden1_weights[0][0], 127);
    EXPECT_EQ(image->hidden1_weights[0][1], -128);
    EXPECT_EQ(image->hidden2_weights[1][2], 127);
    EXPECT_EQ(image->output_weights[3], -128);
    EXPECT_EQ(image->output_weights[4], 127);
    int largest = 0;
    for (int r = 0; r < NET_ROWS; ++r)
        for (int i = 0; i < NET_HALF; ++i) largest = std::max(largest, std::abs(int(network_row(image.get(), r)[i])));
    EXPECT_EQ(largest, FEATURE_INT_LIMIT);
    EXPECT_LE(32 * FEATURE_INT_LIMIT + FEATURE_INT_LIMIT, 32767);

    const std::string path = ::testing::TempDir() + "train_test_image.nnue";
    ASSERT_TRUE(network_write_file(path.c_str(), image.get()));
    ImagePtr reread(network_alloc());
    ASSERT_TRUE(network_read_file(path.c_str(), reread.get()));
    std::remove(path.c_str());
    char message[96];
    EXPECT_EQ(network_check(reread.get(), message, sizeof message), 0);
    auto back = std::make_unique<FloatNet>();
    net_from_image(reread.get(), back.get());
    ImagePtr again(network_alloc());
    net_to_image(*back, again.get());
    EXPECT_EQ(std::memcmp(image.get(), again.get(), sizeof(NetworkImage)), 0);

    // Spreading the imported net over its rounding cells keeps the image byte for byte,
    // saturated values included, while taking nearly every value off the grid.
    EXPECT_GT(net_dither(back.get(), 5), long(NET_ROWS) * NET_HALF);
    long off_grid = 0;
    for (const auto& row : back->w2)
        for (float w : row) off_grid += 8 * w != std::nearbyint(8 * w);
    for (size_t i = 0; i < back->w1.size(); i += 101)
        off_grid += 16 * back->w1[i] != std::nearbyint(16 * back->w1[i]);
    EXPECT_GT(off_grid, (NET_HIDDEN1 * NET_INPUTS + long(back->w1.size() / 101)) * 9 / 10);
    net_to_image(*back, again.get());
    EXPECT_EQ(std::memcmp(image.get(), again.get(), sizeof(NetworkImage)), 0);
}

// Self-play games from random openings: with --balance the openings that the search
// finds lopsided are turned away, without it a good share of games begins a pawn or
// more from level, and openings drawn from moves near the best begin level without
// the check. The first record of a game at the opening's own ply is the
// opening position (or the one after it), scored by the game's first search. With
// --sample only about one position in K is recorded, so a game leaves a fraction of
// the records.
TEST(TrainData, DatagenOpeningsStayLevelWhenAsked) {
    const std::string dir = ::testing::TempDir() + "vestra_datagen_" + std::to_string(getpid());
    struct Games {
        double lopsided_share, records_per_game;
    };
    auto play = [&](const std::string& name, const std::string& extra) {
        const std::string out = dir + "_" + name;
        const std::string cmd = std::string(VESTRA_TOOLS_DIR "/vestra-datagen --out ") + out + " --depth 3 --seed 7 " +
                                extra + " >/dev/null 2>&1";
        EXPECT_EQ(std::system(cmd.c_str()), 0) << cmd;
        std::vector<TrainRecord> records;
        EXPECT_TRUE(records_load((out + "/part-0.bin").c_str(), &records));
        std::remove((out + "/part-0.bin").c_str());
        rmdir(out.c_str());
        int openings = 0, lopsided = 0, games = 0, prev_ply = 256;
        for (const TrainRecord& r : records) {
            games += r.ply < prev_ply;
            if (r.ply < prev_ply && r.ply <= 8) {
                ++openings;
                lopsided += std::abs(r.score) > 160;
            }
            prev_ply = r.ply;
        }
        EXPECT_GE(games, 15) << name;
        return Games{openings ? double(lopsided) / openings : 1.0, games ? double(records.size()) / games : 0.0};
    };
    const Games free = play("free", "--positions 6000");
    const Games balanced = play("balanced", "--positions 6000 --balance 80");
    EXPECT_GT(free.lopsided_share, 0.1);
    EXPECT_LT(balanced.lopsided_share, 0.05);
    // Opening moves kept near the best drop no material, without any check at the end.
    const Games near = play("near", "--positions 3000 --opening-margin 20 --opening-depth 2");
    EXPECT_LT(near.lopsided_share, 0.05);
    const Games sampled = play("sampled", "--positions 1500 --sample 6 --play-depth 2");
    EXPECT_LT(sampled.records_per_game, free.records_per_game / 3)
        << sampled.records_per_game << " against " << free.records_per_game;
}

// The backward pass against central differences of the loss, on the float net (no
// rounding, so the loss is smooth away from the activation clamps): the largest
// gradient of every layer, one first-layer row of each half and the shared row behind
// it, each within a percent.
TEST(TrainNet, GradientsMatchFiniteDifferences) {
    auto t = new_thread();
    set_position(t.get(), "r1bq1rk1/pp2bppp/2n1pn2/3p4/2PP4/2N1PN2/PP3PPP/R2QKB1R w KQ - 2 8", "");
    const TrainRecord rec = record_from_position(t->top, 250, 2, 20);
    RecordFeatures f;
    ASSERT_TRUE(record_features(rec, &f));

    auto net = std::make_unique<FloatNet>();
    net_init_random(net.get(), 11);
    Rng rng{5};
    for (int h = 0; h < 2; ++h)  // own rows off zero, so that row and shared row differ
        for (int n = 0; n < f.count[h]; ++n)
            for (int i = 0; i < NET_HALF; ++i) net->row(f.rows[h][n])[i] = float(rng.range(-100, 100)) / 1000;
    TrainConfig c;
    c.quantise_aware = false;
    c.scale = 200;
    ForwardTrace trace;
    // A target far from the net's answer, so that the loss has slope.
    const float target = float_forward(*net, dense_of(*net), f, &trace) > 0 ? 0.05f : 0.95f;

    auto grads = std::make_unique<DenseGrads>();
    grads->clear();
    float dacc[NET_INPUTS];
    train_sample(*net, dense_of(*net), f, target, c, &trace, grads.get(), dacc);

    auto miss = [&] {  // the loss is its square
        ForwardTrace tr;
        return double(win_probability(float_forward(*net, dense_of(*net), f, &tr), c.scale)) - target;
    };
    auto numeric = [&](float* w) {
        const float keep = *w, eps = 1e-2f;
        *w = keep + eps;
        const double up = miss();
        *w = keep - eps;
        const double down = miss();
        *w = keep;
        return (up * up - down * down) / (2.0 * double(eps));
    };
    auto check = [&](const char* what, float* w, float analytic) {
        const double num = numeric(w);
        EXPECT_NEAR(num, analytic, 0.01 * std::fabs(analytic) + 1e-9) << what;
        EXPECT_GT(std::fabs(analytic), 1e-7) << what << ": too flat to tell";
    };
    auto largest = [](const float* g, int n) {
        return int(std::max_element(g, g + n, [](float a, float b) { return std::fabs(a) < std::fabs(b); }) - g);
    };

    check("output bias", &net->b4, grads->b4);
    int k = largest(grads->w4, NET_HIDDEN2);
    check("output weight", &net->w4[k], grads->w4[k]);
    k = largest(&grads->w3[0][0], NET_HIDDEN2 * NET_HIDDEN1);
    check("second hidden weight", &net->w3[0][0] + k, (&grads->w3[0][0])[k]);
    k = largest(grads->b3, NET_HIDDEN2);
    check("second hidden bias", &net->b3[k], grads->b3[k]);
    k = largest(&grads->w2[0][0], NET_HIDDEN1 * NET_INPUTS);
    check("first hidden weight", &net->w2[0][0] + k, (&grads->w2[0][0])[k]);
    k = largest(grads->b2, NET_HIDDEN1);
    check("first hidden bias", &net->b2[k], grads->b2[k]);
    k = largest(grads->b1, NET_HALF);
    check("feature bias", &net->b1[k], grads->b1[k]);
    for (int h = 0; h < 2; ++h) {
        // A row counts once for every time it is active in either half.
        const int r = f.rows[h][0];
        const int i = largest(dacc + h * NET_HALF, NET_HALF);
        float expect = 0, shared = 0;
        for (int hh = 0; hh < 2; ++hh)
            for (int n = 0; n < f.count[hh]; ++n) {
                if (f.rows[hh][n] == r) expect += dacc[hh * NET_HALF + i];
                if (f.rows[hh][n] < NET_FEATURES && f.rows[hh][n] >> 6 == r >> 6) shared += dacc[hh * NET_HALF + i];
            }
        check(h ? "row of the second half" : "row of the first half", net->row(r) + i, expect);
        if (r < NET_FEATURES) check("shared row", net->shared(r) + i, shared);
    }
}
