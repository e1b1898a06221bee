#include "board/platform.h"
#include <cstdlib>

#ifdef _WIN32

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <malloc.h>
#include <cstdio>

void use_bare_line_feeds() { _setmode(_fileno(stdout), _O_BINARY); }

i64 now_ms() {
    static const i64 frequency = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return i64(f.QuadPart);
    }();
    LARGE_INTEGER c;
    QueryPerformanceCounter(&c);
    // Split so that the multiplication cannot overflow however long the machine runs.
    return c.QuadPart / frequency * 1000 + c.QuadPart % frequency * 1000 / frequency;
}

void* aligned_block_alloc(u64 size) { return _aligned_malloc(size, 64); }

void aligned_block_free(void* block) { _aligned_free(block); }

// Large pages need the right to lock memory in the process's token. Asking for it may
// fail (most accounts lack it); only the allocation's own outcome tells.
void* large_pages_alloc(u64 size, i64* mapped_size) {
    HANDLE token;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, &token)) {
        TOKEN_PRIVILEGES privileges{};
        if (LookupPrivilegeValueA(nullptr, "SeLockMemoryPrivilege", &privileges.Privileges[0].Luid)) {
            privileges.PrivilegeCount = 1;
            privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
            AdjustTokenPrivileges(token, FALSE, &privileges, 0, nullptr, nullptr);
        }
        CloseHandle(token);
    }
    u64 page = GetLargePageMinimum();
    if (page == 0) return nullptr;
    u64 length = (size + page - 1) / page * page;
    void* block = VirtualAlloc(nullptr, length, MEM_RESERVE | MEM_COMMIT | MEM_LARGE_PAGES, PAGE_READWRITE);
    if (!block) return nullptr;
    *mapped_size = i64(length);
    return block;
}

void large_pages_free(void* block, i64) { VirtualFree(block, 0, MEM_RELEASE); }

bool file_open_read_only(const char* path, ReadOnlyFile* file) {
    // Directories fail here already: opening one needs FILE_FLAG_BACKUP_SEMANTICS.
    HANDLE h = CreateFileA(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    LARGE_INTEGER size;
    if (GetFileType(h) != FILE_TYPE_DISK || !GetFileSizeEx(h, &size)) {
        CloseHandle(h);
        return false;
    }
    file->handle = reinterpret_cast<intptr_t>(h);
    file->size = u64(size.QuadPart);
    return true;
}

void file_close(ReadOnlyFile* file) {
    CloseHandle(reinterpret_cast<HANDLE>(file->handle));
    file->handle = -1;
}

const u8* file_map_read_only(const ReadOnlyFile* file) {
    HANDLE mapping = CreateFileMappingA(reinterpret_cast<HANDLE>(file->handle), nullptr, PAGE_READONLY, 0, 0, nullptr);
    if (!mapping) return nullptr;
    void* view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    // The view keeps the mapping object alive.
    CloseHandle(mapping);
    return static_cast<const u8*>(view);
}

void file_unmap(const u8* view, u64) { UnmapViewOfFile(view); }

#else

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <ctime>

void use_bare_line_feeds() {}

i64 now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return i64(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Blocks of the table's size are aligned to the huge-page size, and the kernel told
// that huge pages suit them: each probe of the table lands on a random line, so with
// small pages nearly every probe also misses the address translation cache. The advice
// is only advice: where it is refused the block works as it is.
void* aligned_block_alloc(u64 size) {
    constexpr u64 HUGE_PAGE = 2ull << 20;
    if (size < HUGE_PAGE) return std::aligned_alloc(64, size);
    u64 length = (size + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    void* block = std::aligned_alloc(HUGE_PAGE, length);
    if (block) madvise(block, length, MADV_HUGEPAGE);
    return block;
}

void aligned_block_free(void* block) { std::free(block); }

// An anonymous mapping aligned to the huge-page size, with the kernel asked to back it
// by huge pages (transparent huge pages need no privilege).
void* large_pages_alloc(u64 size, i64* mapped_size) {
    constexpr u64 HUGE_PAGE = 2ull << 20;
    u64 length = (size + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    u64 span = length + HUGE_PAGE;
    void* raw = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) return nullptr;
    u64 start = (u64(raw) + HUGE_PAGE - 1) & ~(HUGE_PAGE - 1);
    u64 head = start - u64(raw);
    if (head) munmap(raw, head);
    u64 tail = span - head - length;
    if (tail) munmap(reinterpret_cast<void*>(start + length), tail);
    void* block = reinterpret_cast<void*>(start);
    if (madvise(block, length, MADV_HUGEPAGE) != 0) {
        munmap(block, length);
        return nullptr;
    }
    *mapped_size = i64(length);
    return block;
}

void large_pages_free(void* block, i64 mapped_size) { munmap(block, u64(mapped_size)); }

bool file_open_read_only(const char* path, ReadOnlyFile* file) {
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return false;
    }
    file->handle = fd;
    file->size = u64(st.st_size);
    return true;
}

void file_close(ReadOnlyFile* file) {
    close(int(file->handle));
    file->handle = -1;
}

const u8* file_map_read_only(const ReadOnlyFile* file) {
    if (file->size == 0) return nullptr;
    void* m = mmap(nullptr, file->size, PROT_READ, MAP_SHARED, int(file->handle), 0);
    return m == MAP_FAILED ? nullptr : static_cast<const u8*>(m);
}

void file_unmap(const u8* view, u64 size) { munmap(const_cast<u8*>(view), size); }

#endif
