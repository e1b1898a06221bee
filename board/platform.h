// What differs between the systems the engine runs on (Linux and Windows, both
// x86-64): memory blocks, large pages, read-only file mappings and the monotonic
// clock. Threads need nothing here: both builds use POSIX threads (winpthreads on
// Windows), whose attributes set the stack size.
#pragma once
#include <cstdint>
#include "board/bitops.h"

// Standard output ends lines with a bare line feed on every system. Windows GUIs read
// either ending, but tools driving the engine from elsewhere (a match runner on Linux
// starting it under wine) take the carriage return for part of the line's last word.
void use_bare_line_feeds();

// Monotonic clock in milliseconds, from an arbitrary start.
i64 now_ms();

// A block aligned to 64 bytes, or null; size must be a multiple of 64.
void* aligned_block_alloc(u64 size);
void aligned_block_free(void* block);

// A block of at least `size` bytes in large pages, or null when the system refuses
// them; `mapped_size` receives what has to be given back to large_pages_free.
void* large_pages_alloc(u64 size, i64* mapped_size);
void large_pages_free(void* block, i64 mapped_size);

// A regular file opened for reading; `handle` is the system's descriptor.
struct ReadOnlyFile {
    intptr_t handle;
    u64 size;
};

// False when the file is missing, unreadable or not a regular file.
bool file_open_read_only(const char* path, ReadOnlyFile* file);
void file_close(ReadOnlyFile* file);
// The whole file mapped for reading, or null; the mapping outlives file_close. An
// empty file cannot be mapped.
const u8* file_map_read_only(const ReadOnlyFile* file);
void file_unmap(const u8* view, u64 size);
