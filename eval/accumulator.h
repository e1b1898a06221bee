// The lazy accumulator: the per-ply record (PlyRecord) is one of the shared records;
// here are the routines that bring its sums up to date and evaluate.
#pragma once
#include "board/records.h"

// Brings the sums of ply p up to date from the nearest computed ancestor.
void catch_up(SearchThread* thread, int ply);
// Static evaluation of the top position, side to move's view.
i32 evaluate(SearchThread* thread, int ply);
