// Raw bytes as the answer to the AC data query: L2VFIB_GetAcData must read
// nothing outside the bytes received (AddressSanitizer), write nothing past
// the caller's L2VFIB_AC_DATA_MAX entries (an exact heap array), leave the
// list alone when it refuses, and write no slot past the count it reports.
// What each answer gives is the unit tests' table of answers.
#include <algorithm>
#include <memory>

#include "checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint8_t kOld = 0x3C;
    constexpr uint32_t kCountUnset = 0xDEADBEEF;
    fake::Reset();
    fake::Platform &p = fake::Get();
    p.recvResults.push_back(fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
    std::unique_ptr<L2VFIB_AcData[]> slots(new L2VFIB_AcData[L2VFIB_AC_DATA_MAX]);
    const size_t bytes = sizeof(L2VFIB_AcData) * L2VFIB_AC_DATA_MAX;
    std::memset(slots.get(), kOld, bytes);
    L2VFIB_AcDataList list = {kCountUnset, slots.get()};
    const uint32_t result = L2VFIB_GetAcData(7, &list);
    FUZZ_REQUIRE(p.sends.size() == 1 && p.recvs.size() == 1);
    FUZZ_REQUIRE(result == L2VFIB_OK || (result == L2VFIB_ERR_FAIL && list.count == kCountUnset));
    const uint32_t count = list.count == kCountUnset ? 0 : list.count;
    FUZZ_REQUIRE(count <= L2VFIB_AC_DATA_MAX && (list.count == kCountUnset || count != 0));
    const auto *raw = reinterpret_cast<const uint8_t *>(slots.get());
    FUZZ_REQUIRE(std::all_of(raw + sizeof(L2VFIB_AcData) * count, raw + bytes,
                             [](uint8_t b) { return b == kOld; }));
    return 0;
}
