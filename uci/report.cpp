#include "search/report.h"
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "search/score.h"
#include "search/tt.h"

void print_line(const char* text) {
    std::fputs(text, stdout);
    std::fflush(stdout);
}

static char* append(char* out, const char* end, const char* fmt, long long a) {
    int n = std::snprintf(out, size_t(end - out), fmt, a);
    return n < 0 ? out : std::min(out + n, const_cast<char*>(end) - 1);
}

void report_line(SearchThread* thread, int index, i32 table_score, i64 time_ms, i64 nodes, i64 tb_hits, i32 depth) {
    // Built whole before printing so that the line leaves in one write.
    char line[8192];
    const char* end = line + sizeof line;
    char* out = line;
    i64 nps = nodes * 1000 / (time_ms + 1);
    out += std::snprintf(out, size_t(end - out), "info multipv %d depth %d time %lld nodes %lld nps %lld tbhits %lld ",
                         index + 1, depth, (long long)time_ms, (long long)nodes, (long long)nps, (long long)tb_hits);
    i32 v = thread->root_scores[index];
    if (table_score != NO_SCORE && std::abs(v) < MATE_THRESHOLD) v = table_score;
    if (v > 31965)
        out = append(out, end, "score mate %lld pv ", (32767 - v) / 2);
    else if (v < -31965)
        out = append(out, end, "score mate %lld pv ", (-32766 - v) / 2);
    else
        out = append(out, end, "score cp %lld pv ", v);

    char text[8];
    u32 move = thread->root_moves[index].move;
    move_text(thread->top, move, text);
    out += std::snprintf(out, size_t(end - out), "%s ", text);

    // The rest of the line comes from exact table entries; the walk stops where the
    // game would end in a draw, at a repetition (which also ends a cycle of entries)
    // or at the fifty-move rule, and well before the stack ends. The table's keys do
    // not know the move clock, so entries stored when the clock was lower would
    // otherwise carry the line past the draw. A mate on the hundredth half-move needs
    // no test of its own: the mated side has no move to continue with.
    Position* root = thread->top;
    make_move(thread, move, nullptr);
    int walked = 1;
    while (!(thread->top->flags & POS_REPETITION) && thread->top->halfmove_clock < 100 &&
           thread->top - thread->stack < STACK_SIZE - 2 && walked < 128 && end - out > 16) {
        u64 data;
        if (!tt_read(thread->top->key, &data)) break;
        if (tt_bound(data) != BOUND_EXACT || tt_move(data) == 0) break;
        u32 next = validate_packed_move(thread->top, tt_move(data));
        if (!next) break;
        move_text(thread->top, next, text);
        out += std::snprintf(out, size_t(end - out), "%s ", text);
        make_move(thread, next, nullptr);
        ++walked;
    }
    thread->top = root;
    *out++ = '\n';
    *out = 0;

    spin_lock(search_shared.print_lock);
    print_line(line);
    spin_unlock(search_shared.print_lock);
}

void report_bestmove(SearchThread* thread) {
    char line[64], text[8], ponder[8];
    u32 move = thread->root_moves[0].move;
    move_text(thread->top, move, text);
    int n = std::snprintf(line, sizeof line, "bestmove %s", text);
    make_move(thread, move, nullptr);
    u64 data;
    if (tt_read(thread->top->key, &data) && tt_move(data) != 0) {
        u32 reply = validate_packed_move(thread->top, tt_move(data));
        if (reply) {
            move_text(thread->top, reply, ponder);
            n += std::snprintf(line + n, sizeof line - size_t(n), " ponder %s", ponder);
        }
    }
    --thread->top;
    std::snprintf(line + n, sizeof line - size_t(n), "\n");
    spin_lock(search_shared.print_lock);
    print_line(line);
    spin_unlock(search_shared.print_lock);
}
