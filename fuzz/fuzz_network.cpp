// The network-image check on arbitrary bytes: the input overwrites the image from the
// small layers to its end (the part the check and the forward pass read besides the
// feature rows). An image that passes the check must evaluate without undefined
// arithmetic, within the score limit, and alike in the vector and the plain code.
#include "eval/kernels.h"
#include "eval/network.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz_engine_startup();
    static NetworkImage* image = [] {
        NetworkImage* n = network_alloc();
        FUZZ_CHECK(n != nullptr);
        std::memcpy(n, network_image, sizeof(NetworkImage));
        return n;
    }();
    static const NetworkImage* original = network_image;
    static const size_t tail = NET_IMAGE_SIZE - NET_OFF_FEATURE_BIASES;
    u8* bytes = reinterpret_cast<u8*>(image) + NET_OFF_FEATURE_BIASES;
    std::memset(bytes, 0, tail);
    std::memcpy(bytes, data, size < tail ? size : tail);

    char message[96];
    int layer = network_check(image, message, sizeof message);
    FUZZ_CHECK(layer >= 0 && layer <= 4);
    FUZZ_CHECK(std::strlen(message) < sizeof message);
    if (layer != 0) {
        FUZZ_CHECK(std::strncmp(message, "Bit decimali L", 14) == 0);
        return 0;
    }
    FUZZ_CHECK(message[0] == 0);

    network_image = image;
    network_startup_check();
    SearchThread* t = fuzz_thread();
    static const char* const fens[] = {
        "rnbqkbnr/pppppppp/8/8/8/8/PPPPPPPP/RNBQKBNR w KQkq - 0 1",
        "r3k2r/p1ppqpb1/bn2pnp1/3PN3/1p2P3/2N2Q1p/PPPBBPPP/R3K2R b KQkq - 0 1",
        "8/8/4k3/8/8/3K4/8/8 w - - 0 1",
    };
    for (const char* fen : fens) {
        set_position(t, fen, nullptr);
        t->ply_records[0].computed = 0;
        i32 fast = evaluate(t, 0);
        t->ply_records[0].computed = 0;
        i32 plain = evaluate_scalar(t, 0);
        FUZZ_CHECK(fast == plain);
        FUZZ_CHECK(fast >= -30966 && fast <= 30966);
    }
    network_image = original;
    network_startup_check();
    return 0;
}
