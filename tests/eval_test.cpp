#include <gtest/gtest.h>
#include <unistd.h>
#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>
#include "eval_test_util.h"

extern "C" const unsigned char vestra_network_image[], vestra_network_image_end[];

namespace {

// A position with the two kings only (e1 and e8, White to move), built by hand.
void kings_only(SearchThread* t) {
    Position& p = t->stack[0];
    std::memset(&p, 0, sizeof p);
    p.kings = bit(4) | bit(60);
    p.occupied = p.kings;
    p.own = bit(4);
    p.castling = 0x8888;
    p.flags = 0x80;
    t->top = &p;
}

void put(SearchThread* t, int piece, int square, bool own) {
    t->top->boards[piece] |= bit(square);
    t->top->occupied |= bit(square);
    if (own) t->top->own |= bit(square);
}

}  // namespace

TEST(Network, ImageLayoutAndStartupCheck) {
    EXPECT_EQ(size_t(vestra_network_image_end - vestra_network_image), NET_IMAGE_SIZE);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(network_image) % 64, 0u);
    EXPECT_EQ(network_image->trailer_one, 1);
    EXPECT_EQ(network_image->trailer_offset, 0x01404b80);

    ImagePtr bad(network_alloc());
    char message[96];
    EXPECT_EQ(network_check(bad.get(), message, sizeof message), 0);
    bad->fraction_bits[1] = 7;
    bad->fraction_bits[3] = 9;
    EXPECT_EQ(network_check(bad.get(), message, sizeof message), 2);
    EXPECT_STREQ(message, "Bit decimali L2 non corretti! Valore corretto 7\n");
    bad->fraction_bits[0] = -5;
    EXPECT_EQ(network_check(bad.get(), message, sizeof message), 1);
    EXPECT_STREQ(message, "Bit decimali L1 non corretti! Valore corretto -5\n");
    bad->fraction_bits[0] = 4;
    bad->fraction_bits[1] = 3;
    EXPECT_EQ(network_check(bad.get(), message, sizeof message), 4);
    EXPECT_STREQ(message, "Bit decimali L4 non corretti! Valore corretto 9\n");

    // The start-up check prints on standard output (sent to stderr here so that the
    // death test can read it) and ends the process with status 1.
    bad->fraction_bits[2] = 5;
    EXPECT_EXIT(
        {
            dup2(2, 1);
            network_image = bad.get();
            network_startup_check();
        },
        ::testing::ExitedWithCode(1), "Bit decimali L3 non corretti! Valore corretto 5");

    // A fitting image is accepted and its matrices become the working copies.
    ImagePtr good = random_image(11, 30, 127, 1000);
    {
        UseImage use(good.get());
        EXPECT_EQ(std::memcmp(hidden1_working, good->hidden1_weights, sizeof hidden1_working), 0);
        EXPECT_EQ(std::memcmp(hidden2_working, good->hidden2_weights, sizeof hidden2_working), 0);
        EXPECT_EQ(std::memcmp(output_working, good->output_weights, sizeof output_working), 0);
    }
    EXPECT_EQ(std::memcmp(hidden1_working, network_image->hidden1_weights, sizeof hidden1_working), 0);

    std::string file = ::testing::TempDir() + "vestra_eval_image_" + std::to_string(getpid());
    const char* path = file.c_str();
    ASSERT_TRUE(network_write_file(path, good.get()));
    ImagePtr back(network_alloc());
    ASSERT_TRUE(network_read_file(path, back.get()));
    EXPECT_EQ(std::memcmp(back.get(), good.get(), NET_IMAGE_SIZE), 0);
    FILE* f = std::fopen(path, "ab");
    std::fputc(0, f);
    std::fclose(f);
    EXPECT_FALSE(network_read_file(path, back.get()));
    std::remove(path);
    EXPECT_FALSE(network_read_file("no/such/file.nnue", back.get()));
}

