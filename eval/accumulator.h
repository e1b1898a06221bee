// Per-ply records of the search: the FeatureDelta of the move made at the ply and the
// first-layer sums (the accumulator) of the position at the ply.
#pragma once
#include "board/board.h"

constexpr int HALF_SIZE = 256;

struct alignas(64) PlyRecord {
    u8 computed;          // sums valid
    FeatureDelta delta;   // the move made at this ply
    alignas(64) i16 sums[2][HALF_SIZE];  // half 0: side to move at this ply
};

// Brings the sums of ply p up to date from the nearest computed ancestor.
void catch_up(SearchThread* thread, int ply);
// Static evaluation of the top position, side to move's view.
i32 evaluate(SearchThread* thread, int ply);
