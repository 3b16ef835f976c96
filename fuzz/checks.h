// The checks the fuzz targets share. Each runs one piece of the library on
// the bytes given and aborts, so that libFuzzer keeps the input, when the
// outcome breaks the reply or notice rules (as the checks below spell them
// out); AddressSanitizer catches any read outside the bytes received. A
// first item shorter than four bytes may be refused or read from the zeroed
// receive area: either is accepted.
#ifndef L2VFIB_FUZZ_CHECKS_H
#define L2VFIB_FUZZ_CHECKS_H

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fake_platform.h"
#include "l2vfib.h"
#include "msg/state.h"
#include "require.h"

namespace fuzzcheck {

inline uint32_t Be16(const uint8_t *p) { return (uint32_t{p[0]} << 8) | p[1]; }
inline uint32_t Be32(const uint8_t *p) { return (Be16(p) << 16) | Be16(p + 2); }

inline void Reply(const uint8_t *data, size_t size) {
    // An exact heap copy: one byte past it is outside any allocation.
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
    if (size != 0) std::memcpy(copy.get(), data, size);
    const uint8_t *m = copy.get();
    const int32_t length = size > INT32_MAX ? INT32_MAX : static_cast<int32_t>(size);

    // What an identifier would be, and a variable that does not hold it.
    const uint32_t word = length >= 16 ? Be32(m + 12) : 0;
    const uint32_t untouched = ~word;
    uint32_t out = untouched, negative = untouched;
    const uint32_t result = l2vfib_ParseReply(m, length, &out);
    FUZZ_REQUIRE(l2vfib_ParseReply(m, length, nullptr) == result);
    FUZZ_REQUIRE(l2vfib_ParseReply(m, -length - 1, &negative) == L2VFIB_ERR_FAIL);
    FUZZ_REQUIRE(negative == untouched);

    const bool whole = length >= 12 && Be16(m + 2) <= static_cast<uint16_t>(length - 8) &&
                       Be16(m + 10) <= static_cast<uint32_t>(length - 12);
    const uint32_t type = whole ? Be16(m + 8) : 0;
    const bool full = whole && Be16(m + 10) >= 4;
    if (whole && !full && (type == 37 || type == 184)) {  // short value: either way
        FUZZ_REQUIRE(result == L2VFIB_ERR_FAIL || type == 37);
        FUZZ_REQUIRE(out == untouched || type == 184);
        return;
    }
    FUZZ_REQUIRE(result == (full && type == 37 ? word : L2VFIB_ERR_FAIL));
    FUZZ_REQUIRE(out == (full && type == 184 ? word : untouched));
}

// The notice callback's view of the current L2VFIB_HandleMsg call.
inline bool g_inHandle = false;
inline int g_calls = 0;
inline uint32_t g_value = 0;

inline uint32_t OnNotice(uint32_t kind, uint32_t *value) {
    FUZZ_REQUIRE(g_inHandle && kind == 1 && value != nullptr);
    ++g_calls;
    g_value = *value;
    return L2VFIB_ERR_FAIL;  // ignored: the handler's result stays its own
}

// Opens the library, delivers the bytes as one datagram, handles it and
// closes again; nothing is read while closed and no descriptor stays open.
inline void Notice(const uint8_t *data, size_t size, bool withCallback) {
    fake::Reset();
    fake::Platform &p = fake::Get();
    p.recvResults.push_back(fake::RecvResult::Datagram(fake::Bytes(data, data + size)));
    g_calls = 0;
    FUZZ_REQUIRE(l2vfib_Batch == nullptr && L2VFIB_HandleMsg(p.nextFd) == L2VFIB_ERR_NOT_OPEN);
    FUZZ_REQUIRE(p.recvs.empty());

    const int32_t fd = L2VFIB_Open(withCallback ? OnNotice : nullptr);
    FUZZ_REQUIRE(fd >= 0);
    g_inHandle = true;
    const uint32_t result = L2VFIB_HandleMsg(fd);
    g_inHandle = false;
    FUZZ_REQUIRE(p.recvs.size() == 1 && p.recvResults.empty());
    FUZZ_REQUIRE(L2VFIB_Close(fd) == 0 && l2vfib_Batch == nullptr);
    FUZZ_REQUIRE(p.closes.size() == p.sockets.size());

    // OK only for a notice: item 36 first, with a value of four bytes, handed
    // over as received. (Which error a malformed one gets is the unit tests'.)
    uint8_t h[16] = {};
    std::memcpy(h, data, size < sizeof h ? size : sizeof h);
    FUZZ_REQUIRE(result == L2VFIB_OK || result == L2VFIB_ERR_FAIL || result == L2VFIB_ERR_BAD_MSG);
    FUZZ_REQUIRE(result != L2VFIB_OK || (size >= 16 && Be16(h + 8) == 36 && Be16(h + 10) >= 4));
    FUZZ_REQUIRE(g_calls == (result == L2VFIB_OK && withCallback ? 1 : 0));
    FUZZ_REQUIRE(g_calls == 0 || g_value == Be32(h + 12));
}

}  // namespace fuzzcheck

#endif
