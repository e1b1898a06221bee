// The table registry: which tables exist, their records, the lookup by material key,
// and the lazy load of a table's files (compiled-in, or mapped from SyzygyPath).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include "board/platform.h"
#include "tb/tb.h"

RegistrySlot tb_registry[TB_REGISTRY_SIZE];
PieceTableEntry tb_piece_entries[TB_PIECE_ENTRIES];
PawnTableEntry tb_pawn_entries[TB_PAWN_ENTRIES];
i32 tb_piece_entry_count, tb_pawn_entry_count;
char** tb_paths;
i32 tb_path_count;
i32 wdl_file_count, dtz_file_count;
std::atomic<i32> tb_load_lock;
bool tb_disk_first;

static char* tb_path_text;

// Material weights by piece code (pawn..queen; kings count 1), White then Black.
static const u64 material_white[7] = {0, 0x5ced000000000101ULL, 0xe173000000001001ULL, 0xd64d000000010001ULL,
                                      0xab88000000100001ULL, 0x680b000001000001ULL, 1};
static const u64 material_black[7] = {0, 0xf219000010000001ULL, 0xbb14000100000001ULL, 0x58df001000000001ULL,
                                      0xa15f010000000001ULL, 0x7c94100000000001ULL, 1};

static int letter_piece(char c) {
    switch (c) {
        case 'P': return PAWN;
        case 'N': return KNIGHT;
        case 'B': return BISHOP;
        case 'R': return ROOK;
        case 'Q': return QUEEN;
        case 'K': return KING;
        default: return NO_PIECE;
    }
}

u64 tb_material_key(const Position* pos) {
    u64 white = pos->own, black = pos->occupied ^ pos->own;
    if (pos->flags & POS_BLACK) {
        u64 t = white;
        white = black;
        black = t;
    }
    u64 key = 0;
    for (int pc = PAWN; pc <= KING; ++pc) {
        key += u64(popcount(pos->boards[pc] & white)) * material_white[pc];
        key += u64(popcount(pos->boards[pc] & black)) * material_black[pc];
    }
    return key;
}

u64 tb_name_key(const char* name, int mirrored) {
    u64 key = 0;
    int side = 0;
    for (const char* c = name; *c; ++c) {
        if (*c == 'v') {
            side = 1;
            continue;
        }
        int pc = letter_piece(*c);
        if (pc == NO_PIECE) continue;
        key += (side ^ mirrored) ? material_black[pc] : material_white[pc];
    }
    return key;
}

bool tb_is_embedded(const u8* view) { return view >= tb_embedded_region && view < tb_embedded_region_end; }

RegistrySlot* tb_find_slot(u64 key) {
    for (u32 i = u32(key >> 52);; i = (i + 1) & (TB_REGISTRY_SIZE - 1)) {
        RegistrySlot* slot = &tb_registry[i];
        if (slot->key == key) return slot;
        if (slot->key == 0) return nullptr;
    }
}

bool tb_open_file(const char* name, const char* extension, ReadOnlyFile* file) {
    char file_name[256];
    for (int i = 0; i < tb_path_count; ++i) {
        // '/' separates on Windows as well, so a directory given as Z:\tables works.
        int n = snprintf(file_name, sizeof file_name, "%s/%s%s", tb_paths[i], name, extension);
        if (n < 0 || n >= int(sizeof file_name)) continue;  // too long: this directory is skipped
        if (file_open_read_only(file_name, file)) return true;
    }
    return false;
}

static void insert_slot(u64 key, TableEntry* entry) {
    u32 i = u32(key >> 52);
    while (tb_registry[i].entry.load(std::memory_order_relaxed) != nullptr) i = (i + 1) & (TB_REGISTRY_SIZE - 1);
    tb_registry[i].key = key;
    tb_registry[i].entry.store(entry, std::memory_order_relaxed);
}

