// A failed property stops the fuzzer with the input that broke it.
#pragma once

#include <cstdio>

// Not assert(): the fuzz build keeps checks whatever NDEBUG says.
#define FUZZ_CHECK(condition)                                                                     \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
            __builtin_trap();                                                                     \
        }                                                                                         \
    } while (0)
