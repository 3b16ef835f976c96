// Checks shared by the fuzz targets. Each runs one piece of the library on
// the bytes it is given and aborts, so that libFuzzer reports the input,
// when the outcome breaks the rules of replies and notices: the result
// codes, what reaches the identifier or the callback, and that nothing is
// read outside the bytes received (AddressSanitizer sees to that part).
#ifndef L2VFIB_FUZZ_CHECKS_H
#define L2VFIB_FUZZ_CHECKS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define FUZZ_REQUIRE(cond)                                                              \
    do {                                                                                \
        if (!(cond)) {                                                                  \
            std::fprintf(stderr, "%s:%d: broken invariant: %s\n", __FILE__, __LINE__, \
                         #cond);                                                        \
            std::abort();                                                               \
        }                                                                               \
    } while (0)

namespace fuzzcheck {

// Parses the size bytes at data as a reply (from an exact copy, so that any
// read past them is caught), with and without an identifier variable, and
// once more with a negative length.
void Reply(const uint8_t *data, size_t size);

// Opens the library (with the notice callback when withCallback is set),
// delivers the size bytes at data as one datagram on the service socket,
// runs L2VFIB_HandleMsg, checks its result and the callback's calls, and
// closes the library again; no descriptor may stay open.
void Notice(const uint8_t *data, size_t size, bool withCallback);

}  // namespace fuzzcheck

#endif
