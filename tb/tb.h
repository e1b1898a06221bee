// Syzygy endgame tables: the compiled-in 3- and 4-man set and SyzygyPath directories.
#pragma once
#include "search/thread.h"

// Rebuilds the registry from a ";"-separated directory list ("<empty>" for none) plus
// the compiled-in tables; returns the most men of any table known.
i32 tb_init(const char* path);
// Builds the constant index tables; once, at start-up, before tb_init.
void tb_init_index_tables();
// WDL of the top position for the side to move, -2..2; *success 0 when no table answers.
i32 tb_probe_wdl(SearchThread* thread, i32* success);
i32 tb_probe_dtz(SearchThread* thread, i32* success);
// Filters the root moves of `thread` by the tables; returns the score to report, or
// NO_SCORE when the tables had no answer.
i32 tb_root_filter(SearchThread* thread);
