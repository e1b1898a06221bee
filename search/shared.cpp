#include <ctime>
#include "search/thread.h"

SearchShared search_shared;

i64 now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return i64(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
