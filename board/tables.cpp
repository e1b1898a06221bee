// Constant tables: hash keys, sliding attacks, leaper attacks and square geometry.
#include <cstdlib>
#include "board/board_internal.h"
#include "board/rng.h"

MagicEntry bishop_magics[64];
MagicEntry rook_magics[64];
u64 knight_attack_table[64];
u64 king_attack_table[64];
u64 ep_capturers_rank5[8];
u64 ep_capturers_rank4[8];
u64 between_table[64][64];
u32 direction_table[64][64];
u64 ray_table[64][64];
u64 zobrist[1037];
const i32 piece_value[8] = {0, 100, 300, 300, 500, 1000, 2000, 0};

u64 castle_empty[2][8][8];
u64 castle_test[2][8];
u64 castle_far[2][8];

static u64 bishop_table[5248];
static u64 rook_table[102400];

// Multipliers found once by a fixed-seed search (tools/vestra-magics.cpp) for the
// plain shifts 64 - bits(mask): any collision-free set will do.
static const u64 bishop_magic_numbers[64] = {
    0x2024448082040102ULL, 0x802510088d090308ULL, 0x4008480100280040ULL, 0x0104040088200000ULL,
    0x050202101400408aULL, 0x2032081a49008081ULL, 0x002200b008080810ULL, 0x0500808800900402ULL,
    0x0824a0f401920400ULL, 0x0000020862040040ULL, 0x0040214a008200c0ULL, 0x2015082080210200ULL,
    0x0001640420001000ULL, 0x0000810460040000ULL, 0x024800a401084004ULL, 0x0600d0410c882000ULL,
    0x0010000802088800ULL, 0x0008000210010208ULL, 0x0058001002262020ULL, 0x002420080200a008ULL,
    0x014500409040012aULL, 0x0080800100a00144ULL, 0x0000520401045002ULL, 0x081048410100b000ULL,
    0x01a0104088020818ULL, 0x400aa00050810600ULL, 0x0208040228005010ULL, 0x0808848208020040ULL,
    0x0801010003104000ULL, 0x0580828028080c00ULL, 0x0104410000480210ULL, 0x0100848002004450ULL,
    0x2401044004a00808ULL, 0x05080818188b0240ULL, 0x0004040600050a00ULL, 0x0002020080180080ULL,
    0x9040084100001100ULL, 0x01a0081044008040ULL, 0x4301020210209800ULL, 0x80b4a48100020303ULL,
    0x0001042020010404ULL, 0x10020262200c0201ULL, 0x2000110808000100ULL, 0x1800010148001101ULL,
    0x0000409009020881ULL, 0x04a0011000804508ULL, 0x8121020400403111ULL, 0x0428880040400082ULL,
    0x0001041002080d04ULL, 0x0041004144201501ULL, 0x0000090421040c01ULL, 0x100006004202001dULL,
    0x0000012891240408ULL, 0x400c641082860409ULL, 0x8c10442808004c00ULL, 0x2102020212021080ULL,
    0x0200210410010800ULL, 0x0400002401082840ULL, 0x8010400044240408ULL, 0x000c3aa480aa0802ULL,
    0x8408004020214504ULL, 0x0444104004482080ULL, 0x4a0108020c681602ULL, 0x0004915204090200ULL,
};
static const u64 rook_magic_numbers[64] = {
    0x108000801040002aULL, 0x1040002000401000ULL, 0x0080100020008009ULL, 0x0100210004081000ULL,
    0xc300040210080100ULL, 0x0200040108100200ULL, 0x8880020000800100ULL, 0x4500004080210002ULL,
    0x0000800080384006ULL, 0x2002804000a00281ULL, 0x0208802000801000ULL, 0x4011804801801002ULL,
    0x8000808004000800ULL, 0x4020800401020080ULL, 0x9048800100020080ULL, 0x0041000220984100ULL,
    0x018000c001200048ULL, 0x0800908020004000ULL, 0x2620010021001040ULL, 0x4800808010000803ULL,
    0x000c450011000801ULL, 0x4000808002000400ULL, 0x2983008080020001ULL, 0x8230020024008041ULL,
    0x208020808000400cULL, 0x0000400100210080ULL, 0x0020080040100040ULL, 0x0001042100100008ULL,
    0x0000080080800400ULL, 0x0502010200041008ULL, 0x401148140006100bULL, 0x090400820020411cULL,
    0x8000804000800024ULL, 0x0480210082004202ULL, 0x00a1100184802000ULL, 0x0008090421001000ULL,
    0x0200800401802800ULL, 0x0101000803000400ULL, 0x1000810884001002ULL, 0x4000140042000081ULL,
    0x4000802040008000ULL, 0x0180201000404000ULL, 0x0000200011010040ULL, 0x0240080010008080ULL,
    0x002200a0040a0010ULL, 0x1804000201004040ULL, 0x0000088102440010ULL, 0x8201040080420021ULL,
    0x0000510222800300ULL, 0x0800401000200240ULL, 0x8400144182a20200ULL, 0x2000080010008080ULL,
    0x0440080004008080ULL, 0x0022000400802280ULL, 0x2000900102080400ULL, 0x00024100448c0600ULL,
    0x0004514106208001ULL, 0x0401004020108202ULL, 0x1200100a00402082ULL, 0x800a0008c0102006ULL,
    0xc042002004081002ULL, 0x1207001400480211ULL, 0x1cb8100100820804ULL, 0x2000040249008622ULL,
};

