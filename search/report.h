// What a running search prints: the info line of an iteration and the bestmove line.
// The search calls these; the front end (uci/report.cpp) writes them, so that the
// declarations stand here and the includes still run from the front end downward.
#pragma once
#include "search/thread.h"

void report_line(SearchThread* thread, int index, i32 table_score, i64 time_ms, i64 nodes, i64 tb_hits, i32 depth);
void report_bestmove(SearchThread* thread);
// Writes one protocol line to standard output and flushes it (caller holds print_lock
// during a search).
void print_line(const char* text);
