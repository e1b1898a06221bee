// Polyglot opening book.
#pragma once
#include "search/thread.h"

// Looks the root of the main thread up in BookFile. On a hit prints "bestmove ..."
// and returns true; any failure is silent and returns false.
bool probe_book(SearchThread* thread);
u64 book_key(const Position* pos);