// Ray walk from `sq` in the given steps; stops on and includes the first man of occ.
// With `relevant`, the last square of each ray is left out (the occupancy mask).
static u64 slide(int sq, u64 occ, const int (*steps)[2], bool relevant) {
    u64 r = 0;
    for (int i = 0; i < 4; ++i) {
        int f = (sq & 7) + steps[i][0], k = (sq >> 3) + steps[i][1];
        while (f >= 0 && f < 8 && k >= 0 && k < 8) {
            int nf = f + steps[i][0], nk = k + steps[i][1];
            if (relevant && !(nf >= 0 && nf < 8 && nk >= 0 && nk < 8)) break;
            r |= bit(k * 8 + f);
            if (!relevant && (occ & bit(k * 8 + f))) break;
            f = nf;
            k = nk;
        }
    }
    return r;
}

static const int bishop_steps[4][2] = {{1, 1}, {-1, -1}, {-1, 1}, {1, -1}};
static const int rook_steps[4][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}};

static void init_magic(MagicEntry& e, int sq, u64 magic, const int (*steps)[2], u64*& next) {
    e.mask = slide(sq, 0, steps, true);
    e.magic = magic;
    int n = popcount(e.mask);
    e.shift = u64(64 - n);
    e.attacks = next;
    next += u64(1) << n;
    for (u64 i = 0; i < (u64(1) << n); ++i) {
        // bit j of i chooses the j-th lowest bit of the mask
        u64 occ = 0, m = e.mask;
        for (int j = 0; j < n; ++j) {
            int s = pop_lsb(m);
            if ((i >> j) & 1) occ |= bit(s);
        }
        e.attacks[(occ * e.magic) >> e.shift] = slide(sq, occ, steps, false);
    }
}

// Squares of rank 1 from a to b, both ends included.
static u64 rank1_span(int a, int b) {
    u64 r = 0;
    for (int f = (a < b ? a : b); f <= (a < b ? b : a); ++f) r |= bit(f);
    return r;
}

static void init_castle_tables() {
    for (int side = 0; side < 2; ++side) {
        int kdest = side == 0 ? 6 : 2, rdest = side == 0 ? 5 : 3;
        for (int k = 0; k < 8; ++k) {
            castle_test[side][k] = k == kdest ? 0 : rank1_span(k, kdest) & ~bit(k);
            for (int r = 0; r < 8; ++r)
                castle_empty[side][k][r] = (rank1_span(k, kdest) | rank1_span(r, rdest)) & ~bit(k) & ~bit(r);
        }
        for (int r = 0; r < 8; ++r) {
            if (side == 0)
                castle_far[0][r] = r == 7 ? 0 : bit(7);
            else
                castle_far[1][r] = r == 0 ? 0 : r == 1 ? bit(0) : (bit(0) | bit(1));
        }
    }
}

void init_board_tables() {
    // Hash keys by the xorshift64* rule.
    Rng rng{0x89b0ddaa6e490098ULL};
    for (int i = 0; i < 1037; ++i) zobrist[i] = rng.next();

    u64* nb = bishop_table;
    u64* nr = rook_table;
    for (int sq = 0; sq < 64; ++sq) {
        init_magic(bishop_magics[sq], sq, bishop_magic_numbers[sq], bishop_steps, nb);
        init_magic(rook_magics[sq], sq, rook_magic_numbers[sq], rook_steps, nr);
    }

    for (int sq = 0; sq < 64; ++sq) {
        int f = sq & 7, k = sq >> 3;
        u64 n = 0, g = 0;
        static const int kn[8][2] = {{1, 2}, {2, 1}, {2, -1}, {1, -2}, {-1, -2}, {-2, -1}, {-2, 1}, {-1, 2}};
        for (auto& d : kn)
            if (f + d[0] >= 0 && f + d[0] < 8 && k + d[1] >= 0 && k + d[1] < 8) n |= bit((k + d[1]) * 8 + f + d[0]);
        for (int df = -1; df <= 1; ++df)
            for (int dk = -1; dk <= 1; ++dk)
                if ((df || dk) && f + df >= 0 && f + df < 8 && k + dk >= 0 && k + dk < 8) g |= bit((k + dk) * 8 + f + df);
        knight_attack_table[sq] = n;
        king_attack_table[sq] = g;
    }
    for (int f = 0; f < 8; ++f) {
        u64 side = (f > 0 ? bit(f - 1) : 0) | (f < 7 ? bit(f + 1) : 0);
        ep_capturers_rank4[f] = side << 24;
        ep_capturers_rank5[f] = side << 32;
    }

    static const int dir_step[8][2] = {{1, 0}, {-1, 0}, {0, 1}, {0, -1}, {1, 1}, {-1, -1}, {-1, 1}, {1, -1}};
    for (int a = 0; a < 64; ++a) {
        for (int b = 0; b < 64; ++b) {
            between_table[a][b] = 0;
            direction_table[a][b] = 8;
            ray_table[a][b] = 0;
        }
        for (int d = 0; d < 8; ++d) {
            int f = (a & 7) + dir_step[d][0], k = (a >> 3) + dir_step[d][1];
            u64 path = 0;
            while (f >= 0 && f < 8 && k >= 0 && k < 8) {
                int b = k * 8 + f;
                path |= bit(b);
                between_table[a][b] = path;
                direction_table[a][b] = u32(d);
                f += dir_step[d][0];
                k += dir_step[d][1];
            }
            for (u64 b = path; b;) ray_table[a][pop_lsb(b)] = path;
        }
    }
    init_castle_tables();
}
