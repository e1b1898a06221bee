// TEMPORARY: a minimal report line until the real reporting module is merged.
#include <cstdio>
#include "search/score.h"
#include "uci/report.h"

void report_line(SearchThread* thread, int index, i32 table_score, i64 time_ms, i64 nodes, i64 tb_hits, i32 depth) {
    (void)table_score;
    char text[8];
    move_text(thread->top, thread->root_moves[index].move, text);
    std::printf("info multipv %d depth %d time %lld nodes %lld tbhits %lld score cp %d pv %s\n", index + 1, depth,
                (long long)time_ms, (long long)nodes, (long long)tb_hits, thread->root_scores[index], text);
    std::fflush(stdout);
}
