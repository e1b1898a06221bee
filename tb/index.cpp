// The index number of a position in a table's layout: gather the men in the layout's
// order, remove the board's symmetries, read the squares as a mixed-radix number.
#include "tb/tb.h"

int tb_collect_squares(const Position* pos, const IndexLayout* layout, int flip, int mirror, i32* p, int count, int i) {
    int c = layout->pieces[i];
    int table_black = (c >> 3) & 1;
    int real_black = table_black ^ flip;
    int mover_black = (pos->flags & POS_BLACK) ? 1 : 0;
    u64 men = real_black == mover_black ? pos->own : pos->occupied ^ pos->own;
    u64 set = men & pos->boards[c & 7];
    if (mover_black) set = bswap64(set);
    while (set && count < 7) p[count++] = pop_lsb(set) ^ mirror;
    return count;
}

static inline bool off_diagonal(int sq) { return (sq & 7) != (sq >> 3); }
static inline bool below_diagonal(int sq) { return (sq >> 3) > (sq & 7); }

static void sort_ascending(i32* p, int from, int to) {
    for (int i = from + 1; i < to; ++i) {
        i32 v = p[i];
        int j = i;
        for (; j > from && p[j - 1] > v; --j) p[j] = p[j - 1];
        p[j] = v;
    }
}

// Adds the digits of the groups from position k on.
static u64 encode_groups(const i32* p, const IndexLayout* layout, int k, int men, u64 index) {
    while (k < men) {
        int e = k + layout->group_size[k];
        u64 s = 0;
        for (int i = k; i < e; ++i) {
            int skips = 0;
            for (int j = 0; j < k; ++j) skips += p[i] > p[j];
            s += binomial[i - k + 1][p[i] - skips];
        }
        index += s * layout->factor[k];
        k = e;
    }
    return index;
}

u64 tb_encode_position(i32* p, const IndexLayout* layout, const TableEntry* entry, bool pawn_encoding) {
    int men = entry->men;
    if (p[0] & 4)
        for (int i = 0; i < men; ++i) p[i] ^= 7;

    int k;
    u64 index;
    if (!pawn_encoding) {
        if (p[0] & 32)
            for (int i = 0; i < men; ++i) p[i] ^= 56;
        int lead_size = entry->two_king_encoding ? 2 : 3;
        for (int i = 0; i < men; ++i) {
            if (!off_diagonal(p[i])) continue;
            if (below_diagonal(p[i]) && i < lead_size)
                for (int j = 0; j < men; ++j) p[j] = diagonal_flip[p[j]];
            break;
        }
        u64 lead;
        if (entry->two_king_encoding) {
            lead = u64(two_king_index[king_triangle[p[0]]][p[1]]);
            k = 2;
        } else {
            int s1 = p[1] > p[0];
            int s2 = (p[2] > p[0]) + (p[2] > p[1]);
            if (off_diagonal(p[0]))
                lead = king_triangle[p[0]] * 3906 + (p[1] - s1) * 62 + p[2] - s2;
            else if (off_diagonal(p[1]))
                lead = 23436 + (p[0] >> 3) * 1736 + off_diagonal_index[p[1]] * 62 + p[2] - s2;
            else if (off_diagonal(p[2]))
                lead = 30380 + (p[0] >> 3) * 196 + ((p[1] >> 3) - s1) * 28 + off_diagonal_index[p[2]];
            else
                lead = 31164 + (p[0] >> 3) * 42 + ((p[1] >> 3) - s1) * 6 + (p[2] >> 3) - s2;
            k = 3;
        }
        index = lead * layout->factor[0];
    } else {
        k = entry->lead_pawns;
        for (int i = 1; i < k; ++i)
            for (int j = i + 1; j < k; ++j)
                if (pawn_order[p[j]] > pawn_order[p[i]]) {
                    i32 t = p[i];
                    p[i] = p[j];
                    p[j] = t;
                }
        u64 lead = pawn_index[k - 1][pawn_slot[p[0]]];
        for (int i = 1; i < k; ++i) lead += binomial[k - i][pawn_order[p[i]]];
        index = lead * layout->factor[0];
        if (entry->other_pawns > 0) {
            int e = k + entry->other_pawns;
            sort_ascending(p, k, e);
            u64 s = 0;
            for (int i = k; i < e; ++i) {
                int skips = 0;
                for (int j = 0; j < k; ++j) skips += p[i] > p[j];
                s += binomial[i - k + 1][p[i] - skips - 8];
            }
            index += s * layout->factor[k];
            k = e;
        }
    }
    for (int i = k; i < men;) {
        int e = i + layout->group_size[i];
        sort_ascending(p, i, e);
        i = e;
    }
    return encode_groups(p, layout, k, men, index);
}
