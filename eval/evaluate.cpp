// The three small layers that turn the two accumulator halves into a score. All
// arithmetic is exact integer work, so the vector and the plain code agree to the bit.
#include "eval/accumulator.h"
#include "eval/kernels.h"

#ifdef VESTRA_EVAL_AVX2
#include <immintrin.h>
#endif

namespace {
inline u8 clamp127(i32 x) { return u8(x < 0 ? 0 : x > 127 ? 127 : x); }
}  // namespace

// Sums are accumulated as u32 so that an absurd image wraps exactly as the vector
// adds do instead of overflowing.
i32 network_output_scalar(const i16* half0, const i16* half1) {
    u8 input[NET_INPUTS];
    for (int i = 0; i < NET_HALF; ++i) {
        input[i] = clamp127(half0[i] >> 1);
        input[NET_HALF + i] = clamp127(half1[i] >> 1);
    }
    u8 h1[NET_HIDDEN1];
    for (int j = 0; j < NET_HIDDEN1; ++j) {
        u32 a = u32(network_image->hidden1_biases[j]);
        for (int i = 0; i < NET_INPUTS; ++i) a += u32(i32(input[i]) * hidden1_working[j][i]);
        h1[j] = clamp127(i32(a) >> 3);
    }
    u8 h2[NET_HIDDEN2];
    for (int j = 0; j < NET_HIDDEN2; ++j) {
        u32 a = u32(network_image->hidden2_biases[j]);
        for (int i = 0; i < NET_HIDDEN1; ++i) a += u32(i32(h1[i]) * hidden2_working[j][i]);
        h2[j] = clamp127(i32(a) >> 3);
    }
    u32 a = u32(network_image->output_bias);
    for (int i = 0; i < NET_HIDDEN2; ++i) a += u32(i32(h2[i]) * output_working[i]);
    return i32(a);
}

