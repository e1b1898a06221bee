// Score scale, from the side to move's view.
#pragma once
#include "board/bitops.h"

constexpr i32 NO_SCORE = -32767;
constexpr i32 MATE_VALUE = 32766;      // a side mated at ply p scores p - MATE_VALUE
constexpr i32 MATE_THRESHOLD = 31966;  // above this in absolute value: mate range
constexpr i32 TB_WIN_BASE = 32526;
constexpr i32 EVAL_LIMIT = 30966;      // evaluate() stays within +-EVAL_LIMIT
