// The transposition table: one 16-byte entry per slot, lockless by the XOR rule.
#pragma once
#include "search/score.h"
#include "search/thread.h"

// Data word fields.
inline int tt_depth_byte(u64 d) { return int(d & 0xff); }
inline u32 tt_move(u64 d) { return u32((d >> 8) & 0x7fff); }
inline u32 tt_bound(u64 d) { return u32(d) & (BOUND_LOWER | BOUND_EXACT); }
inline u32 tt_generation_bits(u64 d) { return u32(d) & 0xfe000000u; }
inline i32 tt_score(u64 d) { return i16(u16(d >> 32)); }
inline i32 tt_eval(u64 d) { return i16(u16(d >> 48)); }

inline u64 tt_pack(int depth, u32 packed_move, u32 bound, u32 generation, i32 score, i32 eval) {
    return u64(u8(depth + 128)) | u64(packed_move & 0x7fff) << 8 | u64(bound) | u64(generation & 0xfe000000u) |
           u64(u16(i16(score))) << 32 | u64(u16(i16(eval))) << 48;
}

inline TTEntry* tt_slot(u64 key) { return &search_shared.tt[key & search_shared.tt_mask]; }

// Loads the two words once; true when the entry belongs to `key`.
inline bool tt_read(u64 key, u64* data) {
    const TTEntry* e = tt_slot(key);
    u64 check = e->check.load(std::memory_order_relaxed);
    u64 d = e->data.load(std::memory_order_relaxed);
    *data = d;
    return (check ^ d) == key;
}

inline void tt_write(u64 key, u64 data) {
    TTEntry* e = tt_slot(key);
    e->check.store(key ^ data, std::memory_order_relaxed);
    e->data.store(data, std::memory_order_relaxed);
}

// Mate-range scores are kept relative to the node that stores them: the distance from
// the root is added on the way in and taken off on the way out.
inline i32 score_to_tt(i32 s, int ply) {
    if (s > MATE_THRESHOLD) return s + ply;
    if (s < -MATE_THRESHOLD) return s - ply;
    return s;
}
inline i32 score_from_tt(i32 s, int ply) {
    if (s > MATE_THRESHOLD) return s - ply;
    if (s < -MATE_THRESHOLD) return s + ply;
    return s;
}
