// Structured fuzzing of the catalogue's encoders (replies and notices are
// fuzz_reply's and fuzz_notice's): l2vfib_EncodeCmd builds any code into a
// room of 0 to 1400 bytes with guard bytes on both sides, under fuzz-chosen
// capability counts, from records that are null or fuzz-filled, each in an allocation
// of exactly the size its encoder reads: variant entries of every kind with
// their records, ext blocks and pair lists, range lists of count words. The
// build runs twice over buffers prefilled with opposite patterns: both must
// give the same message, so every byte of it is written by the library.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "checks.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"

namespace {

using fuzzcheck::Be16;
using Bytes = std::vector<uint8_t>;

// The records of one build, each an allocation of exactly the size asked
// (none at all for a record the encoder does not read), filled from the
// input: a read past a record shows.
struct Records {
    FuzzedDataProvider &fdp;
    std::vector<std::unique_ptr<uint8_t[]>> owned{};

    template <typename T = uint8_t>
    T *Fill(size_t size = sizeof(T)) {
        owned.emplace_back(new uint8_t[size]());
        fdp.ConsumeData(owned.back().get(), size);
        return reinterpret_cast<T *>(owned.back().get());
    }
    // Null now and then, so that refusals of a missing record are fuzzed too.
    bool Missing() { return fdp.ConsumeIntegralInRange(0, 7) == 0; }
    uint16_t Count(uint16_t most) {
        return fdp.ConsumeIntegralInRange<uint16_t>(0, fdp.ConsumeBool() ? 8 : most);
    }
};

// A variant entry of any kind with the record of its kind (or one the kind
// does not read), and for kind 1 its ext block and pair lists.
const void *VariantEntry(Records &r) {
    auto *entry = r.Fill<L2VFIB_VariantEntry>();
    entry->kind = r.fdp.ConsumeIntegralInRange<uint8_t>(0, 6);
    static constexpr size_t kSizes[] = {0, sizeof(L2VFIB_Variant1), sizeof(L2VFIB_Variant2),
                                        sizeof(L2VFIB_Variant2), sizeof(L2VFIB_Variant4), 0, 0};
    void *variant = r.Missing() ? nullptr : r.Fill(kSizes[entry->kind]);
    entry->variant = variant;
    if (entry->kind == 1 && variant != nullptr) {
        auto *v = static_cast<L2VFIB_Variant1 *>(variant);
        v->count0 = r.Count(400), v->count1 = r.Count(400);
        v->list0 = r.Missing() ? nullptr : r.Fill<L2VFIB_HalfPair>(4 * size_t{v->count0});
        v->list1 = r.Missing() ? nullptr : r.Fill<L2VFIB_HalfPair>(4 * size_t{v->count1});
        v->ext = r.Missing() ? nullptr : r.Fill<L2VFIB_Variant1Ext>();
    }
    return entry;
}

// What each encoder reads from arg1 and arg2: a size, or a record built
// above (a variant entry, a range list of exactly count words). A row with
// a word item reads one word from the argument it names.
constexpr size_t kU16 = 2, kU32 = 4, kKey = sizeof(L2VFIB_EntryKey),
                 kPair = sizeof(L2VFIB_WordPair), kVariant = SIZE_MAX, kList = SIZE_MAX - 1;
#define E(name) l2vfib_Enc##name
const struct Reads {
    L2VFIB_CmdEncoder encoder;
    size_t arg1, arg2;
} kReads[] = {
    {E(Tlv83), 0, kU16}, {E(Tlv218), 0, kU16}, {E(Tlv234), 0, kU16},
    {E(Tlv235), 0, kU16}, {E(Tlv238), 0, kU16}, {E(Tlv105), 0, 0}, {E(Tlv106), 0, 0},
    {E(Tlv10), kKey, 0}, {E(Tlv20), 0, kKey}, {E(Tlv70), 0, kPair}, {E(Tlv180), 0, kPair},
    {E(Tlv181Mark182), kU32, 0}, {E(Tlv181Mark183), kU32, 0}, {E(Tlv181Mark186), kU32, 0},
    {E(Tlv143With142), kU32, kU32}, {E(VariantEntry), kKey, kVariant},
    {E(InstanceCfg), kU32, sizeof(L2VFIB_InstanceCfg)}, {E(AcInfo), kKey, sizeof(L2VFIB_AcInfo)},
    {E(HostEntry), kKey, sizeof(L2VFIB_HostEntry)}, {E(AddrParam), 0, sizeof(L2VFIB_AddrParam)},
    {E(AddrSet), 0, sizeof(L2VFIB_AddrSet)}, {E(AddrTriple), 0, 3 * sizeof(L2VFIB_IpAddr)},
    {E(AddrFill), 0, sizeof(L2VFIB_IpAddr)}, {E(MacEntry), kKey, 6},
    {E(Tlv201), 0, sizeof(L2VFIB_DataEntry)}, {E(Tlv239With146), kU32, sizeof(L2VFIB_DataBlock)},
    {E(RangeOrList), kU32, kList}, {E(Tlv141With142), kU32, sizeof(L2VFIB_PairEntryExt)},
    {E(Tlv145With146), kU32, sizeof(L2VFIB_PairEntry)}, {E(Tlv184), 0, sizeof(L2VFIB_WordTriple)},
    {E(Tlv236), 0, sizeof(L2VFIB_WordsHalf)},
};
#undef E

const void *Record(Records &r, size_t reads) {
    if (r.Missing()) return nullptr;
    if (reads == kVariant) return VariantEntry(r);
    if (reads != kList) return r.Fill(reads);
    const uint16_t count = r.Count(200);
    auto *list = r.Fill<L2VFIB_RangeOrList>(sizeof(L2VFIB_RangeOrList) + 4 * size_t{count});
    list->count = count;
    return list;
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
    // A code without encoder or word item reads nothing.
    Reads reads = {nullptr, 0, 0};
    if (cmd < l2vfib::kCmdCount && l2vfib_CmdTable[cmd].word.type != 0) {
        const bool first = l2vfib_CmdTable[cmd].word.arg == 1;
        reads = {nullptr, first ? kU32 : 0, first ? 0 : kU32};
    } else if (cmd < l2vfib::kCmdCount && l2vfib_CmdTable[cmd].encoder != nullptr) {
        const auto *found = std::find_if(std::begin(kReads), std::end(kReads), [&](const Reads &e) {
            return e.encoder == l2vfib_CmdTable[cmd].encoder;
        });
        FUZZ_REQUIRE(found != std::end(kReads));
        reads = *found;
    }
    Records records{fdp};
    const void *arg1 = Record(records, reads.arg1);
    const void *arg2 = Record(records, reads.arg2);
    FUZZ_REQUIRE(Encode(cmd, arg1, arg2, room, fill) ==
                 Encode(cmd, arg1, arg2, room, static_cast<uint8_t>(~fill)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    Send(fdp);
    return 0;
}
