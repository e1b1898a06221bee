// The command loop in-process: the input is cut into lines as the engine's reader
// cuts standard input, and each line goes to handle_line, so that commands arrive in
// any order, `go` and `stop` race with the search thread, and options take any value.
//
// Two things keep an input finite without changing what the engine does with it: a
// line that waits for a running search (setoption, ucinewgame, position, go) is
// preceded by a stop, as a GUI would send, and the table size and thread count are held
// small between lines so that an input cannot ask for gigabytes. At the end of the
// input the search is stopped and waited for; the engine's memory stays for the next
// input unless the input ended with quit, which releases it.
#include <cstdio>
#include "fuzz_common.h"
#include "tb/tb.h"

namespace {

bool waits_for_search(const char* line) {
    return !std::strncmp(line, "setoption name ", 15) || !std::strncmp(line, "ucinewgame", 10) ||
           !std::strncmp(line, "position", 8) || !std::strncmp(line, "go", 2) || !std::strncmp(line, "quit", 4);
}

void hold_small() {
    if (engine_options.hash_mb > 4) engine_options.hash_mb = 4;
    if (engine_options.threads > 3) engine_options.threads = 3;
}

void reset_engine() {
    set_default_options(&engine_options);
    hold_small();
    if (search_shared.tb_largest != 4) search_shared.tb_largest = tb_init("<empty>");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The engine's replies are of no interest here; libFuzzer reports on stderr.
    if (!std::freopen("/dev/null", "w", stdout)) std::abort();
    fuzz_engine_startup();
    reset_engine();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    static char line[8192];
    size_t at = 0;
    bool quit = false;
    while (at < size && !quit) {
        // The reader: up to 8191 bytes or through the line feed; a longer line is dropped.
        size_t n = 0;
        while (at + n < size && n < sizeof line - 1 && data[at + n] != '\n') ++n;
        if (n == sizeof line - 1) {
            while (at < size && data[at] != '\n') ++at;
            ++at;
            continue;
        }
        bool complete = at + n < size;
        std::memcpy(line, data + at, n + complete);
        line[n + complete] = 0;
        at += n + complete;

        if (waits_for_search(line)) set_stop();
        quit = !handle_line(line);
        hold_small();
    }
    if (quit) {
        uci_shutdown();
    } else {
        set_stop();
        search_shared.search_lock.acquire();
        search_shared.search_lock.release();
    }
    reset_engine();
    return 0;
}
