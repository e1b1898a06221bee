// The network image: one flat little-endian block of 20,990,976 bytes holding every
// weight of the 2 x 256, 32, 32, 1 network. The engine reads it in place, but for
// working copies that the start-up check makes of the parts it reads most; tools
// (statistics, the network maker, later the trainer) build and inspect images
// through the same record and helpers, so the layout exists exactly once.
#pragma once
#include <cstddef>
#include "board/bitops.h"

constexpr int NET_FEATURES = 40960;        // piece rows: plane * 4096 + square * 64 + king
constexpr int NET_CASTLING_ROW = 40960;    // own king-side right; 40961 own queen-side
constexpr int NET_HALF = 256;              // sums per side
constexpr int NET_INPUTS = 512;            // both halves, side to move first
constexpr int NET_HIDDEN1 = 32;
constexpr int NET_HIDDEN2 = 32;

// Byte offsets of the sections.
constexpr size_t NET_OFF_FEATURE_WEIGHTS = 0x0000000;
constexpr size_t NET_OFF_CASTLING_WEIGHTS = 0x1400000;
constexpr size_t NET_OFF_FEATURE_BIASES = 0x1400400;
constexpr size_t NET_OFF_HIDDEN1_WEIGHTS = 0x1400600;
constexpr size_t NET_OFF_HIDDEN1_BIASES = 0x1404600;
constexpr size_t NET_OFF_HIDDEN2_WEIGHTS = 0x1404680;
constexpr size_t NET_OFF_HIDDEN2_BIASES = 0x1404a80;
constexpr size_t NET_OFF_OUTPUT_WEIGHTS = 0x1404b00;
constexpr size_t NET_OFF_OUTPUT_BIAS = 0x1404b40;
constexpr size_t NET_OFF_FRACTION_BITS = 0x1404b44;
constexpr size_t NET_OFF_TRAILER_ONE = 0x1404b80;
constexpr size_t NET_OFF_TRAILER_OFFSET = 0x1404bc0;
constexpr size_t NET_IMAGE_SIZE = 0x1404c00;  // 20,990,976

// Fractional bits the arithmetic of the forward pass is built for, layer by layer.
constexpr i32 NET_FRACTION_BITS[4] = {4, 3, 3, 2};

struct alignas(64) NetworkImage {
    i16 feature_weights[NET_FEATURES][NET_HALF];
    i16 castling_weights[2][NET_HALF];
    i16 feature_biases[NET_HALF];
    i8 hidden1_weights[NET_HIDDEN1][NET_INPUTS];  // [output][input]
    i32 hidden1_biases[NET_HIDDEN1];
    i8 hidden2_weights[NET_HIDDEN2][NET_HIDDEN1];
    i32 hidden2_biases[NET_HIDDEN2];
    i8 output_weights[NET_HIDDEN2];
    u8 zero0[32];
    i32 output_bias;
    i32 fraction_bits[4];
    u8 zero1[44];
    i32 trailer_one;     // 1; not read by the engine
    u8 zero2[60];
    i32 trailer_offset;  // offset of trailer_one; not read by the engine
    u8 zero3[60];
};

static_assert(sizeof(NetworkImage) == NET_IMAGE_SIZE);
static_assert(offsetof(NetworkImage, feature_weights) == NET_OFF_FEATURE_WEIGHTS);
static_assert(offsetof(NetworkImage, castling_weights) == NET_OFF_CASTLING_WEIGHTS);
static_assert(offsetof(NetworkImage, feature_biases) == NET_OFF_FEATURE_BIASES);
static_assert(offsetof(NetworkImage, hidden1_weights) == NET_OFF_HIDDEN1_WEIGHTS);
static_assert(offsetof(NetworkImage, hidden1_biases) == NET_OFF_HIDDEN1_BIASES);
static_assert(offsetof(NetworkImage, hidden2_weights) == NET_OFF_HIDDEN2_WEIGHTS);
static_assert(offsetof(NetworkImage, hidden2_biases) == NET_OFF_HIDDEN2_BIASES);
static_assert(offsetof(NetworkImage, output_weights) == NET_OFF_OUTPUT_WEIGHTS);
static_assert(offsetof(NetworkImage, output_bias) == NET_OFF_OUTPUT_BIAS);
static_assert(offsetof(NetworkImage, fraction_bits) == NET_OFF_FRACTION_BITS);
static_assert(offsetof(NetworkImage, trailer_one) == NET_OFF_TRAILER_ONE);
static_assert(offsetof(NetworkImage, trailer_offset) == NET_OFF_TRAILER_OFFSET);

