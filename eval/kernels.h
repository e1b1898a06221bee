// The arithmetic kernels of the evaluation. Each exists as plain integer code and, in
// builds whose target has AVX2 (and is not VESTRA_PORTABLE), as 256-bit vector code
// with bit-identical results; the `_fast` names pick one at compile time.
#pragma once
#include "eval/network.h"

struct Position;
struct SearchThread;

#if defined(__AVX2__) && !defined(VESTRA_PORTABLE)
#define VESTRA_EVAL_AVX2 1
// Targets with VNNI (AVX-512 VNNI with 256-bit forms, or AVX-VNNI) take the small
// layers' four-byte dot products in one instruction, and with AVX-512 VNNI the first
// hidden layer's in 512-bit registers; same results.
#if defined(__AVX512VNNI__) && defined(__AVX512VL__)
#define VESTRA_EVAL_VNNI512 1
#define VESTRA_HAS_VNNI true
#elif defined(__AVXVNNI__)
#define VESTRA_EVAL_VNNI 1
#define VESTRA_HAS_VNNI true
#endif
#endif
#ifndef VESTRA_HAS_VNNI
#define VESTRA_HAS_VNNI false
#endif

// dst = src + the rows in `add` - the rows in `sub`, 256 wrap-around i16 values.
// dst may equal src. All pointers 32-byte aligned.
void rows_apply_scalar(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                       int sub_count);
// Output sum (five fractional bits, before the division by 32) of the small layers
// for the two halves of an accumulator, from the working matrices and the biases of
// `network_image`.
i32 network_output_scalar(const i16* half0, const i16* half1);

#ifdef VESTRA_EVAL_AVX2
void rows_apply_avx2(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                     int sub_count);
i32 network_output_avx2(const i16* half0, const i16* half1);
inline void rows_apply(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                       int sub_count) {
    rows_apply_avx2(dst, src, add, add_count, sub, sub_count);
}
inline i32 network_output(const i16* half0, const i16* half1) { return network_output_avx2(half0, half1); }
#else
inline void rows_apply(i16* dst, const i16* src, const i16* const* add, int add_count, const i16* const* sub,
                       int sub_count) {
    rows_apply_scalar(dst, src, add, add_count, sub, sub_count);
}
inline i32 network_output(const i16* half0, const i16* half1) { return network_output_scalar(half0, half1); }
#endif

// catch_up and evaluate with the plain-integer kernels only, whatever the build; the
// same results as the selected ones, for tests and benchmarks.
void catch_up_scalar(SearchThread* thread, int ply);
i32 evaluate_scalar(SearchThread* thread, int ply);

// Score change of the Chess960 corner bishops (blocked by their own pawn).
i32 corner_bishop_term(const Position* pos);
// Rebuilds half h of an accumulator from a position (h = 0 the side to move).
void refresh_half(const Position* pos, int h, i16* half);