void tb_register_table(const char* name, i32* largest) {
    bool on_disk = strlen(name) >= 6;
    if (on_disk) {
        ReadOnlyFile file;
        if (!tb_open_file(name, ".rtbw", &file)) return;
        file_close(&file);
    }

    int count[2][7] = {};
    int side = 0;
    for (const char* c = name; *c; ++c) {
        if (*c == 'v')
            side = 1;
        else
            count[side][letter_piece(*c)] += 1;
    }
    u64 key = tb_name_key(name, 0), key2 = tb_name_key(name, 1);
    bool pawns = count[0][PAWN] + count[1][PAWN] > 0;

    TableEntry* e;
    if (pawns) {
        if (tb_pawn_entry_count >= TB_PAWN_ENTRIES) return;
        e = &tb_pawn_entries[tb_pawn_entry_count++].base;
    } else {
        if (tb_piece_entry_count >= TB_PIECE_ENTRIES) return;
        e = &tb_piece_entries[tb_piece_entry_count++].base;
    }
    e->key = key;
    int men = 0;
    for (int s = 0; s < 2; ++s)
        for (int pc = PAWN; pc <= KING; ++pc) men += count[s][pc];
    e->men = u8(men);
    e->symmetric = key == key2;
    e->has_pawns = pawns;
    wdl_file_count += 1;

    if (on_disk) {
        ReadOnlyFile file;
        e->has_dtz = tb_open_file(name, ".rtbz", &file);
        if (e->has_dtz) file_close(&file);
    } else {
        e->has_dtz = true;
    }
    dtz_file_count += e->has_dtz;

    if (men > *largest) *largest = men;
    for (int t = 0; t < 2; ++t) {
        e->ready[t].store(0, std::memory_order_relaxed);
        e->view[t] = nullptr;
        e->mapping[t] = 0;
        e->file_size[t] = 0;
    }

    if (pawns) {
        int lead = count[0][PAWN], other = count[1][PAWN];
        if ((other > 0 && lead == 0) || (lead > other && other > 0)) {
            int t = lead;
            lead = other;
            other = t;
        }
        e->lead_pawns = u8(lead);
        e->other_pawns = u8(other);
    } else {
        int singles = 0;
        for (int s = 0; s < 2; ++s)
            for (int pc = PAWN; pc <= KING; ++pc) singles += count[s][pc] == 1;
        e->other_pawns = 0;
        e->two_king_encoding = singles == 2;
    }

    insert_slot(key, e);
    if (key2 != key) insert_slot(key2, e);
}

static void free_decoders(TableEntry* e, int type) {
    if (e->has_pawns) {
        PawnTableEntry* p = reinterpret_cast<PawnTableEntry*>(e);
        IndexLayout* layouts = type == TB_WDL ? p->wdl : p->dtz;
        int n = type == TB_WDL ? 8 : 4;
        for (int i = 0; i < n; ++i) {
            free(layouts[i].decoder);
            layouts[i].decoder = nullptr;
        }
    } else {
        PieceTableEntry* p = reinterpret_cast<PieceTableEntry*>(e);
        IndexLayout* layouts = type == TB_WDL ? p->wdl : &p->dtz;
        int n = type == TB_WDL ? 2 : 1;
        for (int i = 0; i < n; ++i) {
            free(layouts[i].decoder);
            layouts[i].decoder = nullptr;
        }
    }
}

static void unmap_view(TableEntry* e, int type) {
    if (e->view[type] && !tb_is_embedded(e->view[type]) && e->mapping[type])
        file_unmap(e->view[type], e->mapping[type]);
    e->view[type] = nullptr;
    e->mapping[type] = 0;
    e->file_size[type] = 0;
}

void tb_release_entry(TableEntry* e) {
    for (int type = 0; type < 2; ++type) {
        if (!e->ready[type].load(std::memory_order_relaxed)) continue;
        unmap_view(e, type);
        free_decoders(e, type);
        e->ready[type].store(0, std::memory_order_relaxed);
    }
}

static void report_corrupted() { fputs("Corrupted table.\n", stderr); }

bool tb_load_file(TableEntry* e, const char* name, int type) {
    static const char* const extensions[2] = {".rtbw", ".rtbz"};
    static const u32 magic[2] = {0x5d23e871u, 0xa50c66d7u};
    const char* ext = extensions[type];
    const u8* view = nullptr;
    u64 size = 0;

    bool disk_only = strlen(name) >= 6;
    ReadOnlyFile file;
    if ((disk_only || tb_disk_first) && tb_open_file(name, ext, &file)) {
        size = file.size;
        if (size < 4) {
            // Nothing to map: an empty or cut-off file cannot even hold the magic number.
            file_close(&file);
            report_corrupted();
            return false;
        }
        view = file_map_read_only(&file);
        file_close(&file);
        if (!view) {
            fprintf(stderr, "Could not map %s%s into memory.\n", name, ext);
            exit(1);
        }
        e->mapping[type] = size;
    } else if (disk_only) {
        return false;
    } else {
        char file_name[40];
        snprintf(file_name, sizeof file_name, "%s%s", name, ext);
        for (u64 i = 0; i < tb_embedded_file_count; ++i)
            if (strcmp(tb_embedded_files[i].name, file_name) == 0) {
                view = tb_embedded_files[i].data;
                size = tb_embedded_files[i].size;
                break;
            }
        if (!view) return false;
        e->mapping[type] = 0;
    }
    e->view[type] = view;
    e->file_size[type] = size;

    u32 m = size >= 4 ? u32(view[0]) | u32(view[1]) << 8 | u32(view[2]) << 16 | u32(view[3]) << 24 : 0;
    if (m != magic[type] || !tb_build_layouts(e, view, size, type)) {
        report_corrupted();
        unmap_view(e, type);
        free_decoders(e, type);
        return false;
    }
    e->ready[type].store(1, std::memory_order_release);
    return true;
}

