// Raw bytes as one datagram on the event socket, handled with and without
// an event callback: nothing read past the bytes received
// (AddressSanitizer); each call gets a record and the header's tag, at most
// one call per item header's four bytes; the result is the last call's, or
// with no call an error code. Without the callback the same datagram gives
// the same error, or OK when records were dispatched. Which items reach the
// callback, and how, is the unit tests' table of datagrams.
#include "checks.h"
#include "event/event.h"

namespace {

size_t g_calls = 0;
uint32_t g_tag = 0;

uint32_t OnEvent(uint32_t tag, const void *record) {
    FUZZ_REQUIRE(tag == g_tag && record != nullptr);
    return 0x1000u + static_cast<uint32_t>(++g_calls);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    uint8_t head[8] = {};  // as received: a short datagram reads as zero-padded
    std::memcpy(head, data, size < sizeof head ? size : sizeof head);
    g_tag = fuzzcheck::Be16(head + 4);
    uint32_t results[2] = {};
    size_t calls = 0;
    for (int withCallback : {1, 0}) {
        fake::Reset();
        fake::Get().recvResults.push_back(
            fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
        l2vfib_EventCallback = withCallback ? &OnEvent : nullptr;
        g_calls = 0;
        const uint32_t result = L2VFIB_HandleEvtMsg(7);
        FUZZ_REQUIRE(fake::Get().recvs.size() == 1 && fake::Get().sends.empty());
        if (withCallback) calls = g_calls;
        FUZZ_REQUIRE(withCallback || g_calls == 0);
        FUZZ_REQUIRE(g_calls == 0 ? result == L2VFIB_ERR_NO_DATA || result == L2VFIB_ERR_FAIL ||
                                        result == L2VFIB_ERR_BAD_MSG || !withCallback
                                  : result == 0x1000u + g_calls && g_calls <= size / 4);
        results[withCallback] = result;
    }
    FUZZ_REQUIRE(calls == 0 ? results[0] == results[1] : results[0] == L2VFIB_OK);
    l2vfib_EventCallback = nullptr;
    return 0;
}
