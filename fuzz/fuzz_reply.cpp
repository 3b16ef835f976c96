// Raw bytes as a reply to an immediate request: l2vfib_ParseReply must
// answer by the reply rules and read nothing past the bytes it is given.
#include "checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzzcheck::Reply(data, size);
    return 0;
}
