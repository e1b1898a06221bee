// A build for AVX2 started on a processor without it must say so and stop, instead of
// dying on an illegal instruction. This file is compiled for baseline x86-64 (see
// CMakeLists.txt) and the check runs as a constructor of the highest priority, before
// the static initialisers of the other files, which may already use AVX2 code.
#ifdef VESTRA_NEEDS_AVX2
#include <cstdio>
#include <cstdlib>

__attribute__((constructor(101))) static void require_avx2() {
    __builtin_cpu_init();
    // -march=haswell also allows BMI1/2, FMA and POPCNT, and the compiler uses them.
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("bmi2") || !__builtin_cpu_supports("bmi") ||
        !__builtin_cpu_supports("fma") || !__builtin_cpu_supports("popcnt")) {
        std::fputs("This Vestra build needs a processor with AVX2 and BMI2; use the portable build.\n", stdout);
        std::fflush(stdout);
        std::_Exit(1);
    }
}
#endif
