// The endgame-table reader on arbitrary and truncated files. The first byte picks a
// table and a file type; the rest becomes that file in a SyzygyPath directory (the
// compiled-in names are read from disk first, as the table tests do). Probes of a set
// of positions with that material must then give answers in range or fail, never read
// outside the file.
#include <sys/stat.h>
#include <unistd.h>
#include "fuzz_common.h"
#include "search/score.h"
#include "tb/tb.h"

namespace {

struct Target {
    const char* name;
    const char* fens[4];
};

const Target TARGETS[] = {
    {"KRvK", {"8/8/8/8/3k4/8/8/R3K3 w - - 0 1", "8/8/8/8/3k4/8/8/R3K3 b - - 0 1", "8/8/8/3K4/8/8/8/r3k3 w - - 0 1",
              "7R/8/8/8/8/2k5/8/K7 b - - 5 40"}},
    {"KQvK", {"8/8/8/4k3/8/8/8/1Q2K3 w - - 0 1", "8/8/8/4k3/8/8/8/1Q2K3 b - - 0 1", "q7/8/8/8/8/8/8/1K1k4 w - - 0 1",
              nullptr}},
    {"KPvK", {"8/8/8/4k3/8/8/P7/4K3 w - - 0 1", "8/8/8/4k3/8/8/3P4/4K3 b - - 0 1", "8/8/4k3/8/2P5/8/8/4K3 w - - 0 1",
              "4k3/7p/8/8/8/8/8/4K3 w - - 0 1"}},
    {"KRvKR", {"8/8/3k4/8/r7/8/8/R3K3 w - - 0 1", "8/8/3k4/8/r7/8/8/R3K3 b - - 0 1", "R7/8/8/8/8/8/r7/k1K5 b - - 0 1",
               nullptr}},
    {"KRPvK", {"8/8/3k4/8/8/8/1P6/R3K3 w - - 0 1", "8/8/3k4/8/8/5P2/8/R3K3 b - - 0 1",
               "4k3/4p3/8/8/8/8/8/K3r3 w - - 0 1", "8/8/8/8/8/k7/6P1/K6R w - - 0 1"}},
    {"KNvKN", {"8/8/3k1n2/8/8/8/8/N3K3 w - - 0 1", "8/8/3k1n2/8/8/8/8/N3K3 b - - 0 1", nullptr, nullptr}},
    {"KPvKP", {"8/p7/3k4/8/8/8/4P3/4K3 w - - 0 1", "8/7p/3k4/8/8/8/P7/4K3 b - - 0 1",
               "8/8/3k4/3p4/8/8/3P4/4K3 w - - 0 1", "4k3/8/8/2pP4/8/8/8/4K3 w - c6 0 2"}},
    {"KRNvKR", {"8/8/3k4/8/r7/8/8/RN2K3 w - - 0 1", "8/8/3k4/8/r7/8/8/RN2K3 b - - 0 1",
                "8/8/8/8/8/8/7R/k1K1rn2 w - - 0 1", nullptr}},
};
constexpr int TARGET_COUNT = sizeof TARGETS / sizeof TARGETS[0];

void probe_all(const Target& target) {
    SearchThread* t = fuzz_thread();
    for (const char* fen : target.fens) {
        if (!fen) continue;
        FUZZ_CHECK(fen_is_acceptable(fen));
        set_position(t, fen, nullptr);
        i32 success;
        i32 wdl = tb_probe_wdl(t, &success);
        FUZZ_CHECK(t->top == t->stack);
        if (success) FUZZ_CHECK(wdl >= -2 && wdl <= 2);
        tb_probe_dtz(t, &success);
        FUZZ_CHECK(t->top == t->stack);
        t->root_end = gen_legal(t->top, t->root_moves);
        ScoredMove* before = t->root_end;
        if (before == t->root_moves) continue;  // mated: no search, no filter
        i32 score = tb_root_filter(t);
        FUZZ_CHECK(t->top == t->stack);
        FUZZ_CHECK(t->root_end > t->root_moves && t->root_end <= before);
        FUZZ_CHECK(score == NO_SCORE || (score >= -TB_WIN_BASE - 200 && score <= TB_WIN_BASE + 200));
    }
}

}  // namespace

// The registry is built once, over two directories: the first receives the fuzzed WDL
// files, the second the fuzzed DTZ files and, for the 5-man table (which is only known
// when its files are on disk), a good WDL file and a placeholder DTZ file. Each input
// then releases its table and puts it back in the registry, since a damaged file makes
// the registry give the table up.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    fuzz_engine_startup();
    if (size < 1) return 0;
    static const std::string wdl_dir = fuzz_temp_dir() + "/w", dtz_dir = fuzz_temp_dir() + "/z";
    static TableEntry* entries[TARGET_COUNT];
    static bool made = [] {
        FUZZ_CHECK(mkdir(wdl_dir.c_str(), 0700) == 0 && mkdir(dtz_dir.c_str(), 0700) == 0);
        std::string real = std::string(VESTRA_TEST_DATA) + "/syzygy5/KRNvKR.rtbw";
        FUZZ_CHECK(symlink(real.c_str(), (dtz_dir + "/KRNvKR.rtbw").c_str()) == 0);
        fuzz_write_file(dtz_dir + "/KRNvKR.rtbz", nullptr, 0);
        tb_disk_first = true;
        search_shared.tb_largest = tb_init((wdl_dir + ";" + dtz_dir).c_str());
        FUZZ_CHECK(search_shared.tb_largest == 5);
        for (int i = 0; i < TARGET_COUNT; ++i) {
            RegistrySlot* slot = tb_find_slot(tb_name_key(TARGETS[i].name, 0));
            FUZZ_CHECK(slot && slot->entry.load());
            entries[i] = slot->entry.load();
        }
        return true;
    }();
    (void)made;

    const int which = (data[0] >> 1) % TARGET_COUNT;
    const Target& target = TARGETS[which];
    const int type = data[0] & 1;
    const std::string file = (type == TB_WDL ? wdl_dir : dtz_dir) + "/" + target.name + (type == TB_WDL ? ".rtbw" : ".rtbz");
    fuzz_write_file(file, data + 1, size - 1);

    TableEntry* e = entries[which];
    tb_release_entry(e);
    for (int mirrored = 0; mirrored < 2; ++mirrored) tb_find_slot(tb_name_key(target.name, mirrored))->entry.store(e);
    probe_all(target);
    // Again, now that the table is loaded (or given up).
    probe_all(target);
    tb_release_entry(e);

    if (which == TARGET_COUNT - 1 && type == TB_DTZ)
        fuzz_write_file(file, nullptr, 0);
    else
        unlink(file.c_str());
    return 0;
}