#ifdef VESTRA_EVAL_AVX2
namespace {

// Eight vectors of i32 partial sums -> one vector holding their eight totals in order.
inline __m256i reduce8(const __m256i* v) {
    __m256i s01 = _mm256_hadd_epi32(v[0], v[1]);
    __m256i s23 = _mm256_hadd_epi32(v[2], v[3]);
    __m256i s45 = _mm256_hadd_epi32(v[4], v[5]);
    __m256i s67 = _mm256_hadd_epi32(v[6], v[7]);
    __m256i s0123 = _mm256_hadd_epi32(s01, s23);
    __m256i s4567 = _mm256_hadd_epi32(s45, s67);
    return _mm256_add_epi32(_mm256_permute2x128_si256(s0123, s4567, 0x20),
                            _mm256_permute2x128_si256(s0123, s4567, 0x31));
}

// Four vectors of eight i32 (neurons 0..31 in order), shifted right by 3 and clamped
// to 0..127 as 32 bytes in neuron order. The two saturating packs and the maximum
// with zero amount to the clamp; the packs interleave 128-bit lanes, which the final
// permutation undoes.
inline __m256i activate32(const __m256i* v) {
    __m256i p01 = _mm256_packs_epi32(_mm256_srai_epi32(v[0], 3), _mm256_srai_epi32(v[1], 3));
    __m256i p23 = _mm256_packs_epi32(_mm256_srai_epi32(v[2], 3), _mm256_srai_epi32(v[3], 3));
    __m256i p = _mm256_packs_epi16(p01, p23);
    p = _mm256_permutevar8x32_epi32(p, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
    return _mm256_max_epi8(p, _mm256_setzero_si256());
}

// acc + in each i32 lane the sum of the four products of unsigned activation bytes and
// signed weight bytes. The multiply-add pair of plain AVX2 is exact here (a pair of
// products stays within i16); the one instruction of VNNI never saturates at all.
inline __m256i dot4_add(__m256i acc, __m256i activations, __m256i weights, [[maybe_unused]] __m256i ones) {
#if defined(VESTRA_EVAL_VNNI512)
    return _mm256_dpbusd_epi32(acc, activations, weights);
#elif defined(VESTRA_EVAL_VNNI)
    return _mm256_dpbusd_avx_epi32(acc, activations, weights);
#else
    return _mm256_add_epi32(acc, _mm256_madd_epi16(_mm256_maddubs_epi16(activations, weights), ones));
#endif
}

inline __m256i dot_bytes(__m256i activations, const i8* weights, __m256i ones) {
    __m256i w = _mm256_load_si256(reinterpret_cast<const __m256i*>(weights));
    return dot4_add(_mm256_setzero_si256(), activations, w, ones);
}

}  // namespace

i32 network_output_avx2(const i16* half0, const i16* half1) {
    alignas(32) u8 input[NET_INPUTS];
    const __m256i limit = _mm256_set1_epi8(127);
    const i16* halves[2] = {half0, half1};
    for (int h = 0; h < 2; ++h) {
        for (int c = 0; c < NET_HALF; c += 32) {
            __m256i a = _mm256_srai_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(halves[h] + c)), 1);
            __m256i b = _mm256_srai_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(halves[h] + c + 16)), 1);
            __m256i p = _mm256_permute4x64_epi64(_mm256_packus_epi16(a, b), 0xd8);
            _mm256_store_si256(reinterpret_cast<__m256i*>(input + h * NET_HALF + c), _mm256_min_epu8(p, limit));
        }
    }

    // First layer over the non-zero groups of four inputs only: after the clamp a good
    // part of them are zero. Each group adds its four products for all 32 neurons,
    // neuron j in lane j of the four sums; the pairwise products cannot saturate
    // (inputs stay below 128), so skipping and reordering leave the sums exact.
    const __m256i ones = _mm256_set1_epi16(1);
    __m256i sums[4], more[4];
    for (int k = 0; k < 4; ++k) sums[k] = more[k] = _mm256_setzero_si256();
    const i32* groups = reinterpret_cast<const i32*>(input);
    // VNNI adds four products to a 32-bit sum in one step, so sharing 16-bit sums saves
    // nothing there.
    const bool four_a_lane = !VESTRA_HAS_VNNI && hidden1_groups_per_lane >= 4;
    for (int c = 0; c < NET_INPUTS / 4; c += 64) {
        u64 live = 0;
        for (int v = 0; v < 8; ++v) {
            __m256i in = _mm256_load_si256(reinterpret_cast<const __m256i*>(groups + c + 8 * v));
            __m256i nonzero = _mm256_cmpgt_epi32(in, _mm256_setzero_si256());
            live |= u64(u32(_mm256_movemask_ps(_mm256_castsi256_ps(nonzero)))) << (8 * v);
        }
        // With small enough weights, up to four groups share the 16-bit pair sums before
        // they are widened, which saves the multiplier three widenings in four; the
        // 16-bit sums cannot leave their range, so the totals stay exact.
        if (four_a_lane) {
            while (live) {
                int g = c + pop_lsb(live);
                const __m256i* w = reinterpret_cast<const __m256i*>(hidden1_by_group[g]);
                __m256i in = _mm256_set1_epi32(groups[g]);
                __m256i pairs[4];
                for (int k = 0; k < 4; ++k) pairs[k] = _mm256_maddubs_epi16(in, w[k]);
                for (int n = 1; n < 4 && live; ++n) {
                    g = c + pop_lsb(live);
                    w = reinterpret_cast<const __m256i*>(hidden1_by_group[g]);
                    in = _mm256_set1_epi32(groups[g]);
                    for (int k = 0; k < 4; ++k) pairs[k] = _mm256_add_epi16(pairs[k], _mm256_maddubs_epi16(in, w[k]));
                }
                for (int k = 0; k < 4; ++k) sums[k] = _mm256_add_epi32(sums[k], _mm256_madd_epi16(pairs[k], ones));
            }
            continue;
        }
#if defined(VESTRA_EVAL_VNNI512)
        {
            // A group's products for all 32 neurons in two 512-bit instructions.
            __m512i lo = _mm512_setzero_si512(), hi = lo, lo2 = lo, hi2 = lo;
            while (live) {
                int g = c + pop_lsb(live);
                const __m512i* w = reinterpret_cast<const __m512i*>(hidden1_by_group[g]);
                __m512i in = _mm512_set1_epi32(groups[g]);
                lo = _mm512_dpbusd_epi32(lo, in, _mm512_load_si512(w));
                hi = _mm512_dpbusd_epi32(hi, in, _mm512_load_si512(w + 1));
                if (!live) break;
                g = c + pop_lsb(live);
                w = reinterpret_cast<const __m512i*>(hidden1_by_group[g]);
                in = _mm512_set1_epi32(groups[g]);
                lo2 = _mm512_dpbusd_epi32(lo2, in, _mm512_load_si512(w));
                hi2 = _mm512_dpbusd_epi32(hi2, in, _mm512_load_si512(w + 1));
            }
            lo = _mm512_add_epi32(lo, lo2);
            hi = _mm512_add_epi32(hi, hi2);
            alignas(64) i32 part[32];
            _mm512_store_si512(part, lo);
            _mm512_store_si512(part + 16, hi);
            for (int k = 0; k < 4; ++k)
                sums[k] = _mm256_add_epi32(sums[k], _mm256_load_si256(reinterpret_cast<const __m256i*>(part + 8 * k)));
            continue;
        }
#endif
        // Two groups a round into two sets of sums, so that the adds do not wait on
        // each other.
        while (live) {
            int g = c + pop_lsb(live);
            const __m256i* w = reinterpret_cast<const __m256i*>(hidden1_by_group[g]);
            __m256i in = _mm256_set1_epi32(groups[g]);
            for (int k = 0; k < 4; ++k) sums[k] = dot4_add(sums[k], in, _mm256_load_si256(w + k), ones);
            if (!live) break;
            g = c + pop_lsb(live);
            w = reinterpret_cast<const __m256i*>(hidden1_by_group[g]);
            in = _mm256_set1_epi32(groups[g]);
            for (int k = 0; k < 4; ++k) more[k] = dot4_add(more[k], in, _mm256_load_si256(w + k), ones);
        }
    }
    for (int k = 0; k < 4; ++k)
        sums[k] = _mm256_add_epi32(
            _mm256_add_epi32(sums[k], more[k]),
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(network_image->hidden1_biases + k * 8)));
    __m256i h1 = activate32(sums);

    if (VESTRA_HAS_VNNI) {
        for (int k = 0; k < 4; ++k)
            sums[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(network_image->hidden2_biases + k * 8));
        for (int g = 0; g < NET_HIDDEN1 / 4; ++g) {
            const __m256i* w = reinterpret_cast<const __m256i*>(hidden2_by_group[g]);
            const __m256i in = _mm256_permutevar8x32_epi32(h1, _mm256_set1_epi32(g));
            for (int k = 0; k < 4; ++k) sums[k] = dot4_add(sums[k], in, _mm256_load_si256(w + k), ones);
        }
    } else if (hidden2_groups_per_lane >= 4) {
        // As the first layer: each group of four activations broadcast against the 32
        // neurons' weights, four groups to a 16-bit sum; no horizontal additions.
        for (int k = 0; k < 4; ++k)
            sums[k] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(network_image->hidden2_biases + k * 8));
        for (int g0 = 0; g0 < NET_HIDDEN1 / 4; g0 += 4) {
            __m256i pairs[4];
            for (int g = g0; g < g0 + 4; ++g) {
                const __m256i* w = reinterpret_cast<const __m256i*>(hidden2_by_group[g]);
                const __m256i in = _mm256_permutevar8x32_epi32(h1, _mm256_set1_epi32(g));
                for (int k = 0; k < 4; ++k) {
                    const __m256i p = _mm256_maddubs_epi16(in, _mm256_load_si256(w + k));
                    pairs[k] = g == g0 ? p : _mm256_add_epi16(pairs[k], p);
                }
            }
            for (int k = 0; k < 4; ++k) sums[k] = _mm256_add_epi32(sums[k], _mm256_madd_epi16(pairs[k], ones));
        }
    } else {
        for (int g = 0; g < 4; ++g) {
            __m256i acc[8];
            for (int n = 0; n < 8; ++n) acc[n] = dot_bytes(h1, hidden2_working[g * 8 + n], ones);
            sums[g] = _mm256_add_epi32(reduce8(acc), _mm256_loadu_si256(reinterpret_cast<const __m256i*>(
                                                         network_image->hidden2_biases + g * 8)));
        }
    }
    __m256i h2 = activate32(sums);

    __m256i out = dot_bytes(h2, output_working, ones);
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(out), _mm256_extracti128_si256(out, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4e));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xb1));
    return i32(u32(_mm_cvtsi128_si32(s)) + u32(network_image->output_bias));
}
#endif