TEST(Network, VectorAndPlainKernelsAgree) {
#ifndef VESTRA_EVAL_AVX2
    GTEST_SKIP() << "no vector kernels in this build";
#else
    Rng r{0x1234567};
    alignas(64) i16 rows[12][NET_HALF];
    alignas(64) i16 src[NET_HALF], out_vec[NET_HALF], out_plain[NET_HALF];
    for (int trial = 0; trial < 500; ++trial) {
        for (auto& row : rows)
            for (auto& v : row) v = i16(r.next());
        for (auto& v : src) v = i16(r.next());
        const i16* add[6];
        const i16* sub[6];
        int na = r.below(7), ns = r.below(7);
        for (int i = 0; i < na; ++i) add[i] = rows[r.below(12)];
        for (int i = 0; i < ns; ++i) sub[i] = rows[r.below(12)];
        rows_apply_avx2(out_vec, src, add, na, sub, ns);
        rows_apply_scalar(out_plain, src, add, na, sub, ns);
        ASSERT_EQ(std::memcmp(out_vec, out_plain, sizeof out_vec), 0);
    }

    // Weight spans from saturating to fine, so that every clamp is met from both
    // sides and the middle.
    // The spans of 33 and 31 lie on either side of the largest weight (32) with which
    // four groups' products still share a 16-bit sum.
    const int spans[][2] = {{127, 4000}, {33, 3000}, {31, 3000}, {20, 2000}, {3, 300}};
    alignas(64) i16 half0[NET_HALF], half1[NET_HALF];
    for (int s = 0; s < 5; ++s) {
        ImagePtr net = random_image(100 + s, 30, spans[s][0], spans[s][1]);
        UseImage use(net.get());
        std::vector<i32> seen;
        for (int trial = 0; trial < 2000; ++trial) {
            // Sparse and dense inputs, so that hidden sums land inside the clamp
            // window as well as beyond both of its ends.
            int density = 1 << r.below(6);
            for (int i = 0; i < NET_HALF; ++i) {
                half0[i] = r.below(64) < density ? i16(r.range(-20, 280)) : i16(-r.below(100));
                half1[i] = r.below(64) < density ? i16(r.range(-20, 280)) : i16(-r.below(100));
                if (r.below(50) == 0) half0[i] = i16(r.next());
            }
            i32 vec = network_output_avx2(half0, half1), plain = network_output_scalar(half0, half1);
            ASSERT_EQ(vec, plain) << "span " << s << " trial " << trial;
            seen.push_back(plain);
        }
        std::sort(seen.begin(), seen.end());
        EXPECT_GT(std::unique(seen.begin(), seen.end()) - seen.begin(), 500) << "span " << s;
    }

    // The largest products there are: every input at its ceiling against first-matrix
    // weights of one magnitude, 32 (four groups may share a 16-bit sum) and 33 (they
    // may not), of both signs.
    for (int magnitude : {32, 33}) {
        ImagePtr net = random_image(7, 30, 3, 300);
        for (int j = 0; j < NET_HIDDEN1; ++j)
            for (int i = 0; i < NET_INPUTS; ++i) net->hidden1_weights[j][i] = i8(j & 1 ? magnitude : -magnitude);
        UseImage use(net.get());
        for (int i = 0; i < NET_HALF; ++i) half0[i] = half1[i] = 255;
        ASSERT_EQ(network_output_avx2(half0, half1), network_output_scalar(half0, half1)) << magnitude;
    }
    // The same for the second matrix, behind a first layer whose every neuron is at its
    // ceiling.
    for (int magnitude : {32, 33}) {
        ImagePtr net = random_image(8, 30, 3, 300);
        for (auto& row : net->hidden1_weights)
            for (auto& w : row) w = 1;
        for (int j = 0; j < NET_HIDDEN2; ++j)
            for (int i = 0; i < NET_HIDDEN1; ++i) net->hidden2_weights[j][i] = i8(j & 1 ? magnitude : -magnitude);
        UseImage use(net.get());
        for (int i = 0; i < NET_HALF; ++i) half0[i] = half1[i] = 255;
        ASSERT_EQ(network_output_avx2(half0, half1), network_output_scalar(half0, half1)) << magnitude;
    }
#endif
}

TEST(Network, ForwardPassArithmetic) {
    auto t = new_thread();
    kings_only(t.get());
    ImagePtr net(network_alloc());
    // Neuron 0 of half 0 passes straight to the output at 1.0 each step: the score is
    // the input activation of neuron 0, and the sums are the biases alone.
    net->hidden1_weights[0][0] = 8;
    net->hidden2_weights[0][0] = 8;
    net->output_weights[0] = 32;
    const int sums[][2] = {{-1, 0}, {1, 0}, {2, 1}, {3, 1}, {253, 126}, {254, 127}, {300, 127}, {-32768, 0}, {32767, 127}};
    for (auto [sum, input] : sums) {
        net->feature_biases[0] = i16(sum);
        UseImage use(net.get());
        EXPECT_EQ(evaluate(t.get(), 0), input) << "sum " << sum;
        EXPECT_EQ(evaluate_scalar(t.get(), 0), input) << "sum " << sum;
    }
    // Output rounding towards zero, then the limit.
    std::memset(net->output_weights, 0, sizeof net->output_weights);
    const int outputs[][2] = {{-31, 0}, {-32, -1}, {31, 0}, {32, 1}, {-65, -2}, {32 * 40000, 30966}, {-32 * 40000, -30966}};
    for (auto [bias, score] : outputs) {
        net->output_bias = bias;
        UseImage use(net.get());
        EXPECT_EQ(evaluate(t.get(), 0), score) << "output " << bias;
    }
    // A hidden sum of -1 shifts to -1 and clamps to 0; 8 shifts to 1.
    net->output_bias = 0;
    net->output_weights[0] = 32;
    net->feature_biases[0] = 0;
    net->hidden1_biases[0] = -1;
    {
        UseImage use(net.get());
        EXPECT_EQ(evaluate(t.get(), 0), 0);
    }
    net->hidden1_biases[0] = 8 * 8 + 7;  // 71 >> 3 = 8
    {
        UseImage use(net.get());
        EXPECT_EQ(evaluate(t.get(), 0), 8);
    }
}

