// Endgame tables: the index tables, the compiled-in set and its format, the reference
// values of tb_probes*.txt through both sources, damaged files and root filtering.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
#include "search/score.h"
#include "tb/tb.h"

namespace {

const std::string data_dir = VESTRA_TEST_DATA;

void init_once() {
    static bool done = false;
    if (done) return;
    set_default_options(&engine_options);
    init_board_tables();
    tb_init_index_tables();
    done = true;
}

SearchThread* thread() {
    static std::unique_ptr<SearchThread> t(new SearchThread());
    return t.get();
}

// Rebuilds the registry; the count line, when there is one, is swallowed.
i32 init_tables(const std::string& path) {
    init_once();
    testing::internal::CaptureStdout();
    i32 largest = tb_init(path.c_str());
    testing::internal::GetCapturedStdout();
    return largest;
}

struct Probe {
    std::string fen;
    int wdl, dtz;
};

std::vector<Probe> read_probes(const std::string& file) {
    std::vector<Probe> probes;
    std::ifstream in(file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t a = line.find('|'), b = line.find('|', a + 1);
        Probe p{line.substr(0, a), std::stoi(line.substr(a + 1, b - a - 1)), std::stoi(line.substr(b + 1))};
        while (!p.fen.empty() && p.fen.back() == ' ') p.fen.pop_back();
        probes.push_back(p);
    }
    return probes;
}

// The same position with colours exchanged and the board turned over.
std::string colour_reversed(const std::string& fen) {
    std::istringstream in(fen);
    std::string placement, side, castling, ep, clock, moves;
    in >> placement >> side >> castling >> ep >> clock >> moves;
    std::vector<std::string> ranks;
    std::stringstream ps(placement);
    for (std::string r; std::getline(ps, r, '/');) ranks.push_back(r);
    std::string out;
    for (size_t i = ranks.size(); i-- > 0;) {
        for (char c : ranks[i]) out += char(isupper(c) ? tolower(c) : islower(c) ? toupper(c) : c);
        if (i) out += '/';
    }
    if (ep != "-") ep[1] = char('1' + '8' - ep[1]);
    return out + (side == "w" ? " b " : " w ") + castling + " " + ep + " " + clock + " " + moves;
}

const Position* set_up(const std::string& fen) {
    init_once();
    set_position(thread(), fen.c_str(), nullptr);
    return thread()->top;
}

bool table_present(const Position* pos) {
    RegistrySlot* slot = tb_find_slot(tb_material_key(pos));
    return slot && slot->entry.load();
}

bool is_checkmate(const Position* pos) {
    ScoredMove list[MAX_MOVES];
    return (pos->flags & POS_IN_CHECK) && gen_legal(pos, list) == list;
}

// Probes every line (and its colour reversal) whose table is registered; returns the
// number of lines probed and adds a failure for each wrong value.
int check_probes(const std::vector<Probe>& probes, const char* source) {
    int probed = 0;
    for (const Probe& p : probes) {
        for (int reversed = 0; reversed < 2; ++reversed) {
            std::string fen = reversed ? colour_reversed(p.fen) : p.fen;
            const Position* pos = set_up(fen);
            if (!table_present(pos) && popcount(pos->occupied) > 2) continue;
            // The reference lists the two checkmates it holds as "2 | 0"; the side to
            // move has lost, which the tables and the probe say as -2 and -1.
            int want_wdl = p.wdl, want_dtz = p.dtz;
            if (is_checkmate(pos)) {
                EXPECT_TRUE(p.wdl == 2 && p.dtz == 0) << fen;
                want_wdl = -2;
                want_dtz = -1;
            }
            i32 success;
            i32 wdl = tb_probe_wdl(thread(), &success);
            EXPECT_NE(success, 0) << source << ": " << fen;
            EXPECT_EQ(wdl, want_wdl) << source << ": " << fen;
            i32 dtz = tb_probe_dtz(thread(), &success);
            EXPECT_NE(success, 0) << source << ": " << fen;
            EXPECT_EQ(dtz, want_dtz) << source << ": " << fen;
            EXPECT_EQ(thread()->top, &thread()->stack[0]);
            probed += !reversed;
        }
    }
    return probed;
}

std::string make_temp_dir() {
    char name[] = "/tmp/vestra_tb_XXXXXX";
    EXPECT_NE(mkdtemp(name), nullptr);
    return name;
}

std::vector<u8> read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<u8>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const u8* data, size_t size) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), std::streamsize(size));
}

