// Integration placeholders: weak definitions of routines whose modules are still
// being merged. Each real definition overrides its placeholder; this file goes away
// once every module is in.
#include <cstdio>
#include <cstdlib>
#include "book/book.h"
#include "search/search.h"
#include "tb/tb.h"

[[noreturn]] static void pending(const char* name) {
    std::fprintf(stderr, "pending: %s is not merged yet\n", name);
    std::abort();
}

#define WEAK __attribute__((weak))
WEAK void tb_init_index_tables() {}
WEAK i32 tb_init(const char*) { return 0; }
WEAK i32 tb_probe_wdl(SearchThread*, i32*) { pending("tb_probe_wdl"); }
WEAK i32 tb_probe_dtz(SearchThread*, i32*) { pending("tb_probe_dtz"); }
WEAK i32 tb_root_filter(SearchThread*) { pending("tb_root_filter"); }
WEAK bool probe_book(SearchThread*) { return false; }
WEAK u64 book_key(const Position*) { pending("book_key"); }
WEAK i32 lmr_table[2][128][128];
WEAK void init_lmr_table() {}
WEAK void engine_memory_init(i64*) { pending("engine_memory_init"); }
WEAK void engine_memory_release(i64) { pending("engine_memory_release"); }
WEAK void clear_thread_memory(SearchThread*, u64) { pending("clear_thread_memory"); }
WEAK i32 search(SearchThread*, i32, int, int, i32, i32, u32, u32, u32) { pending("search"); }
WEAK i32 qsearch(SearchThread*, i32, int, int, i32, i32, u32, u32) { pending("qsearch"); }
WEAK ScoredMove* generate_root_moves(SearchThread*, ScoredMove*) { pending("generate_root_moves"); }
WEAK void search_root(SearchThread*) { pending("search_root"); }