void tb_table_name(const Position* pos, const TableEntry* entry, char* name) {
    u64 white = pos->own, black = pos->occupied ^ pos->own;
    if (pos->flags & POS_BLACK) {
        u64 t = white;
        white = black;
        black = t;
    }
    if (tb_material_key(pos) != entry->key) {
        u64 t = white;
        white = black;
        black = t;
    }
    static const int order[6] = {KING, QUEEN, ROOK, BISHOP, KNIGHT, PAWN};
    static const char letters[7] = {0, 'P', 'N', 'B', 'R', 'Q', 'K'};
    int n = 0;
    for (int side = 0; side < 2; ++side) {
        u64 men = side == 0 ? white : black;
        if (side == 1) name[n++] = 'v';
        for (int pc : order) {
            int c = popcount(pos->boards[pc] & men);
            for (int i = 0; i < c && n < 30; ++i) name[n++] = letters[pc];
        }
    }
    name[n] = 0;
}

// The sides of a name: letters Q R B N P with repeats, never stronger after weaker.
static int make_sides(int length, char sides[][6]) {
    static const char letters[] = "QRBNP";
    int count = 0;
    int idx[5];
    for (int i = 0; i < length; ++i) idx[i] = 0;
    for (;;) {
        for (int i = 0; i < length; ++i) sides[count][i] = letters[idx[i]];
        sides[count][length] = 0;
        ++count;
        int i = length - 1;
        while (i >= 0 && idx[i] == 4) --i;
        if (i < 0) break;
        idx[i] += 1;
        for (int j = i + 1; j < length; ++j) idx[j] = idx[i];
    }
    return count;
}

static void register_stage(int left, int right, i32* largest) {
    static char left_sides[126][6], right_sides[126][6];
    int nl = make_sides(left, left_sides);
    int nr = right > 0 ? make_sides(right, right_sides) : 1;
    if (right == 0) right_sides[0][0] = 0;
    char name[32];
    for (int a = 0; a < nl; ++a)
        for (int b = 0; b < nr; ++b) {
            if (left == right && b < a) continue;
            int n = 0;
            name[n++] = 'K';
            for (const char* c = left_sides[a]; *c; ++c) name[n++] = *c;
            name[n++] = 'v';
            name[n++] = 'K';
            for (const char* c = right_sides[b]; *c; ++c) name[n++] = *c;
            name[n] = 0;
            tb_register_table(name, largest);
        }
}

i32 tb_init(const char* path) {
    free(tb_path_text);
    free(tb_paths);
    tb_path_text = nullptr;
    tb_paths = nullptr;
    tb_path_count = 0;
    for (int i = 0; i < tb_piece_entry_count; ++i) tb_release_entry(&tb_piece_entries[i].base);
    for (int i = 0; i < tb_pawn_entry_count; ++i) tb_release_entry(&tb_pawn_entries[i].base);

    tb_load_lock.store(0, std::memory_order_relaxed);
    wdl_file_count = dtz_file_count = 0;
    tb_piece_entry_count = tb_pawn_entry_count = 0;
    for (RegistrySlot& slot : tb_registry) {
        slot.key = 0;
        slot.entry.store(nullptr, std::memory_order_relaxed);
    }
    i32 largest = 0;

    static const int stages[11][2] = {{1, 0}, {1, 1}, {2, 0}, {2, 1}, {3, 0}, {2, 2},
                                      {3, 1}, {4, 0}, {5, 0}, {4, 1}, {3, 2}};
    for (int s = 0; s < 3; ++s) register_stage(stages[s][0], stages[s][1], &largest);

    if (!path || !*path || strcmp(path, "<empty>") == 0) return largest;

    size_t len = strlen(path);
    tb_path_text = static_cast<char*>(malloc(len + 1));
    tb_paths = static_cast<char**>(malloc(sizeof(char*) * (len + 1)));
    if (!tb_path_text || !tb_paths) {
        fputs("Memory allocation error\n", stdout);
        exit(1);
    }
    memcpy(tb_path_text, path, len + 1);
    for (char* segment = tb_path_text;;) {
        char* end = strchr(segment, ';');
        if (end) *end = 0;
        if (*segment) tb_paths[tb_path_count++] = segment;
        if (!end) break;
        segment = end + 1;
    }

    for (int s = 3; s < 11; ++s) register_stage(stages[s][0], stages[s][1], &largest);
    printf("info string Found %d WDL and %d DTZ tablebase files.\n", wdl_file_count, dtz_file_count);
    fflush(stdout);
    return largest;
}