void remove_dir(const std::string& dir) {
    std::string cmd = "rm -rf '" + dir + "'";
    EXPECT_EQ(system(cmd.c_str()), 0);
}

u32 find_move(const Position* pos, const char* text) {
    ScoredMove list[MAX_MOVES];
    ScoredMove* end = gen_legal(pos, list);
    for (ScoredMove* m = list; m != end; ++m) {
        char buffer[16];
        move_text(pos, m->move, buffer);
        if (!strcmp(buffer, text)) return m->move;
    }
    return 0;
}

}  // namespace

TEST(Tablebase, IndexTables) {
    init_once();
    EXPECT_EQ(binomial[0][0], 1u);
    EXPECT_EQ(binomial[2][1], 0u);
    EXPECT_EQ(binomial[3][6], 20u);
    EXPECT_EQ(binomial[6][63], 67945521u);
    const u64 row1[4] = {252, 180, 108, 36};
    for (int f = 0; f < 4; ++f) {
        EXPECT_EQ(pawn_factor[0][f], 6u);
        EXPECT_EQ(pawn_factor[1][f], row1[f]);
    }
    EXPECT_EQ(pawn_order[8], 47);   // a2
    EXPECT_EQ(pawn_order[15], 46);  // h2
    EXPECT_EQ(pawn_order[51], 1);   // d7
    EXPECT_EQ(pawn_order[52], 0);   // e7
    for (int sq : {1, 6, 8, 15, 48, 55, 57, 62}) EXPECT_EQ(king_triangle[sq], 0) << sq;  // images of b1
    for (int sq : {0, 7, 56, 63}) EXPECT_EQ(king_triangle[sq], 6) << sq;
    for (int sq = 0; sq < 64; ++sq) {
        EXPECT_EQ(diagonal_flip[diagonal_flip[sq]], sq);
        if ((sq & 7) != (sq >> 3)) {
            EXPECT_EQ(off_diagonal_index[sq], off_diagonal_index[diagonal_flip[sq]]);
        }
    }
    // 462 numbered king pairs, each number once: 0..440 first, 441..461 on the diagonal.
    std::vector<int> seen(462, 0);
    int numbered = 0;
    for (int row = 0; row < 10; ++row)
        for (int s = 0; s < 64; ++s) {
            int v = two_king_index[row][s];
            if (v < 0) continue;
            ASSERT_LT(v, 462);
            seen[v] += 1;
            numbered += 1;
            bool diagonal = (s & 7) == (s >> 3);
            EXPECT_EQ(v >= 441, row >= 6 && diagonal) << row << " " << s;
        }
    EXPECT_EQ(numbered, 462);
    for (int v = 0; v < 462; ++v) EXPECT_EQ(seen[v], 1) << v;
}