TEST(Network, CornerBishopsInChess960) {
    auto t = new_thread();
    struct Case {
        int bishop, pawn, third;
        bool own;
        int change_empty, change_blocked;
    } cases[] = {{0, 9, 17, true, -60, -80}, {7, 14, 22, true, -60, -80},
                 {56, 49, 41, false, 60, 80}, {63, 54, 46, false, 60, 80}};
    bool saved = engine_options.chess960;
    for (const Case& c : cases) {
        for (int blocked = 0; blocked < 2; ++blocked) {
            kings_only(t.get());
            put(t.get(), BISHOP, c.bishop, c.own);
            put(t.get(), PAWN, c.pawn, c.own);
            if (blocked) put(t.get(), KNIGHT, c.third, !c.own);  // a man of either side blocks
            engine_options.chess960 = false;
            t->ply_records[0].computed = 0;
            i32 off = evaluate(t.get(), 0);
            engine_options.chess960 = true;
            i32 on = evaluate(t.get(), 0);
            EXPECT_EQ(on - off, blocked ? c.change_blocked : c.change_empty) << c.bishop << " " << blocked;
            // The pawn of the other side does not count.
            t->top->own ^= bit(c.pawn);
            EXPECT_EQ(evaluate(t.get(), 0), evaluate_scalar(t.get(), 0));
            EXPECT_EQ(corner_bishop_term(t->top), 0);
        }
    }
    // All four at once add up.
    kings_only(t.get());
    for (const Case& c : cases) {
        put(t.get(), BISHOP, c.bishop, c.own);
        put(t.get(), PAWN, c.pawn, c.own);
    }
    put(t.get(), ROOK, 17, true);
    EXPECT_EQ(corner_bishop_term(t->top), -80 - 60 + 60 + 60);
    engine_options.chess960 = saved;
}

// Scaling the output layer scales every evaluation, and a factor that would push an
// output weight out of i8 is refused without touching the image.
TEST(Network, ScaledOutput) {
    auto t = new_thread();
    ImagePtr scaled(network_alloc());
    std::memcpy(static_cast<void*>(scaled.get()), network_image, NET_IMAGE_SIZE);
    ASSERT_TRUE(network_scale_output(scaled.get(), 0.6));
    std::ifstream in(VESTRA_TEST_DATA "/openings-unbalanced.epd");
    std::string line;
    double before = 0, after = 0;
    int counted = 0;
    for (int n = 0; n < 1000 && std::getline(in, line); ++n) {
        set_position(t.get(), (line + " 0 1").c_str(), "");
        t->ply_records[0].computed = 0;
        const i32 e = evaluate(t.get(), 0);
        UseImage use(scaled.get());
        t->ply_records[0].computed = 0;
        const i32 s = evaluate(t.get(), 0);
        if (std::abs(e) < 60) continue;  // too small for the rounding to stay negligible
        before += std::abs(e);
        after += e < 0 ? -s : s;
        ++counted;
    }
    ASSERT_GT(counted, 50);
    EXPECT_NEAR(after / before, 0.6, 0.03);  // 0.61 for nets 17 and 18

    ImagePtr copy(network_alloc());
    std::memcpy(static_cast<void*>(copy.get()), scaled.get(), NET_IMAGE_SIZE);
    scaled->output_weights[3] = 100;
    copy->output_weights[3] = 100;
    EXPECT_FALSE(network_scale_output(scaled.get(), 1.3));
    EXPECT_EQ(std::memcmp(copy.get(), scaled.get(), NET_IMAGE_SIZE), 0);
    EXPECT_TRUE(network_scale_output(scaled.get(), 1.27));
    EXPECT_EQ(scaled->output_weights[3], 127);

    // Halves are ties, and they go to even, so a documented factor remakes the image
    // that was matched byte for byte.
    scaled->output_weights[0] = 5;
    scaled->output_weights[1] = -7;
    scaled->output_weights[2] = 3;
    scaled->output_bias = 9;
    ASSERT_TRUE(network_scale_output(scaled.get(), 0.5));
    EXPECT_EQ(scaled->output_weights[0], 2);
    EXPECT_EQ(scaled->output_weights[1], -4);
    EXPECT_EQ(scaled->output_weights[2], 2);
    EXPECT_EQ(scaled->output_bias, 4);
}
