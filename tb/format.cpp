// Reading a table file in place: the layout headers, the compressed value streams and
// the decoding of one value from an index number.
//
// Files come from disk, so every offset and count read from one is checked against the
// file's length before it is used: a damaged file is refused at load, or a single
// probe fails, but nothing is ever read outside the file.
#include <cstdlib>
#include <cstring>
#include "tb/tb.h"

static inline u32 read_u16(const u8* p) { return u32(p[0]) | u32(p[1]) << 8; }
static inline u32 read_u32(const u8* p) {
    u32 v;
    memcpy(&v, p, 4);
    return v;
}

// Big-endian reads of the bit stream; bytes past the end of the file read as zero.
static inline u64 read_be64(const u8* p, const u8* end) {
    if (end - p >= 8) {
        u64 v;
        memcpy(&v, p, 8);
        return bswap64(v);
    }
    u64 v = 0;
    for (int i = 0; i < 8; ++i) v = v << 8 | (p + i < end ? p[i] : 0);
    return v;
}
static inline u32 read_be32(const u8* p, const u8* end) {
    if (end - p >= 4) {
        u32 v;
        memcpy(&v, p, 4);
        return u32(bswap64(v) >> 32);
    }
    u32 v = 0;
    for (int i = 0; i < 4; ++i) v = v << 8 | (p + i < end ? p[i] : 0);
    return v;
}

static const u64 material_of_code[16] = {
    0, 0x5ced000000000101ULL, 0xe173000000001001ULL, 0xd64d000000010001ULL, 0xab88000000100001ULL,
    0x680b000001000001ULL, 1, 0,
    0, 0xf219000010000001ULL, 0xbb14000100000001ULL, 0x58df001000000001ULL, 0xa15f010000000001ULL,
    0x7c94100000000001ULL, 1, 0};

static bool valid_code(int c) { return (c & 7) != 0 && (c & 7) != 7; }

// Reads one layout from the header part of file part t. Refuses a part whose men do
// not describe the table's material in well-formed groups.
static bool fill_layout(const TableEntry* e, IndexLayout* layout, const u8* part, int shift, int t) {
    int men = e->men;
    int more = e->has_pawns && e->other_pawns > 0;
    if (men < 2 || men > 7) return false;
    memset(layout->factor, 0, sizeof layout->factor);
    memset(layout->pieces, 0, sizeof layout->pieces);
    memset(layout->group_size, 0, sizeof layout->group_size);
    u64 key = 0;
    for (int i = 0; i < men; ++i) {
        int c = (part[1 + more + i] >> shift) & 15;
        if (!valid_code(c)) return false;
        layout->pieces[i] = u8(c);
        key += material_of_code[c];
    }
    if (key != e->key) return false;
    int order = (part[0] >> shift) & 15;
    int order2 = more ? (part[1] >> shift) & 15 : 15;

    int k = e->has_pawns ? e->lead_pawns : e->two_king_encoding ? 2 : 3;
    if (k < 1 || k > 6 || k + (more ? e->other_pawns : 0) > men) return false;
    const u8* pieces = layout->pieces;
    if (e->has_pawns) {
        for (int i = 0; i < k; ++i)
            if ((pieces[i] & 7) != PAWN || pieces[i] != pieces[0]) return false;
        for (int i = k; i < k + (more ? e->other_pawns : 0); ++i)
            if (pieces[i] != (pieces[0] ^ 8)) return false;
    } else {
        for (int i = 0; i < k; ++i)
            for (int j = 0; j < men; ++j)
                if (j != i && pieces[j] == pieces[i]) return false;
    }
    layout->group_size[0] = u8(k);
    if (more) {
        layout->group_size[k] = e->other_pawns;
        k += e->other_pawns;
    }
    for (int i = k; i < men;) {
        int j = i;
        while (j < men && pieces[j] == pieces[i]) ++j;
        for (int x = 0; x < i; ++x)
            if (pieces[x] == pieces[i]) return false;  // a code split over two groups
        if (j - i > 6) return false;
        layout->group_size[i] = u8(j - i);
        i = j;
    }

    int free_squares = 64 - k;
    u64 f = 1;
    for (int i = 0; k < men || i == order || i == order2; ++i) {
        u64 size;
        if (i == order) {
            layout->factor[0] = f;
            size = e->has_pawns ? pawn_factor[layout->group_size[0] - 1][t] : e->two_king_encoding ? 462 : 31332;
        } else if (i == order2) {
            layout->factor[layout->group_size[0]] = f;
            size = binomial[e->other_pawns][48 - layout->group_size[0]];
        } else {
            int g = layout->group_size[k];
            layout->factor[k] = f;
            size = binomial[g][free_squares];
            free_squares -= g;
            k += g;
        }
        if (size == 0 || __builtin_mul_overflow(f, size, &f)) return false;
    }
    if (layout->factor[0] == 0) return false;
    for (int i = 1; i < men; ++i)
        if (layout->group_size[i] && layout->factor[i] == 0) return false;
    if (f >= (u64(1) << 56)) return false;
    layout->positions = f;
    return true;
}