TEST(Tablebase, CompiledInSetAndRegistry) {
    init_once();
    testing::internal::CaptureStdout();
    EXPECT_EQ(tb_init("<empty>"), 4);
    EXPECT_EQ(tb_init(""), 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(wdl_file_count, 35);
    EXPECT_EQ(dtz_file_count, 35);
    EXPECT_EQ(tb_piece_entry_count + tb_pawn_entry_count, 35);

    // The directory: 70 rows in byte order, each file on a 64-byte boundary, in one region.
    ASSERT_EQ(tb_embedded_file_count, 70u);
    u64 offset = 0;
    for (u64 i = 0; i < 70; ++i) {
        const EmbeddedTableFile& f = tb_embedded_files[i];
        if (i > 0) {
            EXPECT_LT(strcmp(tb_embedded_files[i - 1].name, f.name), 0);
        }
        offset = (offset + 63) & ~u64(63);
        EXPECT_EQ(f.data, tb_embedded_region + offset) << f.name;
        EXPECT_TRUE(tb_is_embedded(f.data));
        offset += f.size;
    }
    EXPECT_EQ(u64(tb_embedded_region_end - tb_embedded_region), (offset + 63) & ~u64(63));

    // Every file walks into its layouts and the walk ends inside the file.
    for (u64 i = 0; i < 70; ++i) {
        const EmbeddedTableFile& f = tb_embedded_files[i];
        std::string name(f.name, strchr(f.name, '.'));
        int type = strstr(f.name, ".rtbz") ? TB_DTZ : TB_WDL;
        RegistrySlot* slot = tb_find_slot(tb_name_key(name.c_str(), 0));
        ASSERT_NE(slot, nullptr) << name;
        TableEntry* e = slot->entry.load();
        ASSERT_TRUE(tb_load_file(e, name.c_str(), type)) << f.name;
        IndexLayout* layouts = e->has_pawns ? (type ? reinterpret_cast<PawnTableEntry*>(e)->dtz
                                                    : reinterpret_cast<PawnTableEntry*>(e)->wdl)
                                            : (type ? &reinterpret_cast<PieceTableEntry*>(e)->dtz
                                                    : reinterpret_cast<PieceTableEntry*>(e)->wdl);
        int n = (e->has_pawns ? 4 : 1) * (type ? 1 : 2);
        u64 end = 0;
        for (int k = 0; k < n; ++k) {
            const PairDecoder* d = layouts[k].decoder;
            if (!d || d->index_bits == 0) continue;
            end = std::max(end, u64(d->blocks - f.data) + (u64(d->real_blocks) << d->block_size_log2));
        }
        if (end) {
            EXPECT_LE(end, f.size) << f.name;
            EXPECT_LT(f.size - end, 64u) << f.name;
        }
    }

    // Keys and slots.
    Position kk = *set_up("8/8/8/4k3/8/8/8/4K3 w - - 0 1");
    EXPECT_EQ(tb_material_key(&kk), 2u);
    EXPECT_EQ(tb_find_slot(2), nullptr);
    TableEntry* krvkq = tb_find_slot(tb_name_key("KQvKR", 0))->entry.load();
    EXPECT_EQ(tb_find_slot(tb_name_key("KQvKR", 1))->entry.load(), krvkq);
    EXPECT_EQ(tb_material_key(set_up("8/8/8/4k3/8/8/8/q3KR2 w - - 0 1")), tb_name_key("KQvKR", 1));
    EXPECT_TRUE(tb_find_slot(tb_name_key("KQvKQ", 0))->entry.load()->symmetric);
    int kqkq_slots = 0;
    for (const RegistrySlot& s : tb_registry) kqkq_slots += s.key == tb_name_key("KQvKQ", 0);
    EXPECT_EQ(kqkq_slots, 1);

    // Constant and unsplit files.
    const PieceTableEntry* kbk = reinterpret_cast<PieceTableEntry*>(tb_find_slot(tb_name_key("KBvK", 0))->entry.load());
    EXPECT_EQ(kbk->wdl[0].decoder->index_bits, 0);
    EXPECT_EQ(kbk->wdl[0].decoder->constant_value[0], 2);  // draw
    EXPECT_EQ(kbk->dtz_flags, 0x80);
    const PieceTableEntry* kqkq = reinterpret_cast<PieceTableEntry*>(tb_find_slot(tb_name_key("KQvKQ", 0))->entry.load());
    EXPECT_EQ(kqkq->wdl[1].decoder, nullptr);
    const PawnTableEntry* krkp = reinterpret_cast<PawnTableEntry*>(tb_find_slot(tb_name_key("KRvKP", 0))->entry.load());
    for (int t = 0; t < 4; ++t) EXPECT_TRUE(krkp->dtz_flags[t] & 2) << t;

    // Index numbers of two positions: KQvK with Ke1 Qd1 ke8, KBBvK with Ke1 Bc1 Bf1 ke8.
    struct Case {
        const char* fen;
        const char* table;
        u64 index;
    } cases[] = {{"4k3/8/8/8/8/8/8/3QK3 w - - 0 1", "KQvK", 11466}, {"4k3/8/8/8/8/8/8/2B1KB2 w - - 0 1", "KBBvK", 816985}};
    for (const Case& c : cases) {
        const Position* pos = set_up(c.fen);
        const PieceTableEntry* pe = reinterpret_cast<PieceTableEntry*>(tb_find_slot(tb_name_key(c.table, 0))->entry.load());
        const IndexLayout* layout = &pe->wdl[0];
        i32 p[8];
        int count = 0;
        for (int i = 0; i < pe->base.men; ++i)
            if (i == 0 || layout->pieces[i] != layout->pieces[i - 1])
                count = tb_collect_squares(pos, layout, 0, 0, p, count, i);
        ASSERT_EQ(count, pe->base.men);
        EXPECT_EQ(tb_encode_position(p, layout, &pe->base, false), c.index) << c.table;
    }
}

TEST(Tablebase, ReferenceValuesFromBothSources) {
    std::vector<Probe> probes = read_probes(data_dir + "/tb_probes.txt");
    ASSERT_GT(probes.size(), 500u);
    init_tables("<empty>");
    EXPECT_EQ(check_probes(probes, "compiled-in"), int(probes.size()));

    // The same files read from a directory, mapped from disk.
    tb_disk_first = true;
    init_tables(std::string(VESTRA_TEST_DATA) + "/../../data/syzygy");
    EXPECT_EQ(check_probes(probes, "disk"), int(probes.size()));
    int mapped = 0;
    for (int i = 0; i < tb_piece_entry_count; ++i) mapped += tb_piece_entries[i].base.mapping[TB_WDL] != 0;
    for (int i = 0; i < tb_pawn_entry_count; ++i) mapped += tb_pawn_entries[i].base.mapping[TB_WDL] != 0;
    EXPECT_GE(mapped, 30);
    tb_disk_first = false;
    init_tables("<empty>");
}

TEST(Tablebase, FiveManTables) {
    std::vector<Probe> probes = read_probes(data_dir + "/tb_probes5.txt");
    ASSERT_GT(probes.size(), 250u);
    testing::internal::CaptureStdout();
    init_once();
    EXPECT_EQ(tb_init((data_dir + "/syzygy5").c_str()), 5);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "info string Found 36 WDL and 36 DTZ tablebase files.\n");
    EXPECT_GT(check_probes(probes, "tests/data/syzygy5"), 150);
    // The 4-man copies there are the compiled-in files; read them from disk once too.
    tb_disk_first = true;
    init_tables(data_dir + "/syzygy5");
    EXPECT_GT(check_probes(probes, "tests/data/syzygy5, from disk"), 150);
    tb_disk_first = false;

    struct stat st;
    if (stat("/work/shared/syzygy5", &st) == 0) {
        init_tables("/work/shared/syzygy5");
        EXPECT_EQ(check_probes(probes, "/work/shared/syzygy5"), int(probes.size()));
    }
    init_tables("<empty>");
}

