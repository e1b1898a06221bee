// Score scale, from the side to move's view; the constants live with the shared
// records at the bottom of the include order.
#pragma once
#include "board/records.h"
