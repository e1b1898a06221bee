// Search-thread records, the shared search state and the transposition table entry;
// they live with the other shared records at the bottom of the include order.
#pragma once
#include "board/records.h"
#include "eval/accumulator.h"
