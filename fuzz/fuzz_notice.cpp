// Raw bytes as one datagram on the service socket, with and without a
// notice callback: L2VFIB_HandleMsg must classify it by the notice rules
// and call the callback (kind 1, the notice's value) only for a well-formed
// notice.
#include "checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzzcheck::Notice(data, size, true);
    fuzzcheck::Notice(data, size, false);
    return 0;
}
