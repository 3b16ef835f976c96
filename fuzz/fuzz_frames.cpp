// Structured fuzzing of both directions of the message layer.
//
// Receive mode: the input chooses a message header (object type, a payload
// length that may lie, tag, opcode, byte 7) and a run of items whose types
// lean towards the three the library reads (36 notice, 37 result, 184
// identifier), whose lengths may lie and whose values may be short; the
// frame may then be cut or padded past the 256-byte reply and 1400-byte
// notice areas. The frame goes to l2vfib_ParseReply and, as a datagram, to
// L2VFIB_HandleMsg, with the checks of checks.cpp.
//
// Send mode: the input chooses the device capability counts, a command code
// (mostly 0 to 95, sometimes any), a room of 0 to 1400 and the two argument
// records, and l2vfib_EncodeCmd builds into a heap buffer with guard bytes
// on both sides. Each record is an exact heap copy of the type the code's
// encoder reads (so reading past it is caught), null, or, for an argument
// the encoder must not read, a poisoned block. Records that hold pointers
// (variant entries) or a counted tail (range or list) are built whole, with
// every pointer valid and every list as long as its count. The build runs
// twice over buffers prefilled with opposite patterns, which must give the
// same result and the same message: every byte of a message is written by
// the library.
#include <fuzzer/FuzzedDataProvider.h>
#include <sanitizer/asan_interface.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "checks.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"
#include "msg/state.h"

namespace {

// ---------------------------------------------------------------------------
// Receive mode
// ---------------------------------------------------------------------------

void PutBe16(std::vector<uint8_t> &f, size_t at, uint32_t v) {
    f[at] = static_cast<uint8_t>(v >> 8);
    f[at + 1] = static_cast<uint8_t>(v);
}

void AppendBe16(std::vector<uint8_t> &f, uint32_t v) {
    f.push_back(static_cast<uint8_t>(v >> 8));
    f.push_back(static_cast<uint8_t>(v));
}

uint16_t PickItemType(FuzzedDataProvider &fdp) {
    switch (fdp.ConsumeIntegralInRange<int>(0, 9)) {
    case 0:
    case 1:
    case 2:
        return 36;
    case 3:
    case 4:
    case 5:
        return 37;
    case 6:
    case 7:
        return 184;
    case 8:
        return fdp.ConsumeIntegral<uint16_t>();
    default:
        return fdp.ConsumeIntegralInRange<uint16_t>(0, 255);
    }
}

// A length field: honest most of the time, otherwise any 16-bit number or
// the honest one a few bytes off.
uint16_t PickLength(FuzzedDataProvider &fdp, size_t honest) {
    switch (fdp.ConsumeIntegralInRange<int>(0, 3)) {
    case 2:
        return fdp.ConsumeIntegral<uint16_t>();
    case 3: {
        const long off = static_cast<long>(honest) + fdp.ConsumeIntegralInRange<int>(-4, 4);
        return static_cast<uint16_t>(off < 0 ? 0 : off);
    }
    default:
        return static_cast<uint16_t>(honest);
    }
}

std::vector<uint8_t> ItemValue(FuzzedDataProvider &fdp) {
    switch (fdp.ConsumeIntegralInRange<int>(0, 3)) {
    case 0: {
        const uint32_t v = fdp.ConsumeIntegral<uint32_t>();
        return {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
    }
    case 1:
        return fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange<size_t>(0, 3));
    case 2:
        return fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange<size_t>(0, 24));
    default:
        return fdp.ConsumeBytes<uint8_t>(fdp.ConsumeIntegralInRange<size_t>(0, 1500));
    }
}

