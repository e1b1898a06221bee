// Finds the sliding-attack multipliers compiled into board/tables.cpp: a fixed-seed
// search over sparse random numbers, at the plain shifts 64 - bits(mask). Prints the
// two tables as C++ initialisers.
#include <cstdint>
#include <cstdio>
#include <vector>

using u64 = uint64_t;

static u64 state = 0x5a17c0ffee123457ULL;
static u64 next_random() {
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545f4914f6cdd1dULL;
}

// Rays from sq; `mask` leaves out the edge square of each ray and ignores occ.
static u64 rays(int sq, u64 occ, bool bishop, bool mask) {
    static const int diag[4][2] = {{1, 1}, {1, -1}, {-1, 1}, {-1, -1}};
    static const int line[4][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}};
    const int(*d)[2] = bishop ? diag : line;
    u64 r = 0;
    for (int i = 0; i < 4; ++i) {
        int f = (sq & 7) + d[i][0], k = (sq >> 3) + d[i][1];
        while (f >= 0 && f < 8 && k >= 0 && k < 8) {
            int nf = f + d[i][0], nk = k + d[i][1];
            if (mask && !(nf >= 0 && nf < 8 && nk >= 0 && nk < 8)) break;
            r |= 1ULL << (k * 8 + f);
            if (!mask && ((occ >> (k * 8 + f)) & 1)) break;
            f = nf;
            k = nk;
        }
    }
    return r;
}

int main() {
    for (int bishop = 1; bishop >= 0; --bishop) {
        std::printf("static const u64 %s_magic_numbers[64] = {\n", bishop ? "bishop" : "rook");
        for (int sq = 0; sq < 64; ++sq) {
            const u64 mask = rays(sq, 0, bishop, true);
            const int n = __builtin_popcountll(mask);
            std::vector<u64> occ(size_t(1) << n), att(size_t(1) << n), used(size_t(1) << n);
            std::vector<int> epoch_of(size_t(1) << n, 0);
            for (size_t i = 0; i < occ.size(); ++i) {
                u64 o = 0, m = mask;
                for (int j = 0; j < n; ++j) {
                    int s = __builtin_ctzll(m);
                    m &= m - 1;
                    if ((i >> j) & 1) o |= 1ULL << s;
                }
                occ[i] = o;
                att[i] = rays(sq, o, bishop, false);
            }
            for (int epoch = 1;; ++epoch) {
                const u64 magic = next_random() & next_random() & next_random();
                if (__builtin_popcountll((mask * magic) >> 56) < 6) {
                    --epoch;
                    continue;
                }
                bool ok = true;
                for (size_t i = 0; i < occ.size() && ok; ++i) {
                    const u64 idx = (occ[i] * magic) >> (64 - n);
                    if (epoch_of[idx] != epoch) {
                        epoch_of[idx] = epoch;
                        used[idx] = att[i];
                    } else if (used[idx] != att[i]) {
                        ok = false;
                    }
                }
                if (ok) {
                    std::printf("%s0x%016llxULL,%s", sq % 4 ? " " : "    ", (unsigned long long)magic,
                                sq % 4 == 3 ? "\n" : "");
                    break;
                }
            }
        }
        std::printf("};\n");
    }
}