// The row of a feature (0..40961): the castling rows follow the piece rows directly.
inline const i16* network_row(const NetworkImage* image, int row) {
    return &image->feature_weights[0][0] + size_t(row) * NET_HALF;
}
inline i16* network_row(NetworkImage* image, int row) {
    return &image->feature_weights[0][0] + size_t(row) * NET_HALF;
}
// Row of a man seen by its owner: plane 0..4 the owner's P..Q, 5..9 the enemy's;
// square and king square in the owner's frame.
constexpr int feature_row(int plane, int square, int king) { return plane * 4096 + square * 64 + king; }

// The piece and castling rows again, for the accumulators, with the king square as the
// high field: row (k * 640 + plane * 64 + square), the two castling rows after the
// 40,960. The image keeps the king square in the low field, which puts the 640 rows of
// one king 32 KB apart, where they compete for a few sets of every cache; here they fill
// 320 KB of their own. Refreshed by the start-up check.
extern const i16* working_rows;
inline int working_row_number(int row) { return row < NET_FEATURES ? (row & 63) * 640 + (row >> 6) : row; }
inline const i16* working_row(int row) { return working_rows + size_t(working_row_number(row)) * NET_HALF; }

// The image compiled into the program. Only tools point it elsewhere (before the
// start-up check); the engine never changes it.
extern const NetworkImage* network_image;

// Working copies of the three small matrices, refreshed by the start-up check.
extern i8 hidden1_working[NET_HIDDEN1][NET_INPUTS];
extern i8 hidden2_working[NET_HIDDEN2][NET_HIDDEN1];
extern i8 output_working[NET_HIDDEN2];
// The first matrix again, by groups of four inputs: [i / 4][j][i % 4] holds
// hidden1_working[j][i]. One 32-bit broadcast of four inputs then meets the weights of
// all 32 neurons in four vectors, and a group of four zero inputs can be passed over.
extern i8 hidden1_by_group[NET_INPUTS / 4][NET_HIDDEN1][4];
// How many groups' pairwise products (each within 2 * 127 * the largest weight of the
// first matrix) may be added in one 16-bit lane without leaving its range: 1 to 4.
extern int hidden1_groups_per_lane;
// The second matrix by groups of four inputs likewise, and its own count of groups
// that may share a 16-bit lane.
extern i8 hidden2_by_group[NET_HIDDEN1 / 4][NET_HIDDEN2][4];
extern int hidden2_groups_per_lane;

// Counts the calls of network_startup_check, so that what is derived from an image can
// tell a new image at an old address.
extern u32 network_generation;

// Checks that an image was quantised for this engine's shifts. Returns 0 when it
// fits; otherwise the number (1..4) of the first layer whose fractional bits differ,
// with the message for it written to `message` (room for 96 bytes).
int network_check(const NetworkImage* image, char* message, size_t size);
// Copies the working matrices from `network_image` and checks it; a misfit prints the
// message on standard output and ends the process with status 1.
void network_startup_check();

// Image files for tools. A new image is zero apart from the fraction bits and the two
// trailer words; freed with network_free.
NetworkImage* network_alloc();
void network_free(NetworkImage* image);
// Reads a file of exactly NET_IMAGE_SIZE bytes; false if it cannot be read or its size
// differs.
bool network_read_file(const char* path, NetworkImage* image);
bool network_write_file(const char* path, const NetworkImage* image);
// Multiplies the output weights and bias by `factor`, each to nearest (ties to even),
// so that every evaluation is about `factor` times what it was: the search's margins
// are fixed numbers, and the scale of a trained net is otherwise only what it
// inherited. False, with the image untouched, if a weight would leave the i8 range.
bool network_scale_output(NetworkImage* image, double factor);
