// Lazy first-layer sums. make_move only records which features change; the sums of a
// ply are formed when the ply is evaluated, from the nearest ancestor that has them.
#include "eval/accumulator.h"
#include "eval/kernels.h"
#include <cstring>

#ifdef VESTRA_EVAL_AVX2
#include <immintrin.h>
#endif

void rows_apply_scalar(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                       int sub_count) {
    i16 v[NET_HALF];
    for (int i = 0; i < NET_HALF; ++i) v[i] = src[i];
    // Wrap-around, as the vector code does.
    for (int a = 0; a < add_count; ++a)
        for (int i = 0; i < NET_HALF; ++i) v[i] = i16(v[i] + add[a][i]);
    for (int s = 0; s < sub_count; ++s)
        for (int i = 0; i < NET_HALF; ++i) v[i] = i16(v[i] - sub[s][i]);
    for (int i = 0; i < NET_HALF; ++i) dst[i] = v[i];
}

#ifdef VESTRA_EVAL_AVX2
// Half an accumulator (128 values) at a time in eight registers, so that every row is
// loaded once and the sums are stored once.
void rows_apply_avx2(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                     int sub_count) {
    for (int c = 0; c < NET_HALF; c += 128) {
        __m256i r[8];
        for (int k = 0; k < 8; ++k) r[k] = _mm256_load_si256(reinterpret_cast<const __m256i*>(src + c + 16 * k));
        for (int a = 0; a < add_count; ++a) {
            const __m256i* row = reinterpret_cast<const __m256i*>(add[a] + c);
            for (int k = 0; k < 8; ++k) r[k] = _mm256_add_epi16(r[k], _mm256_load_si256(row + k));
        }
        for (int s = 0; s < sub_count; ++s) {
            const __m256i* row = reinterpret_cast<const __m256i*>(sub[s] + c);
            for (int k = 0; k < 8; ++k) r[k] = _mm256_sub_epi16(r[k], _mm256_load_si256(row + k));
        }
        for (int k = 0; k < 8; ++k) _mm256_store_si256(reinterpret_cast<__m256i*>(dst + c + 16 * k), r[k]);
    }
}
#endif

namespace {

using RowsApply = void (*)(i16*, const i16*, const i16* const*, int, const i16* const*, int);

// Rows waiting to be applied to one half; flushed into the half when full.
template <RowsApply apply>
struct RowBatch {
    static constexpr int CAPACITY = 64;
    const i16* add[CAPACITY];
    const i16* sub[CAPACITY];
    int add_count = 0, sub_count = 0;
    i16* dst;
    const i16* src;