std::vector<uint8_t> BuildFrame(FuzzedDataProvider &fdp) {
    std::vector<uint8_t> f(8, 0);
    const uint16_t objType = fdp.ConsumeIntegral<uint16_t>();
    const uint16_t tag = fdp.ConsumeIntegral<uint16_t>();
    const uint8_t opcode = fdp.ConsumeIntegral<uint8_t>();
    const uint8_t byte7 = fdp.ConsumeIntegral<uint8_t>();
    const int items = fdp.ConsumeIntegralInRange<int>(0, 6);
    for (int i = 0; i < items; ++i) {
        const uint16_t type = PickItemType(fdp);
        const std::vector<uint8_t> value = ItemValue(fdp);
        AppendBe16(f, type);
        AppendBe16(f, PickLength(fdp, value.size()));
        f.insert(f.end(), value.begin(), value.end());
    }
    PutBe16(f, 0, objType);
    PutBe16(f, 2, PickLength(fdp, f.size() - 8));
    PutBe16(f, 4, tag);
    f[6] = opcode;
    f[7] = byte7;

    switch (fdp.ConsumeIntegralInRange<int>(0, 7)) {
    case 0:  // cut short, header included
        f.resize(fdp.ConsumeIntegralInRange<size_t>(0, f.size()));
        break;
    case 1: {  // padded, up to past the receive areas
        const size_t to = fdp.ConsumeIntegralInRange<size_t>(240, 1600);
        if (to > f.size()) f.resize(to, fdp.ConsumeIntegral<uint8_t>());
        break;
    }
    default:
        break;
    }
    return f;
}

void Receive(FuzzedDataProvider &fdp) {
    const bool withCallback = fdp.ConsumeIntegralInRange<int>(0, 3) != 0;
    const std::vector<uint8_t> frame = BuildFrame(fdp);
    fuzzcheck::Reply(frame.data(), frame.size());
    // A reply is read into 256 bytes: the parser sees at most that many.
    if (frame.size() > 256) fuzzcheck::Reply(frame.data(), 256);
    fuzzcheck::Notice(frame.data(), frame.size(), withCallback);
}

// ---------------------------------------------------------------------------
// Send mode
// ---------------------------------------------------------------------------

// What an encoder reads through arg1 or arg2.
enum class Rec : uint8_t {
    kNone,  // nothing: the argument must not be read
    kU16,
    kU32,
    kKey,
    kWordPair,
    kInstanceCfg,
    kHostEntry,
    kAcInfo,
    kAddrParam,
    kAddrSet,
    kAddrTriple,
    kIpAddr,
    kMac,
    kDataEntry,
    kDataBlock,
    kPairEntry,
    kPairEntryExt,
    kWordTriple,
    kWordsHalf,
    kVariantEntry,  // holds pointers
    kRangeOrList,   // counted tail
};

struct CmdArgs {
    Rec arg1;
    Rec arg2;
};

constexpr Rec N = Rec::kNone;

// clang-format off
constexpr CmdArgs kCmdArgs[l2vfib::kCmdCount] = {
    /*  0 */ {N, N}, {N, N}, {Rec::kU32, N}, {Rec::kU32, N},
    /*  4 */ {Rec::kU32, Rec::kInstanceCfg}, {Rec::kU32, Rec::kInstanceCfg},
    /*  6 */ {Rec::kU32, Rec::kInstanceCfg},
    /*  7 */ {Rec::kKey, Rec::kVariantEntry}, {Rec::kKey, Rec::kVariantEntry},
    /*  9 */ {Rec::kKey, Rec::kVariantEntry},
    /* 10 */ {Rec::kU32, N}, {Rec::kU32, Rec::kInstanceCfg}, {Rec::kKey, Rec::kVariantEntry},
    /* 13 */ {N, N}, {N, N},
    /* 15 */ {Rec::kU32, N}, {Rec::kU32, N}, {N, Rec::kU16},
    /* 18 */ {Rec::kU32, N}, {Rec::kU32, N}, {Rec::kU32, N}, {Rec::kU32, N},
    /* 22 */ {Rec::kKey, N}, {N, Rec::kKey},
    /* 24 */ {Rec::kKey, Rec::kHostEntry}, {Rec::kKey, Rec::kHostEntry},
    /* 26 */ {N, Rec::kU32}, {N, Rec::kU32}, {N, Rec::kU32},
    /* 29 */ {N, Rec::kAddrParam}, {N, Rec::kAddrParam}, {N, Rec::kAddrParam},
    /* 32 */ {Rec::kU32, Rec::kRangeOrList}, {Rec::kU32, Rec::kRangeOrList},
    /* 34 */ {N, Rec::kAddrSet}, {N, Rec::kAddrSet}, {N, Rec::kAddrSet},
    /* 37 */ {N, Rec::kU32}, {N, Rec::kU32}, {Rec::kU32, Rec::kU32},
    /* 40 */ {Rec::kU32, Rec::kPairEntryExt}, {Rec::kU32, Rec::kPairEntryExt},
    /* 42 */ {Rec::kU32, N}, {Rec::kU32, N}, {Rec::kU32, N}, {Rec::kU32, N},
    /* 46 */ {N, Rec::kWordPair},
    /* 47 */ {Rec::kU32, Rec::kPairEntry}, {Rec::kU32, Rec::kPairEntry},
    /* 49 */ {Rec::kU32, Rec::kPairEntry},
    /* 50 */ {Rec::kKey, Rec::kAcInfo}, {Rec::kKey, Rec::kAcInfo},
    /* 52 */ {Rec::kKey, Rec::kMac}, {Rec::kKey, Rec::kMac},
    /* 54 */ {N, Rec::kWordTriple}, {N, Rec::kWordTriple},
    /* 56 */ {N, Rec::kU32}, {N, Rec::kU32}, {Rec::kU32, N}, {Rec::kU32, N},
    /* 60 */ {N, Rec::kAddrTriple}, {N, N}, {N, N}, {N, N},
    /* 64 */ {N, Rec::kU32}, {N, Rec::kU32},
    /* 66 */ {N, Rec::kDataEntry}, {N, Rec::kDataEntry}, {N, Rec::kU32},
    /* 69 */ {Rec::kKey, Rec::kVariantEntry}, {Rec::kKey, Rec::kVariantEntry},
    /* 71 */ {N, N}, {N, N}, {N, N},
    /* 74 */ {N, Rec::kU32}, {N, Rec::kU32}, {N, Rec::kU16}, {N, Rec::kU16},
    /* 78 */ {N, Rec::kIpAddr}, {N, Rec::kIpAddr}, {N, Rec::kWordPair}, {N, Rec::kU16},
    /* 82 */ {N, Rec::kWordsHalf}, {N, Rec::kWordsHalf}, {N, Rec::kWordsHalf},
    /* 85 */ {N, Rec::kU16}, {N, Rec::kU32}, {N, Rec::kU32}, {N, Rec::kU32},
    /* 89 */ {N, Rec::kU16}, {N, Rec::kU16}, {Rec::kU32, Rec::kDataBlock},
};
// clang-format on

