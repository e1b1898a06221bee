// Syzygy endgame tables: the compiled-in 3- and 4-man set and SyzygyPath directories.
#pragma once
#include <atomic>
#include "board/platform.h"
#include "board/records.h"

// Rebuilds the registry from a ";"-separated directory list ("<empty>" for none) plus
// the compiled-in tables; returns the most men of any table known.
i32 tb_init(const char* path);
// Builds the constant index tables; once, at start-up, before tb_init.
void tb_init_index_tables();
// WDL of the top position for the side to move, -2..2; *success 0 when no table answers.
i32 tb_probe_wdl(SearchThread* thread, i32* success);
i32 tb_probe_dtz(SearchThread* thread, i32* success);
// Filters the root moves of `thread` by the tables; returns the score to report, or
// NO_SCORE when the tables had no answer.
i32 tb_root_filter(SearchThread* thread);

// ---------------------------------------------------------------------------------
// Records and routines behind the probes (also used by tools and tests).

constexpr int TB_WDL = 0;
constexpr int TB_DTZ = 1;
constexpr int TB_PIECE_ENTRIES = 650;
constexpr int TB_PAWN_ENTRIES = 861;
constexpr int TB_REGISTRY_SIZE = 4096;

// One row of the compiled-in directory.
struct EmbeddedTableFile {
    char name[32];
    u64 size;
    const u8* data;
};
static_assert(sizeof(EmbeddedTableFile) == 48);

extern "C" const EmbeddedTableFile tb_embedded_files[];
extern "C" const u64 tb_embedded_file_count;
extern "C" const u8 tb_embedded_region[];
extern "C" const u8 tb_embedded_region_end[];

// One compressed value stream; allocated with its tail (code bases, symbol lengths).
struct PairDecoder {
    const u8* block_index;
    const u8* block_sizes;
    const u8* blocks;
    const u8* code_offsets;
    const u8* symbol_lengths;
    const u8* symbol_pairs;
    const u8* data_end;     // end of the file: reads past it see zero bits
    u64* code_bases;
    u32 real_blocks;
    u32 total_blocks;       // real plus extra, the length of block_sizes
    u32 symbol_count;
    u8 block_size_log2;
    u8 index_bits;          // 0: constant stream
    u8 min_code_length;
    u8 max_code_length;
    u8 constant_value[2];
};

struct IndexLayout {
    PairDecoder* decoder;
    u64 factor[7];
    u64 positions;          // size of the index space
    u8 pieces[7];
    u8 group_size[7];
};

struct TableEntry {
    u64 key;
    const u8* view[2];
    u64 mapping[2];         // length of the mapping of a disk file, 0 for a compiled-in one
    u64 file_size[2];
    std::atomic<u8> ready[2];
    u8 men;
    bool symmetric;
    bool has_pawns;
    bool has_dtz;
    union {
        bool two_king_encoding;
        u8 lead_pawns;
    };
    u8 other_pawns;
};

struct PieceTableEntry {
    TableEntry base;
    IndexLayout wdl[2];
    IndexLayout dtz;
    const u8* dtz_map;
    u16 dtz_map_index[4];
    u8 dtz_flags;
};

struct PawnTableEntry {
    TableEntry base;
    IndexLayout wdl[8];
    IndexLayout dtz[4];
    const u8* dtz_map;
    u16 dtz_map_index[4][4];
    u8 dtz_flags[4];
};

struct RegistrySlot {
    u64 key;
    std::atomic<TableEntry*> entry;
};

extern RegistrySlot tb_registry[TB_REGISTRY_SIZE];
extern PieceTableEntry tb_piece_entries[TB_PIECE_ENTRIES];
extern PawnTableEntry tb_pawn_entries[TB_PAWN_ENTRIES];
extern i32 tb_piece_entry_count, tb_pawn_entry_count;
extern char** tb_paths;
extern i32 tb_path_count;
extern i32 wdl_file_count, dtz_file_count;
extern std::atomic<i32> tb_load_lock;
// Off in the engine. When set, the compiled-in names are looked for in the SyzygyPath
// directories first, so that tests can read the same files from disk.
extern bool tb_disk_first;

// Index tables.
extern u64 binomial[7][64];
extern u64 pawn_index[6][24];
extern u64 pawn_factor[6][4];
extern u8 file_fold[8];
extern u8 diagonal_flip[64];
extern u8 pawn_order[64];
extern u8 pawn_slot[64];
extern u8 king_triangle[64];
extern u8 off_diagonal_index[64];
extern i16 two_king_index[10][64];

// Registry (material keys, registration, files).
u64 tb_material_key(const Position* pos);
u64 tb_name_key(const char* name, int mirrored);
void tb_register_table(const char* name, i32* largest);
// Opens name + extension in the first directory of SyzygyPath that has it.
bool tb_open_file(const char* name, const char* extension, ReadOnlyFile* file);
bool tb_load_file(TableEntry* entry, const char* name, int type);
void tb_release_entry(TableEntry* entry);
// The table name of the position's material, left side as registered in `entry`.
void tb_table_name(const Position* pos, const TableEntry* entry, char* name);
// The slot of a material key, or null when the key was never registered.
RegistrySlot* tb_find_slot(u64 key);
bool tb_is_embedded(const u8* view);

// File format.
bool tb_build_layouts(TableEntry* entry, const u8* file, u64 size, int type);
// The two value bytes of a position; false when the stream is damaged.
bool tb_decode_value(const PairDecoder* decoder, u64 index, u8* out);

// Position index.
int tb_collect_squares(const Position* pos, const IndexLayout* layout, int flip, int mirror, i32* p, int count, int i);
u64 tb_encode_position(i32* p, const IndexLayout* layout, const TableEntry* entry, bool pawn_encoding);

// Probes.
i32 tb_probe_table(SearchThread* thread, i32 wdl, i32* success, int type);
i32 tb_probe_captures(SearchThread* thread, i32 alpha, i32 beta, i32* success);
// The root's DTZ and, for each root move in list order, the plies to a zeroing move
// of the result it keeps (positive win, negative loss, 0 draw); 0 when a probe failed.
i32 tb_root_distances(SearchThread* thread, i32* dtz, i32* distance);
