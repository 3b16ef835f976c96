// Raw bytes as the answer to the AC data query: L2VFIB_GetAcData must read
// nothing outside the bytes received (cut to 4096), write nothing past the
// caller's L2VFIB_AC_DATA_MAX entries (an exact heap array), and fill the
// list, or leave it alone, as Expected below reads the answer.
#include <algorithm>
#include <memory>

#include "checks.h"

namespace {

using fuzzcheck::Be16;
using fuzzcheck::Be32;

constexpr uint8_t kOld = 0x3C;
constexpr uint32_t kCountUnset = 0xDEADBEEF;

// The result, and the entry item's value and size when the list is written.
uint32_t Expected(const uint8_t *a, size_t n, const uint8_t **entries, uint32_t *size,
                  uint32_t *count) {
    if (n < 12) return L2VFIB_ERR_FAIL;
    const uint32_t outer = Be16(a + 2), inner = n >= 16 ? Be16(a + 14) : 0;
    if (outer < 12 || 12 + outer > n || inner > outer - 8 || inner < 8) return L2VFIB_ERR_FAIL;
    const uint32_t first = Be16(a + 22);
    if (first < 4 || 4 + first > inner) return L2VFIB_ERR_FAIL;
    *count = Be32(a + 24);
    if (*count == 0) return L2VFIB_OK;
    const uint32_t rest = inner - 4 - first;
    const uint8_t *item = a + 24 + first;
    if (*count > L2VFIB_AC_DATA_MAX || rest < 4 || 4 + Be16(item + 2) > rest)
        return L2VFIB_ERR_FAIL;
    *size = Be16(item + 2) / *count;
    *entries = item + 4;
    return L2VFIB_OK;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fake::Reset();
    fake::Platform &p = fake::Get();
    p.recvResults.push_back(fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
    std::unique_ptr<L2VFIB_AcData[]> slots(new L2VFIB_AcData[L2VFIB_AC_DATA_MAX]);
    const size_t bytes = sizeof(L2VFIB_AcData) * L2VFIB_AC_DATA_MAX;
    std::memset(slots.get(), kOld, bytes);
    L2VFIB_AcDataList list = {kCountUnset, slots.get()};
    const uint32_t result = L2VFIB_GetAcData(7, &list);
    FUZZ_REQUIRE(p.sends.size() == 1 && p.recvs.size() == 1);

    const size_t n = std::min<size_t>(size, 4096);
    const uint8_t *entries = nullptr;
    uint32_t entrySize = 0, count = 0;
    FUZZ_REQUIRE(result == Expected(data, n, &entries, &entrySize, &count));
    if (entries == nullptr || entrySize == 0) {
        FUZZ_REQUIRE(list.count == kCountUnset);
        FUZZ_REQUIRE(std::all_of(reinterpret_cast<const uint8_t *>(slots.get()),
                                 reinterpret_cast<const uint8_t *>(slots.get()) + bytes,
                                 [](uint8_t b) { return b == kOld; }));
        return 0;
    }
    FUZZ_REQUIRE(list.count == count);
    for (uint32_t i = 0; i < L2VFIB_AC_DATA_MAX; ++i) {
        uint8_t raw[16];
        std::memset(raw, kOld, sizeof raw);
        if (i < count) std::memcpy(raw, entries + i * entrySize, std::min<uint32_t>(entrySize, 16));
        const L2VFIB_AcData &s = slots[i];
        FUZZ_REQUIRE(s.word0 == Be32(raw) && s.half0 == Be16(raw + 4) && s.byte0 == raw[6] &&
                     s.byte1 == raw[7] && s.half1 == Be16(raw + 8) && s.half2 == Be16(raw + 10) &&
                     s.word1 == Be32(raw + 12));
    }
    return 0;
}
