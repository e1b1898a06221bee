// vestra-makenet OUTPUT: writes the hand-made first network, a material and
// piece-square model expressed in the network's shape (see tools/NETWORK.md).
//
// Units: the score is in internal units, 160 to a pawn. Each input neuron of a half
// carries a value from the half owner's point of view; the small layers pass chosen
// neurons through unchanged (weight 8 = 1.0 at three fractional bits) and the output
// takes (half 0) - (half 1), which makes the score exactly antisymmetric.
//
//   neurons 0..13  material: the owner's material and squares minus the enemy's, at
//                  half value (both halves count it), plus king terms of the owner at
//                  full value. Staggered biases tile the clamp windows, so together
//                  they are linear over -1778..1778 sum units (+-3556 in score).
//   neuron 14      endgame: pawns near the owner's king, switched off by pieces.
//   neuron 15      bare king: a penalty for the owner's lone king near the edge.
//   neurons 16..   unused (zero).
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include "eval/network.h"

namespace {

constexpr int MATERIAL_NEURONS = 14;
constexpr int WINDOW = 254;  // sum units one neuron covers before it saturates at 127
constexpr int ENDGAME = 14;
constexpr int BARE_KING = 15;

// Piece values, PAWN..QUEEN.
constexpr int VALUE[6] = {0, 160, 490, 510, 800, 1520};

int file_of(int s) { return s & 7; }
int rank_of(int s) { return s >> 3; }
int edge_distance(int s) {  // 0 on the rim, 3 in the centre, for file and rank added
    int f = file_of(s), r = rank_of(s);
    return (f < 7 - f ? f : 7 - f) + (r < 7 - r ? r : 7 - r);
}
int king_distance(int a, int b) {
    int df = std::abs(file_of(a) - file_of(b)), dr = std::abs(rank_of(a) - rank_of(b));
    return df > dr ? df : dr;
}

// Square bonus of a man in its owner's frame; every value even, so the half values
// stay whole.
int square_bonus(int piece, int s) {
    int f = file_of(s), r = rank_of(s), c = edge_distance(s);
    switch (piece) {
    case 1: {
        static const int advance[8] = {0, 0, 6, 12, 22, 40, 70, 0};
        static const int centre[8] = {-4, 0, 4, 10, 10, 4, 0, -4};
        int v = advance[r];
        if (r >= 2 && r <= 4) v += centre[f];
        if (r == 1 && (f == 3 || f == 4)) v -= 10;
        return v;
    }
    case 2: return 8 * c - 24;
    case 3: return 4 * c - 12;
    case 4: return r == 6 ? 20 : 0;
    case 5: return 2 * c - 6;
    }
    return 0;
}

// King terms of the owner's own men, at full value. Every own piece carries a share of
// the king's square value, so it weighs most while the pieces are on the board; own
// pawns in front of a king on its first two ranks count as a shelter.
int king_term(int piece, int s, int k) {
    int kf = file_of(k), kr = rank_of(k);
    if (piece == 1) {
        if (kr > 1 || std::abs(file_of(s) - kf) > 1) return 0;
        int ahead = rank_of(s) - kr;
        return ahead == 1 ? 10 : ahead == 2 ? 5 : 0;
    }
    static const int first_rank[8] = {4, 6, 4, 0, -2, 0, 6, 4};
    if (kr == 0) return first_rank[kf];
    return kr == 1 ? -6 : kr == 2 ? -14 : -20;
}

// Weight of a man against the phase: pieces switch the endgame neuron off.
constexpr int PHASE[6] = {0, 0, 30, 30, 45, 90};

void build(NetworkImage* net) {
    for (int n = 0; n < MATERIAL_NEURONS; ++n) net->feature_biases[n] = i16(MATERIAL_NEURONS / 2 * WINDOW - WINDOW * n);

    for (int plane = 0; plane < 10; ++plane) {
        bool own = plane < 5;
        int piece = own ? plane + 1 : plane - 4;
        for (int s = 0; s < 64; ++s) {
            for (int k = 0; k < 64; ++k) {
                i16* row = network_row(net, feature_row(plane, s, k));
                int material;
                if (own)
                    material = (VALUE[piece] + square_bonus(piece, s)) / 2 + king_term(piece, s, k);
                else
                    material = -(VALUE[piece] + square_bonus(piece, s ^ 56)) / 2;
                for (int n = 0; n < MATERIAL_NEURONS; ++n) row[n] = i16(material);

                row[ENDGAME] = i16(piece == 1 ? 3 * std::max(0, 4 - king_distance(s, k)) : -PHASE[piece]);

                if (own)
                    row[BARE_KING] = -1000;
                else if (piece != 1)
                    row[BARE_KING] = i16(8 * (6 - edge_distance(k)));
            }
        }
    }
    // Castling rights still held.
    for (int n = 0; n < MATERIAL_NEURONS; ++n) {
        network_row(net, NET_CASTLING_ROW)[n] = 10;
        network_row(net, NET_CASTLING_ROW + 1)[n] = 6;
    }

    // Both halves' first sixteen neurons pass through the two hidden layers unchanged.
    for (int j = 0; j < 16; ++j) {
        net->hidden1_weights[j][j] = 8;
        net->hidden1_weights[16 + j][NET_HALF + j] = 8;
    }
    for (int j = 0; j < 32; ++j) net->hidden2_weights[j][j] = 8;
    // Output: 64 * h2 / 32 = twice the activation, which restores the halving of the
    // input layer. The bare-king neuron counts against its owner.
    for (int j = 0; j < 16; ++j) {
        int sign = j == BARE_KING ? -1 : 1;
        net->output_weights[j] = i8(64 * sign);
        net->output_weights[16 + j] = i8(-64 * sign);
    }
    net->output_bias = 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: vestra-makenet OUTPUT\n");
        return 2;
    }
    NetworkImage* net = network_alloc();
    if (!net) {
        std::fprintf(stderr, "out of memory\n");
        return 1;
    }
    build(net);
    if (!network_write_file(argv[1], net)) {
        std::fprintf(stderr, "cannot write %s\n", argv[1]);
        network_free(net);
        return 1;
    }
    network_free(net);
    return 0;
}