size_t FlatSize(Rec r) {
    switch (r) {
    case Rec::kU16: return sizeof(uint16_t);
    case Rec::kU32: return sizeof(uint32_t);
    case Rec::kKey: return sizeof(L2VFIB_EntryKey);
    case Rec::kWordPair: return sizeof(L2VFIB_WordPair);
    case Rec::kInstanceCfg: return sizeof(L2VFIB_InstanceCfg);
    case Rec::kHostEntry: return sizeof(L2VFIB_HostEntry);
    case Rec::kAcInfo: return sizeof(L2VFIB_AcInfo);
    case Rec::kAddrParam: return sizeof(L2VFIB_AddrParam);
    case Rec::kAddrSet: return sizeof(L2VFIB_AddrSet);
    case Rec::kAddrTriple: return 3 * sizeof(L2VFIB_IpAddr);
    case Rec::kIpAddr: return sizeof(L2VFIB_IpAddr);
    case Rec::kMac: return 6;
    case Rec::kDataEntry: return sizeof(L2VFIB_DataEntry);
    case Rec::kDataBlock: return sizeof(L2VFIB_DataBlock);
    case Rec::kPairEntry: return sizeof(L2VFIB_PairEntry);
    case Rec::kPairEntryExt: return sizeof(L2VFIB_PairEntryExt);
    case Rec::kWordTriple: return sizeof(L2VFIB_WordTriple);
    case Rec::kWordsHalf: return sizeof(L2VFIB_WordsHalf);
    default: return 0;
    }
}

// Given for arguments an encoder must not read, and for empty lists: any
// read of it is reported by AddressSanitizer.
alignas(16) uint8_t g_unreadable[64];

// The records of one input, freed together.
class Arena {
public:
    Arena() = default;
    Arena(const Arena &) = delete;
    Arena &operator=(const Arena &) = delete;
    ~Arena() {
        for (void *p : blocks_) std::free(p);
    }

    // size bytes from the input (zeros once it runs out), in a block of
    // exactly that size; the unreadable block for size 0.
    void *Fill(FuzzedDataProvider &fdp, size_t size) {
        if (size == 0) return g_unreadable;
        void *p = std::malloc(size);
        FUZZ_REQUIRE(p != nullptr);
        blocks_.push_back(p);
        const std::vector<uint8_t> bytes = fdp.ConsumeBytes<uint8_t>(size);
        if (!bytes.empty()) std::memcpy(p, bytes.data(), bytes.size());
        std::memset(static_cast<uint8_t *>(p) + bytes.size(), 0, size - bytes.size());
        return p;
    }

private:
    std::vector<void *> blocks_;
};

