// The fuzzers' one assertion: a broken invariant aborts with where and what,
// so libFuzzer keeps the input that broke it.
#ifndef L2VFIB_FUZZ_REQUIRE_H
#define L2VFIB_FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

#define FUZZ_REQUIRE(cond)                                                                   \
    do {                                                                                     \
        if (!(cond)) {                                                                       \
            std::fprintf(stderr, "%s:%d: broken invariant: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                    \
        }                                                                                    \
    } while (0)

#endif