TEST(Tablebase, PathsAndDamagedFiles) {
    init_once();
    std::vector<u8> wdl = read_file(data_dir + "/syzygy5/KRNvKR.rtbw");
    std::vector<u8> dtz = read_file(data_dir + "/syzygy5/KRNvKR.rtbz");
    ASSERT_GT(wdl.size(), 100000u);
    std::string good = make_temp_dir(), cut = make_temp_dir(), garbled = make_temp_dir(), wdl_only = make_temp_dir();
    write_file(good + "/KRNvKR.rtbw", wdl.data(), wdl.size());
    write_file(good + "/KRNvKR.rtbz", dtz.data(), dtz.size());
    write_file(cut + "/KRNvKR.rtbw", wdl.data(), wdl.size() / 2);
    std::vector<u8> noise = wdl;
    u64 state = 12345;
    for (size_t i = 5; i < 400; ++i) {
        state = state * 6364136223846793005ULL + 1442695040888963407ULL;
        noise[i] = u8(state >> 56);
    }
    write_file(garbled + "/KRNvKR.rtbw", noise.data(), noise.size());
    write_file(wdl_only + "/KRNvKR.rtbw", wdl.data(), wdl.size());
    write_file(wdl_only + "/KQvK.rtbw", noise.data(), 1000);  // never opened: compiled-in name

    const char* krnkr = "8/3r4/3N4/8/6R1/2K5/8/k7 w - - 0 1";  // a win, no capture to make
    const char* kqk = "4k3/8/8/8/8/8/8/3QK3 w - - 0 1";
    auto counts = [](const std::string& path) {
        testing::internal::CaptureStdout();
        tb_init(path.c_str());
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(counts("/nonexistent/dir"), "info string Found 35 WDL and 35 DTZ tablebase files.\n");
    EXPECT_EQ(counts(";" + wdl_only + ";;"), "info string Found 36 WDL and 35 DTZ tablebase files.\n");

    // The compiled-in file wins over one on disk; a table without DTZ answers WDL only.
    i32 success;
    set_up(kqk);
    EXPECT_EQ(tb_probe_wdl(thread(), &success), 2);
    EXPECT_EQ(success, 1);
    set_up(krnkr);
    i32 v = tb_probe_wdl(thread(), &success);
    EXPECT_EQ(success, 1);
    EXPECT_NE(v, 0);
    tb_probe_dtz(thread(), &success);
    EXPECT_EQ(success, 0);
    thread()->root_end = gen_legal(thread()->top, thread()->root_moves);
    ScoredMove* end_before = thread()->root_end;
    EXPECT_EQ(tb_root_filter(thread()), NO_SCORE);
    EXPECT_EQ(thread()->root_end, end_before);

    // A damaged file gives up its own table once, silently afterwards; others still answer.
    for (const std::string& dir : {cut, garbled}) {
        for (const std::string& path : {dir, dir + ";" + good}) {
            init_tables(path);
            testing::internal::CaptureStderr();
            for (int i = 0; i < 3; ++i) {
                set_up(krnkr);
                tb_probe_wdl(thread(), &success);
                EXPECT_EQ(success, 0) << path;
            }
            set_up(kqk);
            EXPECT_EQ(tb_probe_wdl(thread(), &success), 2);
            EXPECT_EQ(success, 1);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), "Corrupted table.\n") << path;
        }
    }
    // Named first, the good copy hides the damaged one.
    init_tables(good + ";" + cut);
    set_up(krnkr);
    EXPECT_EQ(tb_probe_wdl(thread(), &success), v);
    EXPECT_EQ(success, 1);
    tb_probe_dtz(thread(), &success);
    EXPECT_NE(success, 0);

    // Random damage anywhere in small files: loads or refuses, probes answer in range or
    // fail, and nothing crashes or reads outside the file.
    std::vector<Probe> probes = read_probes(data_dir + "/tb_probes.txt");
    std::string fuzz = make_temp_dir();
    const char* names[] = {"KRvKB.rtbw", "KRvKB.rtbz", "KPvK.rtbw", "KPvK.rtbz"};
    const u64 krkb[2] = {tb_name_key("KRvKB", 0), tb_name_key("KRvKB", 1)};
    const u64 kpk[2] = {tb_name_key("KPvK", 0), tb_name_key("KPvK", 1)};
    tb_disk_first = true;
    testing::internal::CaptureStderr();
    for (int round = 0; round < 50; ++round) {
        for (const char* name : names) {
            const EmbeddedTableFile* f = nullptr;
            for (u64 i = 0; i < tb_embedded_file_count; ++i)
                if (!strcmp(tb_embedded_files[i].name, name)) f = &tb_embedded_files[i];
            ASSERT_NE(f, nullptr);
            std::vector<u8> bytes(f->data, f->data + f->size);
            state = state * 6364136223846793005ULL + 1442695040888963407ULL;
            int damage = 1 + int(state >> 60);
            for (int d = 0; d < damage; ++d) {
                state = state * 6364136223846793005ULL + 1442695040888963407ULL;
                size_t at = (state >> 33) % (round & 1 ? bytes.size() : std::min<size_t>(bytes.size(), 256));
                bytes[at] ^= u8(1 + (state >> 24) % 255);
            }
            if (round % 5 == 4) bytes.resize((state >> 20) % bytes.size());
            write_file(fuzz + "/" + name, bytes.data(), bytes.size());
        }
        init_tables(fuzz);
        for (const Probe& p : probes) {
            u64 key = tb_material_key(set_up(p.fen));
            if (key != krkb[0] && key != krkb[1] && key != kpk[0] && key != kpk[1]) continue;
            i32 w = tb_probe_wdl(thread(), &success);
            if (success) {
                EXPECT_TRUE(w >= -2 && w <= 2);
            }
            tb_probe_dtz(thread(), &success);
            EXPECT_EQ(thread()->top, &thread()->stack[0]);
        }
    }
    testing::internal::GetCapturedStderr();
    tb_disk_first = false;
    init_tables("<empty>");
    for (const std::string& dir : {good, cut, garbled, wdl_only, fuzz}) remove_dir(dir);
}