struct StreamSizes {
    PairDecoder* decoder;
    u64 positions;
};

// Reads one decoder header at *pos; null when it does not fit the file or is malformed.
static PairDecoder* build_decoder(const u8* file, u64 size, u64* pos, int type) {
    u64 at = *pos;
    if (at + 2 > size) return nullptr;
    u8 flags = file[at];
    if (flags & 0x80) {
        PairDecoder* d = static_cast<PairDecoder*>(calloc(1, sizeof(PairDecoder)));
        if (!d) return nullptr;
        d->index_bits = 0;
        d->constant_value[0] = type == TB_WDL ? file[at + 1] : 0;
        d->constant_value[1] = 0;
        d->data_end = file + size;
        *pos = at + 2;
        return d;
    }
    if (at + 12 > size) return nullptr;
    int block_size_log2 = file[at + 1];
    int index_bits = file[at + 2];
    u32 extra_blocks = file[at + 3];
    u32 real_blocks = read_u32(file + at + 4);
    int max_len = file[at + 8];
    int min_len = file[at + 9];
    if (index_bits < 1 || index_bits > 32 || block_size_log2 > 24) return nullptr;
    if (min_len < 1 || max_len < min_len || max_len > 32) return nullptr;
    int h = max_len - min_len + 1;
    u64 offsets_at = at + 10;
    if (offsets_at + 2 * u64(h) + 2 > size) return nullptr;
    u32 symbols = read_u16(file + offsets_at + 2 * h);
    u64 pairs_at = offsets_at + 2 * u64(h) + 2;
    if (symbols == 0 || pairs_at + 3 * u64(symbols) > size) return nullptr;

    PairDecoder* d = static_cast<PairDecoder*>(calloc(1, sizeof(PairDecoder) + 8 * size_t(h) + symbols));
    if (!d) return nullptr;
    d->code_bases = reinterpret_cast<u64*>(d + 1);
    u8* lengths = reinterpret_cast<u8*>(d->code_bases + h);
    d->symbol_lengths = lengths;
    d->code_offsets = file + offsets_at;
    d->symbol_pairs = file + pairs_at;
    d->data_end = file + size;
    d->block_size_log2 = u8(block_size_log2);
    d->index_bits = u8(index_bits);
    d->min_code_length = u8(min_len);
    d->max_code_length = u8(max_len);
    d->real_blocks = real_blocks;
    d->total_blocks = real_blocks + extra_blocks;
    d->symbol_count = symbols;

    // Lengths of the symbols by a walk of their pair tree; a reference outside the
    // table or back into itself makes the stream unreadable.
    enum : u8 { NEW = 0, OPEN = 1, DONE = 2 };
    u8* state = static_cast<u8*>(calloc(symbols, 1));
    u32* stack = static_cast<u32*>(malloc(sizeof(u32) * (2 * size_t(symbols) + 1)));
    bool ok = state && stack;
    const u8* pairs = d->symbol_pairs;
    for (u32 s = 0; ok && s < symbols; ++s) {
        if (state[s] == DONE) continue;
        u32 n = 0;
        stack[n++] = s;
        while (ok && n > 0) {
            u32 x = stack[n - 1];
            if (state[x] == DONE) {
                --n;
                continue;
            }
            const u8* sp = pairs + 3 * x;
            u32 left = sp[0] | (u32(sp[1] & 15) << 8), right = (sp[1] >> 4) | (u32(sp[2]) << 4);
            if (right == 0xfff) {
                lengths[x] = 0;
                state[x] = DONE;
                --n;
                continue;
            }
            if (left >= symbols || right >= symbols) {
                ok = false;
                break;
            }
            if (state[x] == NEW) {
                state[x] = OPEN;
                if (state[left] == OPEN || state[right] == OPEN) {
                    ok = false;
                    break;
                }
                if (state[left] == NEW) stack[n++] = left;
                if (state[right] == NEW) stack[n++] = right;
                continue;
            }
            if (state[left] != DONE || state[right] != DONE) {
                ok = false;
                break;
            }
            u32 len = u32(lengths[left]) + lengths[right] + 1;
            if (len > 255) {
                ok = false;
                break;
            }
            lengths[x] = u8(len);
            state[x] = DONE;
            --n;
        }
    }
    free(state);
    free(stack);
    if (!ok) {
        free(d);
        return nullptr;
    }

    u64* base = d->code_bases;
    base[h - 1] = 0;
    for (int i = h - 2; i >= 0; --i)
        base[i] = (base[i + 1] + read_u16(d->code_offsets + 2 * i) - read_u16(d->code_offsets + 2 * (i + 1))) / 2;
    for (int i = 0; i < h; ++i) base[i] <<= 64 - (min_len + i);

    *pos = pairs_at + 3 * u64(symbols) + (symbols & 1);
    return d;
}

