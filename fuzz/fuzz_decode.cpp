// Raw bytes through the message decoder. The first byte picks the
// direction (to or from the forwarding or event service) or a control
// call's input or answer; the rest is the datagram, in a heap block of its
// exact size so that AddressSanitizer sees any read past it.
//
// Checks: the messages lie back to back from the first byte, each within
// the datagram; every item lies inside its message's payload and holds the
// datagram's own bytes; a datagram without fault is used up exactly; every
// fault names an offset inside the datagram; trace lines and JSON render.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <nlohmann/json.hpp>

#include "l2vfib_decode.h"
#include "require.h"

namespace dec = l2vfib::decode;

namespace {

constexpr uint32_t kControlCodes[] = {0x440002, 0x440003, 0x440005, 0x440006, 0x44000c};

void CheckSplit(const dec::Decoded &out, const uint8_t *d, size_t size) {
    size_t end = 0;
    bool faultInside = false;
    for (const dec::Message &m : out.messages) {
        FUZZ_REQUIRE(m.offset == end);
        FUZZ_REQUIRE(m.size >= m.headSize && m.size - m.headSize == m.payloadLen);
        FUZZ_REQUIRE(m.offset + m.size <= size);
        for (const dec::Item &item : m.items) {
            FUZZ_REQUIRE(item.offset >= m.offset + m.headSize);
            FUZZ_REQUIRE(item.offset + 4 + item.value.size() <= m.offset + m.size);
            FUZZ_REQUIRE(item.value.empty() || std::memcmp(item.value.data(), d + item.offset + 4, item.value.size()) == 0);
        }
        faultInside = faultInside || m.error;
        end = m.offset + m.size;
    }
    FUZZ_REQUIRE(out.ok() == (!faultInside && end == size && size != 0));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t mode = data[0] % 6;
    const size_t n = size - 1;
    std::unique_ptr<uint8_t[]> d(new uint8_t[n == 0 ? 1 : n]);
    if (n != 0) std::memcpy(d.get(), data + 1, n);
    const std::span<const uint8_t> datagram(d.get(), n);

    dec::Decoded out;
    if (mode < 4) {
        out = dec::Decode(datagram, static_cast<dec::Channel>(mode));
        CheckSplit(out, d.get(), n);
    } else {
        out = dec::DecodeControl(kControlCodes[(data[0] / 6) % 5], datagram, mode == 5);
    }
    FUZZ_REQUIRE(!out.error || (out.error.offset <= n && !out.error.text.empty()));
    const auto lines = dec::RenderLines(out);
    FUZZ_REQUIRE(lines.size() >= out.messages.size() && lines.size() <= out.messages.size() + 1);
    FUZZ_REQUIRE(!dec::ToJson(out).dump().empty());
    return 0;
}