TEST(Tablebase, RootFiltering) {
    init_tables("<empty>");
    engine_options.syzygy_50_move_rule = true;
    SearchThread* t = thread();
    auto filter = [t](const char* fen, int clock, bool repetition) {
        const Position* pos = set_up(fen);
        thread()->stack[0].halfmove_clock = u8(clock);
        if (repetition) thread()->stack[0].flags |= POS_REPETITION;
        t->root_end = gen_legal(pos, t->root_moves);
        return tb_root_filter(t);
    };
    // The opponent's DTZ after a move (its WDL scaled when the move zeroes the clock).
    auto child_dtz = [t](u32 move) {
        make_move(t, move, nullptr);
        i32 success, r;
        if (t->top->halfmove_clock == 0) {
            r = tb_probe_wdl(t, &success);
            r = r == -2 ? -1 : r == 2 ? 1 : r * 101;
        } else {
            r = tb_probe_dtz(t, &success);
        }
        t->top -= 1;
        EXPECT_NE(success, 0);
        return r;
    };

    // A plain win, clock 0, the rook attacked: every kept move keeps the win inside the
    // fifty moves, and the moves that leave the rook are gone.
    const char* krk = "8/8/8/4k3/3R4/8/8/K7 w - - 0 1";
    set_up(krk);
    int all = int(gen_legal(t->top, t->root_moves) - t->root_moves);
    i32 score = filter(krk, 0, false);
    EXPECT_EQ(score, TB_WIN_BASE + 100);
    int kept = int(t->root_end - t->root_moves);
    EXPECT_GT(kept, 1);
    EXPECT_LT(kept, all);
    i32 quickest = 1000;
    for (ScoredMove* m = t->root_moves; m != t->root_end; ++m) {
        i32 r = child_dtz(m->move);
        EXPECT_LT(r, 0);
        EXPECT_LE(1 + -r, 100);
        quickest = std::min(quickest, 1 - r);
    }
    set_up(krk);
    i32 success;
    EXPECT_EQ(quickest, tb_probe_dtz(t, &success));

    // After a repetition, or near the fifty moves, only the quickest moves stay.
    for (int clock : {0, 90}) {
        score = filter(krk, clock, clock == 0);
        ASSERT_GT(t->root_end - t->root_moves, 0);
        for (ScoredMove* m = t->root_moves; m != t->root_end; ++m) EXPECT_EQ(1 - child_dtz(m->move), quickest);
        EXPECT_EQ(score, clock == 0 ? TB_WIN_BASE + 100 : 0);
    }
    engine_options.syzygy_50_move_rule = false;
    EXPECT_EQ(filter(krk, 90, false), TB_WIN_BASE + 100);
    engine_options.syzygy_50_move_rule = true;

    // A mate in one is kept.
    filter("k7/8/1K6/8/8/8/8/2Q5 w - - 0 1", 0, false);
    u32 mate = find_move(set_up("k7/8/1K6/8/8/8/8/2Q5 w - - 0 1"), "c1c8");
    ASSERT_NE(mate, 0u);
    bool found = false;
    for (ScoredMove* m = t->root_moves; m != t->root_end; ++m) found |= (m->move & ~MOVE_GIVES_CHECK) == (mate & ~MOVE_GIVES_CHECK);
    EXPECT_TRUE(found);

    // A loss far from the fifty moves keeps every move.
    const char* krk_lost = "7k/8/8/8/3R4/8/8/K7 b - - 0 1";
    set_up(krk_lost);
    all = int(gen_legal(t->top, t->root_moves) - t->root_moves);
    EXPECT_EQ(filter(krk_lost, 0, false), -100 - TB_WIN_BASE);
    EXPECT_EQ(t->root_end - t->root_moves, all);

    // A drawn position keeps only the moves that hold the draw.
    const char* draws[] = {"3qk3/8/8/8/8/8/8/3QK3 w - - 0 1", "8/8/4q3/3k4/8/8/2Q5/K7 w - - 0 1"};
    for (const char* fen : draws) {
        set_up(fen);
        all = int(gen_legal(t->top, t->root_moves) - t->root_moves);
        EXPECT_EQ(filter(fen, 0, false), 0) << fen;
        kept = int(t->root_end - t->root_moves);
        EXPECT_GT(kept, 0) << fen;
        EXPECT_LT(kept, all) << fen;
        for (ScoredMove* m = t->root_moves; m != t->root_end; ++m) EXPECT_EQ(child_dtz(m->move), 0) << fen;
        EXPECT_EQ(t->top, &t->stack[0]);
    }
}

