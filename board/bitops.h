// Bit operations used throughout the engine.
//
// The fast versions map onto single x86-64 instructions (POPCNT, TZCNT/BSF, BSWAP).
// VESTRA_PORTABLE builds use the plain-integer versions below, which give the same
// results on any 64-bit target; tests compare the two families bit for bit.
#pragma once
#include <cstdint>

using u8 = uint8_t;
using u16 = uint16_t;
using u32 = uint32_t;
using u64 = uint64_t;
using i8 = int8_t;
using i16 = int16_t;
using i32 = int32_t;
using i64 = int64_t;

// Plain-integer equivalents, always compiled so that tests can compare them.
constexpr int popcount_scalar(u64 b) {
    b = b - ((b >> 1) & 0x5555555555555555ULL);
    b = (b & 0x3333333333333333ULL) + ((b >> 2) & 0x3333333333333333ULL);
    b = (b + (b >> 4)) & 0x0f0f0f0f0f0f0f0fULL;
    return int((b * 0x0101010101010101ULL) >> 56);
}

// De Bruijn scan of the isolated lowest bit; b must not be 0.
constexpr int lsb_scalar(u64 b) {
    constexpr int index64[64] = {
        0,  1,  48, 2,  57, 49, 28, 3,  61, 58, 50, 42, 38, 29, 17, 4,
        62, 55, 59, 36, 53, 51, 43, 22, 45, 39, 33, 30, 24, 18, 12, 5,
        63, 47, 56, 27, 60, 41, 37, 16, 54, 35, 52, 21, 44, 32, 23, 11,
        46, 26, 40, 15, 34, 20, 31, 10, 25, 14, 19, 9,  13, 8,  7,  6};
    return index64[((b & (~b + 1)) * 0x03f79d71b4cb0a89ULL) >> 58];
}

// Highest set bit by folding; b must not be 0.
constexpr int msb_scalar(u64 b) {
    int r = 0;
    if (b >> 32) { b >>= 32; r += 32; }
    if (b >> 16) { b >>= 16; r += 16; }
    if (b >> 8) { b >>= 8; r += 8; }
    if (b >> 4) { b >>= 4; r += 4; }
    if (b >> 2) { b >>= 2; r += 2; }
    if (b >> 1) { r += 1; }
    return r;
}

constexpr u64 bswap64_scalar(u64 b) {
    b = ((b >> 8) & 0x00ff00ff00ff00ffULL) | ((b & 0x00ff00ff00ff00ffULL) << 8);
    b = ((b >> 16) & 0x0000ffff0000ffffULL) | ((b & 0x0000ffff0000ffffULL) << 16);
    return (b >> 32) | (b << 32);
}

#ifdef VESTRA_PORTABLE
inline int popcount(u64 b) { return popcount_scalar(b); }
inline int lsb(u64 b) { return lsb_scalar(b); }
inline int msb(u64 b) { return msb_scalar(b); }
inline u64 bswap64(u64 b) { return bswap64_scalar(b); }
#else
inline int popcount(u64 b) { return __builtin_popcountll(b); }
inline int lsb(u64 b) { return __builtin_ctzll(b); }
inline int msb(u64 b) { return 63 - __builtin_clzll(b); }
inline u64 bswap64(u64 b) { return __builtin_bswap64(b); }
#endif

// Removes the lowest set bit and returns its index.
inline int pop_lsb(u64& b) {
    int s = lsb(b);
    b &= b - 1;
    return s;
}

constexpr u64 bit(int sq) { return 1ULL << sq; }
