// A property a fuzz target checks on every input. A broken property aborts, which libFuzzer
// reports as a crash and saves the input that caused it.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void fuzzCheck(bool holds, const char* property) {
    if (holds) return;
    std::fprintf(stderr, "fuzz property broken: %s\n", property);
    std::abort();
}
