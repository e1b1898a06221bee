// Engine memory: one 64-byte aligned block holding the transposition table followed by
// the search-thread records. A new block is the whole of a new game.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include "board/platform.h"
#include "search/search.h"
#include "search/tt.h"

namespace {

constexpr int MAX_THREADS = 512;

void* clear_body(void* arg) {
    clear_thread_memory(static_cast<SearchThread*>(arg), search_shared.tt_mask + 1);
    return nullptr;
}

}  // namespace

void engine_memory_release(i64 large_page_mark) {
    if (!search_shared.tt) return;
    if (large_page_mark)
        large_pages_free(search_shared.tt, large_page_mark);
    else
        aligned_block_free(search_shared.tt);
}

void clear_thread_memory(SearchThread* thread, u64 entries) {
    u64 n = u64(search_shared.thread_count);
    u64 i = u64(thread - search_shared.main_thread);
    u64 q = entries / n, r = entries % n;
    u64 begin = i == 0 ? 0 : i * q + r;
    u64 end = (i + 1) * q + r;
    std::memset(static_cast<void*>(search_shared.tt + begin), 0, (end - begin) * sizeof(TTEntry));
    std::memset(thread->killers, 0, sizeof(thread->killers));
    std::memset(thread->counter_moves, 0, sizeof(thread->counter_moves));
    std::memset(thread->history, 0, sizeof(thread->history));
    std::memset(thread->cont_history_1, 0, sizeof(thread->cont_history_1));
    std::memset(thread->cont_history_2, 0, sizeof(thread->cont_history_2));
}

void engine_memory_init(i64* large_page_mark) {
    SearchShared& sh = search_shared;
    sh.tt_generation = 0;
    if (sh.tt) engine_memory_release(*large_page_mark);
    sh.tt = nullptr;
    sh.main_thread = nullptr;
    *large_page_mark = 0;

    // Hash and Threads below 1 have no meaning for the arithmetic below; they are taken
    // as 1 here, where the values are used, and Threads is capped at 512 records.
    i32 threads = engine_options.threads;
    if (threads < 1) threads = 1;
    if (threads > MAX_THREADS) threads = MAX_THREADS;
    sh.thread_count = threads;

    i64 h = engine_options.hash_mb < 1 ? 1 : engine_options.hash_mb;
    void* block = nullptr;
    u64 entries = 0;
    for (;;) {
        int b = msb(u64(h));
        entries = 65536ull << b;
        u64 size = (1048576ull << b) + u64(threads) * sizeof(SearchThread);
        if (engine_options.large_pages) {
            i64 mapped = 0;
            block = large_pages_alloc(size, &mapped);
            if (block) {
                *large_page_mark = mapped;
                std::printf("Allocated large pages\n");
                std::fflush(stdout);
                break;
            }
        }
        block = aligned_block_alloc(size);  // size is a multiple of 64
        if (block) break;
        if (h > 1) {
            h /= 2;
            continue;
        }
        std::printf("Memory allocation error\n");
        std::fflush(stdout);
        std::exit(1);
    }

    sh.tt_mask = entries - 1;
    sh.tt = static_cast<TTEntry*>(block);
    SearchThread* records = reinterpret_cast<SearchThread*>(static_cast<char*>(block) + 16 * entries);
    for (int i = 0; i < threads; ++i) new (records + i) SearchThread;
    sh.main_thread = records;

    // Every search thread's record and table slice is cleared at once; a clearer that
    // cannot be started leaves its share to this thread.
    bool started[MAX_THREADS] = {};
    for (int i = 1; i < threads; ++i)
        started[i] = pthread_create(&records[i].thread_handle, nullptr, clear_body, records + i) == 0;
    clear_thread_memory(records, entries);
    for (int i = 1; i < threads; ++i) {
        if (started[i])
            pthread_join(records[i].thread_handle, nullptr);
        else
            clear_thread_memory(records + i, entries);
    }
}
