// Structured fuzzing of both directions of the message layer.
//
// Receive mode: a frame of a header and up to six items (types leaning to
// 36, 37 and 184, values short or long), whose payload and item lengths may
// lie, maybe cut or padded past the 256-byte reply and 1400-byte notice
// areas, goes to l2vfib_ParseReply and, as a datagram, to L2VFIB_HandleMsg.
//
// Send mode: l2vfib_EncodeCmd builds any code into a room of 0 to 1400
// bytes with guard bytes on both sides, under fuzz-chosen capability
// counts, from records that are null or a zero-padded block with fuzz bytes
// in front, large enough for any record including a full counted list. The
// build runs twice over buffers prefilled with opposite patterns: both must
// give the same message, so every byte of it is written by the library.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <vector>

#include "checks.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"

namespace {

using fuzzcheck::Be16;
using Bytes = std::vector<uint8_t>;

void Put16(Bytes &f, size_t at, uint32_t v) {
    f[at] = static_cast<uint8_t>(v >> 8);
    f[at + 1] = static_cast<uint8_t>(v);
}

// A length field: honest, a few bytes off, or anything.
uint16_t Length(FuzzedDataProvider &fdp, size_t honest) {
    switch (fdp.ConsumeIntegralInRange(0, 3)) {
    case 0: return fdp.ConsumeIntegral<uint16_t>();
    case 1: return static_cast<uint16_t>(std::max<long>(0, long(honest) + fdp.ConsumeIntegralInRange(-4, 4)));
    default: return static_cast<uint16_t>(honest);
    }
}

void Receive(FuzzedDataProvider &fdp) {
    const bool withCallback = fdp.ConsumeIntegralInRange(0, 3) != 0;
    Bytes f(8);
    for (int items = fdp.ConsumeIntegralInRange(0, 6); items > 0; --items) {
        static constexpr uint16_t kTypes[] = {36, 37, 184};
        const uint16_t type = fdp.ConsumeBool() ? kTypes[fdp.ConsumeIntegralInRange(0, 2)]
                                                : fdp.ConsumeIntegral<uint16_t>();
        const Bytes value = fdp.ConsumeBytes<uint8_t>(
            fdp.ConsumeBool() ? 4 : fdp.ConsumeIntegralInRange<size_t>(0, 1500));
        f.resize(f.size() + 4);
        Put16(f, f.size() - 4, type);
        Put16(f, f.size() - 2, Length(fdp, value.size()));
        f.insert(f.end(), value.begin(), value.end());
    }
    const Bytes head = fdp.ConsumeBytes<uint8_t>(8);
    std::copy(head.begin(), head.end(), f.begin());
    Put16(f, 2, Length(fdp, f.size() - 8));
    switch (fdp.ConsumeIntegralInRange(0, 7)) {
    case 0: f.resize(fdp.ConsumeIntegralInRange<size_t>(0, f.size())); break;
    case 1: f.resize(std::max(f.size(), fdp.ConsumeIntegralInRange<size_t>(240, 1600)),
                     fdp.ConsumeIntegral<uint8_t>()); break;
    default: break;
    }
    fuzzcheck::Reply(f.data(), f.size());
    if (f.size() > 256) fuzzcheck::Reply(f.data(), 256);  // what a reply read keeps
    fuzzcheck::Notice(f.data(), f.size(), withCallback);
}

// Room for the largest record, a range or list of 65535 words included.
constexpr size_t kBlock = sizeof(L2VFIB_RangeOrList) + 65535 * sizeof(uint32_t);

// A record: null, or the block with up to 512 fuzz bytes in front, zeros
// behind. The block is one exact allocation, so reading past it is caught.
const void *Record(FuzzedDataProvider &fdp, int which) {
    static uint8_t *const blocks[2] = {new uint8_t[kBlock](), new uint8_t[kBlock]()};
    static size_t used[2] = {};
    if (fdp.ConsumeIntegralInRange(0, 7) == 0) return nullptr;
    const Bytes bytes = fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange<size_t>(0, 512));
    std::fill_n(blocks[which], used[which], 0);
    std::copy(bytes.begin(), bytes.end(), blocks[which]);
    used[which] = bytes.size();
    return blocks[which];
}

constexpr size_t kGuard = 32;

// Builds cmd over a buffer prefilled with fill; checks what was written
// and returns the message (empty when refused).
Bytes Encode(uint32_t cmd, const void *arg1, const void *arg2, uint16_t room, uint8_t fill) {
    Bytes buf(kGuard + room + kGuard, fill);
    uint8_t *out = buf.data() + kGuard;
    const uint16_t length = l2vfib_EncodeCmd(cmd, arg1, arg2, room, out);
    auto untouched = [&](const uint8_t *from, size_t n) {
        return std::all_of(from, from + n, [&](uint8_t b) { return b == fill; });
    };
    FUZZ_REQUIRE(untouched(buf.data(), kGuard) && untouched(out + room, kGuard));
    if (length == 0) {
        FUZZ_REQUIRE(untouched(out, std::min<size_t>(room, 8)));  // never a header
        return {};
    }
    FUZZ_REQUIRE(cmd < l2vfib::kCmdCount && length <= room && length == 8 + Be16(out + 2));
    FUZZ_REQUIRE(Be16(out + 4) == 0);  // tag
    // The payload is whole items, the last one ending at the message's end.
    uint32_t pos = 8, type = 0, itemLength = 0;
    const void *value = nullptr;
    while (pos < length) {
        FUZZ_REQUIRE(STLV_Get(out + pos, length - pos, &type, &itemLength, &value) != 0);
        pos += 4 + itemLength;
    }
    FUZZ_REQUIRE(pos == length && length >= 12);
    return Bytes(out, out + length);
}

void Send(FuzzedDataProvider &fdp) {
    for (uint8_t *count : {&l2vfib_Caps.fillWords13, &l2vfib_Caps.fillWords21,
                           &l2vfib_Caps.fillWords22, &l2vfib_Caps.fillWords33,
                           &l2vfib_Caps.fillWords39})
        *count = fdp.ConsumeIntegral<uint8_t>();
    const uint32_t cmd = fdp.ConsumeIntegralInRange(0, 15) == 0
                             ? fdp.ConsumeIntegral<uint32_t>()
                             : fdp.ConsumeIntegralInRange<uint32_t>(0, 95);
    const uint16_t room = fdp.ConsumeIntegralInRange<uint16_t>(0, L2VFIB_BATCH_SIZE);
    const uint8_t fill = fdp.ConsumeIntegral<uint8_t>();
    const void *arg1 = Record(fdp, 0);
    const void *arg2 = Record(fdp, 1);
    // A variant entry holds pointers a plain block cannot give: null only.
    static constexpr uint32_t kVariant[] = {7, 8, 9, 12, 69, 70};
    if (std::find(std::begin(kVariant), std::end(kVariant), cmd) != std::end(kVariant))
        arg2 = nullptr;
    FUZZ_REQUIRE(Encode(cmd, arg1, arg2, room, fill) ==
                 Encode(cmd, arg1, arg2, room, static_cast<uint8_t>(~fill)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    if (fdp.ConsumeBool())
        Send(fdp);
    else
        Receive(fdp);
    return 0;
}