i32 corner_bishop_term(const Position* pos) {
    u64 own = pos->own, enemy = pos->occupied ^ pos->own;
    u64 own_bishops = pos->bishops & own, own_pawns = pos->pawns & own;
    u64 enemy_bishops = pos->bishops & enemy, enemy_pawns = pos->pawns & enemy;
    i32 change = 0;
    if ((own_bishops & bit(0)) && (own_pawns & bit(9))) change -= (pos->occupied & bit(17)) ? 80 : 60;
    if ((own_bishops & bit(7)) && (own_pawns & bit(14))) change -= (pos->occupied & bit(22)) ? 80 : 60;
    if ((enemy_bishops & bit(56)) && (enemy_pawns & bit(49))) change += (pos->occupied & bit(41)) ? 80 : 60;
    if ((enemy_bishops & bit(63)) && (enemy_pawns & bit(54))) change += (pos->occupied & bit(46)) ? 80 : 60;
    return change;
}

namespace {
template <void (*bring_up)(SearchThread*, int), i32 (*output)(const i16*, const i16*)>
i32 evaluate_with(SearchThread* thread, int ply) {
    bring_up(thread, ply);
    const PlyRecord& record = thread->ply_records[ply];
    i32 score = output(record.sums[0], record.sums[1]) / 32;  // rounds towards zero
    if (engine_options.chess960) score += corner_bishop_term(thread->top);
    return score < -EVAL_LIMIT ? -EVAL_LIMIT : score > EVAL_LIMIT ? EVAL_LIMIT : score;
}
}  // namespace

i32 evaluate(SearchThread* thread, int ply) { return evaluate_with<catch_up, network_output>(thread, ply); }
i32 evaluate_formed(SearchThread* thread, int ply) { return evaluate_with<form_sums, network_output>(thread, ply); }
i32 evaluate_scalar(SearchThread* thread, int ply) {
    return evaluate_with<catch_up_scalar, network_output_scalar>(thread, ply);
}
