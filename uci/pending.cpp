// Integration placeholders: weak definitions of routines whose modules are still
// being merged. Each placeholder must be deleted when its module arrives, since a
// weak definition linked first keeps the real one out of a static library.
#include <cstdio>
#include <cstdlib>
#include "search/search.h"

[[noreturn]] static void pending(const char* name) {
    std::fprintf(stderr, "pending: %s is not merged yet\n", name);
    std::abort();
}

#define WEAK __attribute__((weak))
WEAK i32 lmr_table[2][128][128];
WEAK void init_lmr_table() {}
WEAK void engine_memory_init(i64*) { pending("engine_memory_init"); }
WEAK void engine_memory_release(i64) { pending("engine_memory_release"); }
WEAK void clear_thread_memory(SearchThread*, u64) { pending("clear_thread_memory"); }
WEAK i32 search(SearchThread*, i32, int, int, i32, i32, u32, u32, u32) { pending("search"); }
WEAK i32 qsearch(SearchThread*, i32, int, int, i32, i32, u32, u32) { pending("qsearch"); }
WEAK ScoredMove* generate_root_moves(SearchThread*, ScoredMove*) { pending("generate_root_moves"); }
WEAK void search_root(SearchThread*) { pending("search_root"); }
