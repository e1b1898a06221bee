// The lazy accumulator: the per-ply record (PlyRecord) is one of the shared records;
// here are the routines that bring its sums up to date and evaluate.
#pragma once
#include "board/records.h"

// Brings the sums of ply p up to date from the nearest computed ancestor.
void catch_up(SearchThread* thread, int ply);
// The same, but leaves sums that are already up to date as they are. The search forms a
// node's sums before its table probe, so that the work fills the wait for the slot
// that make_move asked for, and evaluates from them afterwards.
void form_sums(SearchThread* thread, int ply);
// Static evaluation of the top position, side to move's view, from freshly formed sums.
i32 evaluate(SearchThread* thread, int ply);
// The same, but through form_sums: sums the search formed before its probe are used as
// they are instead of formed a second time.
i32 evaluate_formed(SearchThread* thread, int ply);
