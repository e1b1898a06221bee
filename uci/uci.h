// The command loop and its handlers.
#pragma once
#include "board/bitops.h"

// One line, as read (terminated, line feed included when there was one).
// Returns false when the line asks to leave (quit).
bool handle_line(char* line);
void uci_startup();
void uci_shutdown();
// The ten positions of `vestra pgo`, searched to depth 14.
extern const char* const benchmark_positions[10];
void run_benchmark();