    void flush() {
        apply(dst, src, add, add_count, sub, sub_count);
        src = dst;
        add_count = sub_count = 0;
    }
    void need(int more) {
        if (add_count + more > CAPACITY || sub_count + more > CAPACITY) flush();
    }
    void plus(int row) { add[add_count++] = working_row(row); }
    void minus(int row) { sub[sub_count++] = working_row(row); }
};

// Row of a feature code of FeatureDelta for a half whose owner is (own = 1) or is not
// the mover; k is the owner's king in the owner's frame.
inline int code_row(u32 code, int own, int k) {
    if (own) return int(code) * 64 + k;
    int plane = int(code >> 6), s = int(code & 63);
    int swapped = plane < 5 ? plane + 5 : plane - 5;
    return feature_row(swapped, s ^ 56, k);
}

template <class Batch>
void replay_record(Batch& batch, const FeatureDelta& d, int own, int k) {
    batch.need(8);
    for (int i = 0; i < d.added_count; ++i) batch.plus(code_row(d.added[i], own, k));
    for (int i = 0; i < d.removed_count; ++i) {
        u32 code = d.removed[i];
        if (code & 0x3c00) {
            bool owners = (code == 1024 || code == 4096) ? own : !own;
            if (owners) batch.minus(code == 1024 || code == 2048 ? NET_CASTLING_ROW : NET_CASTLING_ROW + 1);
        } else {
            batch.minus(code_row(code, own, k));
        }
    }
}

template <RowsApply apply>
void refresh_half_with(const Position* pos, int h, i16* half) {
    RowBatch<apply> batch;
    batch.dst = half;
    batch.src = network_image->feature_biases;
    u64 own = pos->own, enemy = pos->occupied ^ pos->own;
    if (h == 0) {
        int k = own_king_square(pos);
        for (int code = PAWN; code <= QUEEN; ++code) {
            u64 b = pos->boards[code] & own;
            while (b) {
                batch.need(1);
                batch.plus(feature_row(code - 1, pop_lsb(b), k));
            }
            b = pos->boards[code] & enemy;
            while (b) {
                batch.need(1);
                batch.plus(feature_row(code + 4, pop_lsb(b), k));
            }
        }
        batch.need(2);
        if ((pos->castling & 0xf) != NO_RIGHT) batch.plus(NET_CASTLING_ROW);
        if (((pos->castling >> 4) & 0xf) != NO_RIGHT) batch.plus(NET_CASTLING_ROW + 1);
    } else {
        // Formed in the side to move's frame; XOR 0xe38 flips the man's and the king's
        // square together into the opponent's frame.
        int k = enemy_king_square(pos);
        for (int code = PAWN; code <= QUEEN; ++code) {
            u64 b = pos->boards[code] & own;
            while (b) {
                batch.need(1);
                batch.plus(feature_row(code + 4, pop_lsb(b), k) ^ 0xe38);
            }
            b = pos->boards[code] & enemy;
            while (b) {
                batch.need(1);
                batch.plus(feature_row(code - 1, pop_lsb(b), k) ^ 0xe38);
            }
        }
        batch.need(2);
        if (((pos->castling >> 8) & 0xf) != NO_RIGHT) batch.plus(NET_CASTLING_ROW);
        if (((pos->castling >> 12) & 0xf) != NO_RIGHT) batch.plus(NET_CASTLING_ROW + 1);
    }
    batch.flush();
}

void reset_king_cache(SearchThread* thread) {
    for (auto& colour : thread->king_cache)
        for (KingCacheEntry& e : colour) {
            std::memcpy(e.sums, network_image->feature_biases, sizeof e.sums);
            std::memset(e.men, 0, sizeof e.men);
            e.castling = 0;
        }
    thread->king_cache_image = network_image;
    thread->king_cache_generation = network_generation;
}

// Half h formed from the cache entry of its king: i16 sums wrap around, so adding and
// taking away rows in any order gives the sums that refresh_half would.
template <RowsApply apply>
void refresh_half_cached(SearchThread* thread, const Position* pos, int h, i16* half) {
    if (thread->king_cache_image != network_image || thread->king_cache_generation != network_generation)
        reset_king_cache(thread);
    u64 own = pos->own, enemy = pos->occupied ^ pos->own;
    int k = own_king_square(pos);
    u32 castling = pos->castling;
    if (h == 1) {
        own = bswap64(enemy);
        enemy = bswap64(pos->own);
        k = enemy_king_square(pos) ^ 56;
        castling >>= 8;
    }
    const int colour = ((pos->flags & POS_BLACK) ? 1 : 0) ^ h;
    KingCacheEntry& e = thread->king_cache[colour][k];

    RowBatch<apply> batch;
    batch.dst = e.sums;
    batch.src = e.sums;
    for (int code = PAWN; code <= QUEEN; ++code) {
        const u64 b = h ? bswap64(pos->boards[code]) : pos->boards[code];
        const u64 now[2] = {b & own, b & enemy};
        for (int side = 0; side < 2; ++side) {
            const int plane = code - 1 + 5 * side;
            u64& was = e.men[plane];
            for (u64 added = now[side] & ~was; added;) {
                batch.need(1);
                batch.plus(feature_row(plane, pop_lsb(added), k));
            }
            for (u64 removed = was & ~now[side]; removed;) {
                batch.need(1);
                batch.minus(feature_row(plane, pop_lsb(removed), k));
            }
            was = now[side];
        }
    }
    const u8 rights = u8(((castling & 0xf) != NO_RIGHT ? 1 : 0) | (((castling >> 4) & 0xf) != NO_RIGHT ? 2 : 0));
    batch.need(2);
    for (int r = 0; r < 2; ++r) {
        if ((rights & ~e.castling) & (1 << r)) batch.plus(NET_CASTLING_ROW + r);
        if ((e.castling & ~rights) & (1 << r)) batch.minus(NET_CASTLING_ROW + r);
    }
    e.castling = rights;
    if (batch.add_count || batch.sub_count) batch.flush();
    std::memcpy(half, e.sums, sizeof e.sums);
}

template <RowsApply apply>
void catch_up_with(SearchThread* thread, int p) {
    PlyRecord* records = thread->ply_records;
    const Position* pos = thread->top;
    int q = p - 1;
    while (q >= 0 && !records[q].computed) --q;

    // The mover of record j owns half (p - j) & 1 at ply p; a king move of that owner
    // changes every row of the half.
    bool rebuild[2] = {true, true};
    if (q >= 0) {
        rebuild[0] = rebuild[1] = false;
        for (int j = q; j < p; ++j)
            if (records[j].delta.king_moved) rebuild[(p - j) & 1] = true;
    }

    const int kings[2] = {own_king_square(pos), enemy_king_square(pos) ^ 56};
    for (int h = 0; h < 2; ++h) {
        i16* half = records[p].sums[h];
        if (rebuild[h]) {
            refresh_half_cached<apply>(thread, pos, h, half);
            continue;
        }
        RowBatch<apply> batch;
        batch.dst = half;
        batch.src = records[q].sums[h ^ ((p - q) & 1)];
        for (int j = q; j < p; ++j) replay_record(batch, records[j].delta, h == ((p - j) & 1), kings[h]);
        batch.flush();
    }
    records[p].computed = 1;
}

}  // namespace

void refresh_half(const Position* pos, int h, i16* half) { refresh_half_with<rows_apply>(pos, h, half); }
void catch_up(SearchThread* thread, int ply) { catch_up_with<rows_apply>(thread, ply); }
void form_sums(SearchThread* thread, int ply) {
    if (!thread->ply_records[ply].computed) catch_up(thread, ply);
}
void catch_up_scalar(SearchThread* thread, int ply) { catch_up_with<rows_apply_scalar>(thread, ply); }
