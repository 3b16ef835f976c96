// Raw bytes as one datagram on the event socket, handled with and without
// an event callback. Nothing received, payloadLen below 8 or beyond the
// bytes received: the matching error and no callback. Otherwise one call
// per whole item of type 2, 3 or 6 inside payloadLen, in order, with the
// header's tag and the item's first two words in host order (zero-padded),
// and the last call's result (L2VFIB_ERR_FAIL with no such item).
#include <vector>

#include "checks.h"
#include "event/event.h"

namespace {

std::vector<uint64_t> g_words;  // the first two words of each expected call
size_t g_calls = 0;
uint32_t g_tag = 0;

uint32_t OnEvent(uint32_t tag, const void *record) {
    uint32_t w[2];
    std::memcpy(w, record, sizeof w);
    FUZZ_REQUIRE(g_calls < g_words.size() && tag == g_tag &&
                 g_words[g_calls] == (uint64_t{w[0]} << 32 | w[1]));
    return 0x1000u + static_cast<uint32_t>(++g_calls);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The datagram as received: at most 1400 bytes, in a zeroed area.
    const uint32_t n = size < L2VFIB_BATCH_SIZE ? static_cast<uint32_t>(size) : L2VFIB_BATCH_SIZE;
    uint8_t m[L2VFIB_BATCH_SIZE + 8] = {};
    if (n != 0) std::memcpy(m, data, n);
    const uint32_t end = 8 + fuzzcheck::Be16(m + 2);
    g_tag = fuzzcheck::Be16(m + 4);
    g_words.clear();
    for (uint32_t pos = 8; end <= n && end - pos >= 4;) {
        const uint32_t type = fuzzcheck::Be16(m + pos), length = fuzzcheck::Be16(m + pos + 2);
        if (length > end - pos - 4) break;
        uint8_t value[8] = {};
        std::memcpy(value, m + pos + 4, length < 8 ? length : 8);
        if (type == 2 || type == 3 || type == 6)
            g_words.push_back(uint64_t{fuzzcheck::Be32(value)} << 32 | fuzzcheck::Be32(value + 4));
        pos += 4 + length;
    }
    const uint32_t verdict = n == 0            ? L2VFIB_ERR_NO_DATA
                             : end < 16        ? L2VFIB_ERR_FAIL
                             : end > n         ? L2VFIB_ERR_BAD_MSG
                             : g_words.empty() ? L2VFIB_ERR_FAIL
                                               : L2VFIB_OK;

    for (L2VFIB_EvtCallback *callback : {&OnEvent, static_cast<L2VFIB_EvtCallback *>(nullptr)}) {
        fake::Reset();
        fake::Get().recvResults.push_back(
            fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
        l2vfib_EventCallback = callback;
        g_calls = 0;
        const uint32_t result = L2VFIB_HandleEvtMsg(7);
        FUZZ_REQUIRE(fake::Get().recvs.size() == 1 && fake::Get().sends.empty());
        if (verdict != L2VFIB_OK)
            FUZZ_REQUIRE(result == verdict && g_calls == 0);
        else if (callback != nullptr)
            FUZZ_REQUIRE(g_calls == g_words.size() && result == 0x1000u + g_calls);
        else
            FUZZ_REQUIRE(result == L2VFIB_OK);
    }
    l2vfib_EventCallback = nullptr;
    return 0;
}