// A list of 16-bit pairs and its count: a null list with any count, or a
// list exactly as long as its count.
const L2VFIB_HalfPair *MakePairs(FuzzedDataProvider &fdp, Arena &arena, uint16_t *count) {
    switch (fdp.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
        *count = fdp.ConsumeIntegral<uint16_t>();
        return nullptr;
    case 3:
        *count = fdp.ConsumeIntegralInRange<uint16_t>(0, 400);
        break;
    default:
        *count = fdp.ConsumeIntegralInRange<uint16_t>(0, 64);
        break;
    }
    return static_cast<const L2VFIB_HalfPair *>(
        arena.Fill(fdp, static_cast<size_t>(*count) * sizeof(L2VFIB_HalfPair)));
}

const void *MakeVariantEntry(FuzzedDataProvider &fdp, Arena &arena) {
    auto *entry =
        static_cast<L2VFIB_VariantEntry *>(arena.Fill(fdp, sizeof(L2VFIB_VariantEntry)));
    switch (fdp.ConsumeIntegralInRange<int>(0, 9)) {
    case 0: case 1: case 2: case 3: entry->kind = 1; break;
    case 4: entry->kind = 2; break;
    case 5: entry->kind = 3; break;
    case 6: entry->kind = 4; break;
    case 7: entry->kind = 0; break;
    default: entry->kind = fdp.ConsumeIntegralInRange<uint8_t>(5, 255); break;
    }
    switch (entry->kind) {
    case 1: {
        auto *v = static_cast<L2VFIB_Variant1 *>(arena.Fill(fdp, sizeof(L2VFIB_Variant1)));
        v->list0 = MakePairs(fdp, arena, &v->count0);
        v->list1 = MakePairs(fdp, arena, &v->count1);
        v->ext = fdp.ConsumeBool() ? nullptr
                                   : static_cast<const L2VFIB_Variant1Ext *>(
                                         arena.Fill(fdp, sizeof(L2VFIB_Variant1Ext)));
        entry->variant = v;
        break;
    }
    case 2:
    case 3:
        entry->variant = arena.Fill(fdp, sizeof(L2VFIB_Variant2));
        break;
    case 4:
        entry->variant = arena.Fill(fdp, sizeof(L2VFIB_Variant4));
        break;
    default:  // no record of that kind: the pointer is not read
        entry->variant = fdp.ConsumeBool() ? nullptr : g_unreadable;
        break;
    }
    return entry;
}

const void *MakeRangeOrList(FuzzedDataProvider &fdp, Arena &arena) {
    const uint8_t mode =
        fdp.ConsumeIntegralInRange<int>(0, 3) == 0 ? 1 : fdp.ConsumeIntegral<uint8_t>();
    uint16_t count;
    size_t words;
    if (mode == 1) {  // a pair: count and words are not read
        count = fdp.ConsumeIntegral<uint16_t>();
        words = 0;
    } else {
        count = fdp.ConsumeIntegralInRange<int>(0, 7) < 6
                    ? fdp.ConsumeIntegralInRange<uint16_t>(0, 200)
                    : fdp.ConsumeIntegralInRange<uint16_t>(0, 2000);
        words = count;
    }
    auto *r = static_cast<L2VFIB_RangeOrList *>(
        arena.Fill(fdp, sizeof(L2VFIB_RangeOrList) + words * sizeof(uint32_t)));
    r->mode = mode;
    r->count = count;
    return r;
}

const void *MakeRecord(FuzzedDataProvider &fdp, Arena &arena, Rec rec) {
    if (rec == Rec::kNone) return fdp.ConsumeIntegralInRange<int>(0, 3) == 0 ? nullptr : g_unreadable;
    if (fdp.ConsumeIntegralInRange<int>(0, 7) == 0) return nullptr;
    switch (rec) {
    case Rec::kVariantEntry: return MakeVariantEntry(fdp, arena);
    case Rec::kRangeOrList: return MakeRangeOrList(fdp, arena);
    default: return arena.Fill(fdp, FlatSize(rec));
    }
}

uint8_t PickCount(FuzzedDataProvider &fdp) {
    return fdp.ConsumeBool() ? fdp.ConsumeIntegralInRange<uint8_t>(0, 8)
                             : fdp.ConsumeIntegral<uint8_t>();
}