bool tb_build_layouts(TableEntry* e, const u8* file, u64 size, int type) {
    bool split = type == TB_WDL && size > 4 && (file[4] & 1);
    int n = e->has_pawns ? 4 : 1;
    IndexLayout* layouts;
    u8* dtz_flags;
    u16* map_index;
    const u8** dtz_map;
    if (e->has_pawns) {
        PawnTableEntry* p = reinterpret_cast<PawnTableEntry*>(e);
        layouts = type == TB_WDL ? p->wdl : p->dtz;
        dtz_flags = p->dtz_flags;
        map_index = &p->dtz_map_index[0][0];
        dtz_map = &p->dtz_map;
    } else {
        PieceTableEntry* p = reinterpret_cast<PieceTableEntry*>(e);
        layouts = type == TB_WDL ? p->wdl : &p->dtz;
        dtz_flags = &p->dtz_flags;
        map_index = p->dtz_map_index;
        dtz_map = &p->dtz_map;
    }
    int layout_count = type == TB_WDL ? 2 * n : n;
    for (int i = 0; i < layout_count; ++i) layouts[i].decoder = nullptr;

    u64 pos = 5;
    u64 part_length = u64(e->men) + 1 + (e->has_pawns && e->other_pawns > 0);
    for (int t = 0; t < n; ++t) {
        if (pos + part_length > size) return false;
        if (!fill_layout(e, &layouts[t], file + pos, 0, t)) return false;
        if (split && !fill_layout(e, &layouts[t + n], file + pos, 4, t)) return false;
        pos += part_length;
    }
    // The lead pawns are gathered before the file part is known, so every part must
    // lead with the same pawns.
    if (e->has_pawns)
        for (int i = 1; i < (split ? 2 * n : n); ++i)
            if (layouts[i].pieces[0] != layouts[0].pieces[0]) return false;
    pos += pos & 1;

    StreamSizes streams[8];
    int stream_count = 0;
    for (int t = 0; t < n; ++t) {
        for (int side = 0; side < (split ? 2 : 1); ++side) {
            u64 header_at = pos;
            PairDecoder* d = build_decoder(file, size, &pos, type);
            if (!d) return false;
            IndexLayout* layout = &layouts[t + side * n];
            layout->decoder = d;
            if (type == TB_DTZ) dtz_flags[t] = file[header_at];
            streams[stream_count++] = {d, layout->positions};
        }
    }

    if (type == TB_DTZ) {
        *dtz_map = file + pos;
        u64 map_at = pos;
        for (int t = 0; t < n; ++t) {
            if (!(dtz_flags[t] & 2)) continue;
            bool wide = dtz_flags[t] & 16;
            if (wide) pos += pos & 1;
            for (int list = 0; list < 4; ++list) {
                if (wide) {
                    if (pos + 2 > size) return false;
                    u64 count = read_u16(file + pos);
                    pos += 2;
                    u64 index = (pos - map_at) / 2;
                    if (index > 0xffff || pos + 2 * count > size) return false;
                    map_index[4 * t + list] = u16(index);
                    pos += 2 * count;
                } else {
                    if (pos + 1 > size) return false;
                    u64 count = file[pos];
                    pos += 1;
                    u64 index = pos - map_at;
                    if (index > 0xffff || pos + count > size) return false;
                    map_index[4 * t + list] = u16(index);
                    pos += count;
                }
            }
        }
        pos += pos & 1;
    }

    for (int s = 0; s < stream_count; ++s) {
        PairDecoder* d = streams[s].decoder;
        if (d->index_bits == 0) continue;
        d->block_index = file + pos;
        u64 records = (streams[s].positions + (u64(1) << d->index_bits) - 1) >> d->index_bits;
        pos += 6 * records;
        if (pos > size) return false;
    }
    for (int s = 0; s < stream_count; ++s) {
        PairDecoder* d = streams[s].decoder;
        if (d->index_bits == 0) continue;
        d->block_sizes = file + pos;
        pos += 2 * u64(d->total_blocks);
        if (pos > size) return false;
    }
    for (int s = 0; s < stream_count; ++s) {
        PairDecoder* d = streams[s].decoder;
        pos = (pos + 63) & ~u64(63);
        if (d->index_bits == 0) continue;
        d->blocks = file + pos;
        pos += u64(d->real_blocks) << d->block_size_log2;
        if (pos > size) return false;
    }
    return true;
}

