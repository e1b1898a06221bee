#include "eval/network.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "board/platform.h"

extern "C" const unsigned char vestra_network_image[], vestra_network_image_end[];

const NetworkImage* network_image = reinterpret_cast<const NetworkImage*>(vestra_network_image);

alignas(64) i8 hidden1_working[NET_HIDDEN1][NET_INPUTS];
alignas(64) i8 hidden2_working[NET_HIDDEN2][NET_HIDDEN1];
alignas(64) i8 output_working[NET_HIDDEN2];
u32 network_generation = 0;
const i16* working_rows = nullptr;

// One block for the life of the process, in large pages where the system gives them.
static i16* working_rows_block() {
    constexpr u64 size = u64(NET_FEATURES + 2) * NET_HALF * sizeof(i16);
    static i16* block = nullptr;
    if (!block) {
        i64 mapped = 0;
        void* p = large_pages_alloc(size, &mapped);
        if (!p) p = aligned_block_alloc(size);
        if (!p) {
            std::fputs("info string out of memory for the network\n", stdout);
            std::fflush(stdout);
            std::exit(1);
        }
        block = static_cast<i16*>(p);
    }
    return block;
}

alignas(64) i8 hidden1_by_group[NET_INPUTS / 4][NET_HIDDEN1][4];
int hidden1_groups_per_lane = 1;
alignas(64) i8 hidden2_by_group[NET_HIDDEN1 / 4][NET_HIDDEN2][4];
int hidden2_groups_per_lane = 1;

// Groups of four inputs whose pairwise products (inputs below 128) may be added in one
// 16-bit lane, for a matrix whose largest weight magnitude is `largest`; 1 to 4.
static int groups_per_lane(int largest) { return std::clamp(32767 / (2 * 127 * std::max(largest, 1)), 1, 4); }

int network_check(const NetworkImage* image, char* message, size_t size) {
    for (int layer = 0; layer < 4; ++layer) {
        i32 found = image->fraction_bits[layer];
        if (found != NET_FRACTION_BITS[layer]) {
            std::snprintf(message, size, "Bit decimali L%d non corretti! Valore corretto %d\n", layer + 1, int(found));
            return layer + 1;
        }
    }
    if (size) message[0] = 0;
    return 0;
}

void network_startup_check() {
    ++network_generation;
    std::memcpy(hidden1_working, network_image->hidden1_weights, sizeof hidden1_working);
    std::memcpy(hidden2_working, network_image->hidden2_weights, sizeof hidden2_working);
    std::memcpy(output_working, network_image->output_weights, sizeof output_working);
    i16* rows = working_rows_block();
    for (int row = 0; row < NET_FEATURES + 2; ++row)
        std::memcpy(rows + size_t(working_row_number(row)) * NET_HALF, network_row(network_image, row),
                    NET_HALF * sizeof(i16));
    working_rows = rows;
    for (int i = 0; i < NET_INPUTS; ++i)
        for (int j = 0; j < NET_HIDDEN1; ++j) hidden1_by_group[i / 4][j][i % 4] = hidden1_working[j][i];
    for (int i = 0; i < NET_HIDDEN1; ++i)
        for (int j = 0; j < NET_HIDDEN2; ++j) hidden2_by_group[i / 4][j][i % 4] = hidden2_working[j][i];
    int largest = 0;
    for (const auto& row : hidden1_working)
        for (i8 w : row) largest = std::max(largest, w < 0 ? -int(w) : int(w));
    hidden1_groups_per_lane = groups_per_lane(largest);
    largest = 0;
    for (const auto& row : hidden2_working)
        for (i8 w : row) largest = std::max(largest, w < 0 ? -int(w) : int(w));
    hidden2_groups_per_lane = groups_per_lane(largest);
    char message[96];
    if (network_check(network_image, message, sizeof message)) {
        std::fputs(message, stdout);
        std::fflush(stdout);
        std::exit(1);
    }
}

NetworkImage* network_alloc() {
    void* block = aligned_block_alloc(sizeof(NetworkImage));
    if (!block) return nullptr;
    std::memset(block, 0, sizeof(NetworkImage));
    NetworkImage* image = static_cast<NetworkImage*>(block);
    for (int layer = 0; layer < 4; ++layer) image->fraction_bits[layer] = NET_FRACTION_BITS[layer];
    image->trailer_one = 1;
    image->trailer_offset = i32(NET_OFF_TRAILER_ONE);
    return image;
}

void network_free(NetworkImage* image) { aligned_block_free(image); }

bool network_read_file(const char* path, NetworkImage* image) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    size_t got = std::fread(image, 1, sizeof(NetworkImage), f);
    bool exact = got == sizeof(NetworkImage) && std::fgetc(f) == EOF;
    std::fclose(f);
    return exact;
}

bool network_write_file(const char* path, const NetworkImage* image) {
    FILE* f = std::fopen(path, "wb");
    if (!f) return false;
    bool ok = std::fwrite(image, 1, sizeof(NetworkImage), f) == sizeof(NetworkImage);
    ok = (std::fclose(f) == 0) && ok;
    return ok;
}

bool network_scale_output(NetworkImage* image, double factor) {
    // Ties go to even (the default rounding mode): the scaled images already matched
    // were made that way, and halving odd weights is all ties.
    i8 scaled[NET_HIDDEN2];
    for (int i = 0; i < NET_HIDDEN2; ++i) {
        const double w = std::nearbyint(double(image->output_weights[i]) * factor);
        if (!(w >= -128 && w <= 127)) return false;
        scaled[i] = i8(w);
    }
    const double bias = std::nearbyint(double(image->output_bias) * factor);
    if (!(std::fabs(bias) < 2147483647.0)) return false;
    std::memcpy(image->output_weights, scaled, sizeof scaled);
    image->output_bias = i32(bias);
    return true;
}