constexpr size_t kGuard = 32;

uint32_t Be16(const uint8_t *p) { return (static_cast<uint32_t>(p[0]) << 8) | p[1]; }

bool AllEqual(const uint8_t *p, size_t n, uint8_t v) {
    for (size_t i = 0; i < n; ++i)
        if (p[i] != v) return false;
    return true;
}

// Builds cmd into room bytes prefilled with fill, guarded on both sides;
// checks what was and was not written and returns the result, with the
// message in *message.
uint16_t EncodeOnce(uint32_t cmd, const void *arg1, const void *arg2, uint16_t room, uint8_t fill,
                    std::vector<uint8_t> *message) {
    const size_t total = kGuard + room + kGuard;
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[total]);
    std::memset(buffer.get(), fill, total);
    uint8_t *out = buffer.get() + kGuard;

    const uint16_t length = l2vfib_EncodeCmd(cmd, arg1, arg2, room, out);

    FUZZ_REQUIRE(AllEqual(buffer.get(), kGuard, fill));
    FUZZ_REQUIRE(AllEqual(out + room, kGuard, fill));
    const bool noEncoder = cmd >= l2vfib::kCmdCount || l2vfib_CmdTable[cmd].encoder == nullptr;
    if (length == 0) {
        // Nothing at all without an encoder call; never a header.
        if (room <= 7 || noEncoder)
            FUZZ_REQUIRE(AllEqual(out, room, fill));
        else
            FUZZ_REQUIRE(AllEqual(out, 8, fill));
        message->clear();
        return 0;
    }
    FUZZ_REQUIRE(!noEncoder);
    FUZZ_REQUIRE(length <= room);
    FUZZ_REQUIRE(length >= 12);  // a header and at least one item
    FUZZ_REQUIRE(length == 8 + Be16(out + 2));
    FUZZ_REQUIRE(out[4] == 0 && out[5] == 0);
    FUZZ_REQUIRE(out[7] == (cmd == 80 ? 5 : 8));
    // The payload is whole items back to back, the last one ending exactly
    // at the message's end.
    uint32_t pos = 8;
    while (pos < length) {
        uint32_t type = 0;
        uint32_t itemLength = 0;
        const void *value = nullptr;
        FUZZ_REQUIRE(STLV_Get(out + pos, length - pos, &type, &itemLength, &value) != 0);
        pos += 4 + itemLength;
    }
    FUZZ_REQUIRE(pos == length);
    message->assign(out, out + length);
    return length;
}

void Send(FuzzedDataProvider &fdp) {
    l2vfib_Caps.fillWords13 = PickCount(fdp);
    l2vfib_Caps.fillWords21 = PickCount(fdp);
    l2vfib_Caps.fillWords22 = PickCount(fdp);
    l2vfib_Caps.fillWords33 = PickCount(fdp);
    l2vfib_Caps.fillWords39 = PickCount(fdp);
    const uint32_t cmd = fdp.ConsumeIntegralInRange<int>(0, 15) == 0
                             ? fdp.ConsumeIntegral<uint32_t>()
                             : fdp.ConsumeIntegralInRange<uint32_t>(0, 95);
    const uint16_t room = fdp.ConsumeIntegralInRange<uint16_t>(0, L2VFIB_BATCH_SIZE);
    const uint8_t fill = fdp.ConsumeIntegral<uint8_t>();
    const CmdArgs args = cmd < l2vfib::kCmdCount ? kCmdArgs[cmd] : CmdArgs{N, N};

    Arena arena;
    const void *arg1 = MakeRecord(fdp, arena, args.arg1);
    const void *arg2 = MakeRecord(fdp, arena, args.arg2);

    std::vector<uint8_t> first;
    std::vector<uint8_t> second;
    const uint16_t length = EncodeOnce(cmd, arg1, arg2, room, fill, &first);
    FUZZ_REQUIRE(EncodeOnce(cmd, arg1, arg2, room, static_cast<uint8_t>(~fill), &second) ==
                 length);
    FUZZ_REQUIRE(first == second);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ASAN_POISON_MEMORY_REGION(g_unreadable, sizeof g_unreadable);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider fdp(data, size);
    if (fdp.ConsumeBool())
        Send(fdp);
    else
        Receive(fdp);
    return 0;
}
