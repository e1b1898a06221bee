#include "uci/options.h"
#include <cstring>

EngineOptions engine_options;
SearchLimits search_limits;

void set_default_options(EngineOptions* o) {
    o->hash_mb = 256;
    o->ponder = false;
    o->draw_score = 0;
    o->own_book = false;
    std::strcpy(o->book_file, "vestrabook.bin");
    o->book_random = false;
    o->strength = 100;
    o->threads = 1;
    o->move_overhead = 100;
    o->large_pages = false;
    o->multi_pv = 1;
    o->chess960 = false;
    o->syzygy_50_move_rule = true;
    o->syzygy_probe_limit = 7;
}
