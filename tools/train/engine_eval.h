// The engine's own evaluation of a training record: the position is set up from the
// record's FEN and evaluated by the integer pass, through whatever image
// `network_image` points at.
#pragma once
#include "search/thread.h"
#include "tools/train/record.h"

inline i32 engine_evaluate_record(SearchThread* thread, const TrainRecord& r) {
    char fen[100];
    record_fen(r, fen);
    set_position(thread, fen, "");
    thread->ply_records[0].computed = 0;
    return evaluate(thread, 0);
}