bool tb_decode_value(const PairDecoder* d, u64 index, u8* out) {
    if (d->index_bits == 0) {
        out[0] = d->constant_value[0];
        out[1] = d->constant_value[1];
        return true;
    }
    u64 main = index >> d->index_bits;
    i64 lit = i64(index & ((u64(1) << d->index_bits) - 1)) - (i64(1) << (d->index_bits - 1));
    const u8* record = d->block_index + 6 * main;
    u32 block = read_u32(record);
    lit += read_u16(record + 4);
    if (block >= d->total_blocks) return false;

    const u8* sizes = d->block_sizes;
    if (lit < 0) {
        do {
            if (block == 0) return false;
            --block;
            lit += i64(read_u16(sizes + 2 * block)) + 1;
        } while (lit < 0);
    } else {
        for (i64 s; lit > (s = read_u16(sizes + 2 * block));) {
            lit -= s + 1;
            if (++block >= d->total_blocks) return false;
        }
    }
    if (block >= d->real_blocks) return false;

    const u8* end = d->data_end;
    const u8* ptr = d->blocks + (u64(block) << d->block_size_log2);
    u64 code = read_be64(ptr, end);
    ptr += 8;
    int bits = 0;
    const u64* base = d->code_bases;
    const u8* offsets = d->code_offsets;
    const u8* lengths = d->symbol_lengths;
    const int min_len = d->min_code_length;
    u32 symbol;
    for (;;) {
        int l = 0;
        while (code < base[l]) ++l;
        symbol = read_u16(offsets + 2 * l) + u32((code - base[l]) >> (64 - (l + min_len)));
        if (symbol >= d->symbol_count) return false;
        if (lit <= lengths[symbol]) break;
        lit -= i64(lengths[symbol]) + 1;
        code <<= (l + min_len);
        bits += l + min_len;
        if (bits >= 32) {
            bits -= 32;
            code |= u64(read_be32(ptr, end)) << bits;
            ptr += 4;
        }
    }
    const u8* pairs = d->symbol_pairs;
    while (lengths[symbol] > 0) {
        const u8* sp = pairs + 3 * symbol;
        u32 left = sp[0] | (u32(sp[1] & 15) << 8);
        if (lit <= lengths[left]) {
            symbol = left;
        } else {
            lit -= i64(lengths[left]) + 1;
            symbol = (sp[1] >> 4) | (u32(sp[2]) << 4);
        }
    }
    out[0] = pairs[3 * symbol];
    out[1] = pairs[3 * symbol + 1];
    return true;
}
