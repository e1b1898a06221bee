// The two global records through which everything is configured (the UCI options
// and the limits of the present `go`) and their defaults are declared with the shared
// records, at the bottom of the include order.
#pragma once
#include "board/records.h"