TEST(Tablebase, ConcurrentFirstProbes) {
    // Several threads meet every table unloaded; each file is loaded once, under the lock.
    std::vector<Probe> probes = read_probes(data_dir + "/tb_probes.txt");
    std::vector<Position> positions;  // set up here: set_position belongs to one thread
    for (const Probe& p : probes) positions.push_back(*set_up(p.fen));
    init_tables("<empty>");
    std::vector<std::vector<i32>> results(4);
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w)
        workers.emplace_back([&, w] {
            std::unique_ptr<SearchThread> st(new SearchThread());
            for (size_t i = 0; i < positions.size(); ++i) {
                st->stack[0] = positions[(i + w * 131) % positions.size()];
                st->top = st->stack;
                i32 success;
                results[w].push_back(tb_probe_wdl(st.get(), &success) * 1000 + tb_probe_dtz(st.get(), &success));
            }
        });
    for (std::thread& w : workers) w.join();
    for (int w = 0; w < 4; ++w)
        for (size_t i = 0; i < positions.size(); ++i) {
            const Probe& p = probes[(i + w * 131) % positions.size()];
            if (is_checkmate(set_up(p.fen))) continue;
            EXPECT_EQ(results[w][i], p.wdl * 1000 + p.dtz) << p.fen;
        }
}
