#include "search/thread.h"

SearchShared search_shared;
