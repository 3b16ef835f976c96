// Raw bytes as one datagram on the service socket: L2VFIB_HandleMsg must
// classify it by the notice rules and call the notice callback (kind 1, the
// notice's value) only for a well-formed notice.
#include "checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzzcheck::Notice(data, size, true);
    return 0;
}
