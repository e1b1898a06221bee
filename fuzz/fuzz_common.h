// Shared start-up and checks of the fuzz targets. A failed check aborts, which
// libFuzzer reports as a crash together with the input that caused it; the message
// goes through the sanitizer's report channel, which survives -close_fd_mask.
#pragma once
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sanitizer/common_interface_defs.h>
#include "search/thread.h"
#include "uci/uci.h"

#define FUZZ_CHECK(cond)                                                                   \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            __sanitizer_report_error_summary("check failed: " #cond);                      \
            std::abort();                                                                  \
        }                                                                                  \
    } while (0)

// The engine's own start-up (tables, compiled-in endgame tables, network check), once.
inline void fuzz_engine_startup() {
    static bool done = false;
    if (done) return;
    done = true;
    uci_startup();
}

// One search-thread record for the board targets (too large for the stack).
inline SearchThread* fuzz_thread() {
    static SearchThread* t = new SearchThread();
    return t;
}

// The input as a terminated string, cut at `limit` bytes.
inline std::string fuzz_text(const unsigned char* data, size_t size, size_t limit) {
    return std::string(reinterpret_cast<const char*>(data), size < limit ? size : limit);
}

// Masks a move word down to what identifies it (everything make_move reads).
constexpr u32 MOVE_IDENTITY = 0x03ffffffu;

// A private temporary directory, removed with its files when the process exits.
std::string fuzz_temp_dir();
// Writes `size` bytes to `path` whole (replacing it); aborts when it cannot.
void fuzz_write_file(const std::string& path, const unsigned char* data, size_t size);
