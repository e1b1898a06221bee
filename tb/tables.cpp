// Index arithmetic tables: binomials, pawn placement counts and the square numberings
// that remove the board's symmetries. All are built once at start-up from their rules.
#include "tb/tb.h"

u64 binomial[7][64];
u64 pawn_index[6][24];
u64 pawn_factor[6][4];
u8 file_fold[8];
u8 diagonal_flip[64];
u8 pawn_order[64];
u8 pawn_slot[64];
u8 king_triangle[64];
u8 off_diagonal_index[64];
i16 two_king_index[10][64];

static int fold(int x) { return x < 7 - x ? x : 7 - x; }

// Squares of the triangle a1-d1-d4 in the order of their numbers.
static const int triangle_squares[10] = {1, 2, 3, 10, 11, 19, 0, 9, 18, 27};

static void build_constant_tables() {
    for (int f = 0; f < 8; ++f) file_fold[f] = u8(fold(f));
    for (int sq = 0; sq < 64; ++sq) {
        int f = sq & 7, r = sq >> 3;
        diagonal_flip[sq] = u8(f * 8 + r);
        bool pawn_rank = r >= 1 && r <= 6;
        pawn_order[sq] = pawn_rank ? u8(12 * (3 - fold(f)) + 2 * (6 - r) + (f < 4 ? 1 : 0)) : 0;
        pawn_slot[sq] = pawn_rank ? u8(6 * fold(f) + r - 1) : 0;

        int tf = f > 3 ? 7 - f : f;
        int tr = r > 3 ? 7 - r : r;
        if (tr > tf) {
            int t = tf;
            tf = tr;
            tr = t;
        }
        int folded = tr * 8 + tf;
        for (int i = 0; i < 10; ++i)
            if (triangle_squares[i] == folded) king_triangle[sq] = u8(i);

        off_diagonal_index[sq] = 0;
        if (f != r) {
            int lo = f < r ? f : r, hi = f < r ? r : f, n = 0;
            for (int a = 0; a < 8; ++a)
                for (int b = a + 1; b < 8; ++b, ++n)
                    if (a == lo && b == hi) off_diagonal_index[sq] = u8(n);
        }
    }

    // Pairs of kings: first king in the triangle, second anywhere not touching it; a
    // first king on the diagonal takes the second off the diagonal on one side only,
    // and the pairs with both kings on the diagonal are numbered last.
    auto touches = [](int a, int b) {
        int df = (a & 7) - (b & 7), dr = (a >> 3) - (b >> 3);
        return df >= -1 && df <= 1 && dr >= -1 && dr <= 1;
    };
    int number = 0;
    for (int row = 0; row < 10; ++row) {
        int k = triangle_squares[row];
        for (int s = 0; s < 64; ++s) {
            two_king_index[row][s] = -1;
            if (touches(k, s)) continue;
            if (row >= 6 && !((s & 7) > (s >> 3))) continue;
            two_king_index[row][s] = i16(number++);
        }
    }
    for (int row = 6; row < 10; ++row) {
        int k = triangle_squares[row];
        for (int s = 0; s < 64; ++s)
            if ((s & 7) == (s >> 3) && !touches(k, s)) two_king_index[row][s] = i16(number++);
    }
}

void tb_init_index_tables() {
    for (int k = 0; k < 7; ++k)
        for (int n = 0; n < 64; ++n) {
            if (k == 0)
                binomial[k][n] = 1;
            else if (n < k)
                binomial[k][n] = 0;
            else
                binomial[k][n] = (n == 0 ? 0 : binomial[k - 1][n - 1] + binomial[k][n - 1]);
        }
    build_constant_tables();
    for (int t = 0; t < 6; ++t)
        for (int fl = 0; fl < 4; ++fl) {
            u64 sum = 0;
            for (int j = 0; j < 6; ++j) {
                pawn_index[t][6 * fl + j] = sum;
                sum += binomial[t][pawn_order[(j + 1) * 8 + fl]];
            }
            pawn_factor[t][fl] = sum;
        }
}
