// Raw bytes as one datagram on the event socket. L2VFIB_HandleEvtMsg must
// classify it (nothing read, payloadLen below 8, payloadLen beyond the
// bytes received), walk exactly the whole items that lie inside payloadLen,
// and call the event callback once per item of type 2, 3 or 6, in order,
// with the header's tag and the item's first two words in host order
// (zero-padded when the value is shorter). Each datagram is handled with
// and without a callback installed.
#include <vector>

#include "checks.h"
#include "event/event.h"

namespace {

using fuzzcheck::Be16;
using fuzzcheck::Be32;

struct Expected {
    uint32_t word0, word1;
};
std::vector<Expected> g_expected;
size_t g_calls = 0;
uint32_t g_tag = 0;

uint32_t OnEvent(uint32_t tag, const void *record) {
    FUZZ_REQUIRE(g_calls < g_expected.size() && tag == g_tag);
    uint32_t words[2];
    std::memcpy(words, record, sizeof words);
    FUZZ_REQUIRE(words[0] == g_expected[g_calls].word0 && words[1] == g_expected[g_calls].word1);
    return 0x1000u + static_cast<uint32_t>(++g_calls);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // The datagram as the library receives it: cut to 1400 bytes, in a
    // zeroed area.
    const size_t n = size < L2VFIB_BATCH_SIZE ? size : L2VFIB_BATCH_SIZE;
    uint8_t m[L2VFIB_BATCH_SIZE + 8] = {};
    if (n != 0) std::memcpy(m, data, n);
    const uint32_t payloadLen = Be16(m + 2);
    g_tag = Be16(m + 4);
    g_expected.clear();
    uint32_t verdict = L2VFIB_OK;  // OK: the walk decides
    if (n == 0) verdict = L2VFIB_ERR_NO_DATA;
    else if (payloadLen < 8) verdict = L2VFIB_ERR_FAIL;
    else if (8 + payloadLen > n) verdict = L2VFIB_ERR_BAD_MSG;
    else {
        const size_t end = 8 + payloadLen;
        for (size_t pos = 8; end - pos >= 4;) {
            const uint32_t type = Be16(m + pos), length = Be16(m + pos + 2);
            if (length > end - pos - 4) break;
            if (type == 2 || type == 3 || type == 6) {
                uint8_t value[8] = {};
                std::memcpy(value, m + pos + 4, length < 8 ? length : 8);
                g_expected.push_back({Be32(value), Be32(value + 4)});
            }
            pos += 4 + length;
        }
        if (g_expected.empty()) verdict = L2VFIB_ERR_FAIL;
    }

    for (L2VFIB_EvtCallback *callback : {&OnEvent, static_cast<L2VFIB_EvtCallback *>(nullptr)}) {
        fake::Reset();
        fake::Platform &p = fake::Get();
        p.recvResults.push_back(fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
        l2vfib_EventCallback = callback;
        g_calls = 0;
        const uint32_t result = L2VFIB_HandleEvtMsg(7);
        FUZZ_REQUIRE(p.recvs.size() == 1 && p.sends.empty() && p.sockets.empty());
        if (verdict != L2VFIB_OK) {
            FUZZ_REQUIRE(result == verdict && g_calls == 0);
        } else if (callback != nullptr) {
            FUZZ_REQUIRE(g_calls == g_expected.size() && result == 0x1000u + g_calls);
        } else {
            FUZZ_REQUIRE(result == L2VFIB_OK);
        }
    }
    l2vfib_EventCallback = nullptr;
    return 0;
}
