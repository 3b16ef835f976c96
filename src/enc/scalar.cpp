// Scalar payload encoders: one or two fixed-size items of plain numbers.
// (A payload of one 32-bit number alone is written by the catalogue from
// its row, src/msg/catalogue.h.)
//
//   u32 item            u16 item          u16 widened (TLV 83)
//   +------+-----+      +------+-----+    +------+---------+-----+
//   | t, 4 | be32|      | t, 2 | be16|    | t, 4 | 00 00   | be16|
//   +------+-----+      +------+-----+    +------+---------+-----+
//
//   entry key (TLVs 10, 20)              word pair (TLVs 70, 180)
//   +------+------+------+-------+       +------+-------+-------+
//   | t, 8 | id   | subId| 00 00 |       | t, 8 | word0 | word1 |
//   |      | be32 | be16 |       |       |      | be32  | be32  |
//   +------+------+------+-------+       +------+-------+-------+
//
//   mark pair (181 + 182/183/186)        TLV 143 + TLV 142
//   +--------+------+--------+           +--------+------+--------+------+
//   | 181, 4 | be32 | m, 0   |           | 143, 4 | arg2 | 142, 4 | arg1 |
//   +--------+------+--------+           +--------+------+--------+------+
//
// Each encoder first makes its own room test (its minimum room, which is
// not always what its items need: STLV_Set refuses what does not fit), and
// refuses a null record. Each value is written behind its item header,
// every byte of it.
#include <cstdint>

#include "enc/encoders.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/wire.h"

namespace {

using l2vfib::Load;
using l2vfib::PutBe16;
using l2vfib::PutBe32;

// No room test of the encoder's own: the decision is left to STLV_Set.
constexpr uint16_t kNoMinimum = 0;

// Writes one item of an N-byte value that fill writes whole from the
// record; refuses below minRoom or without a record. The value goes first,
// once the item is known to fit, and STLV_Set then puts the header in
// front of it (given no value, it leaves the value bytes as they are): the
// codec is the last call, so nothing has to be kept across it.
template <uint32_t N, typename Fill>
uint16_t RecordItem(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                    uint8_t *out, Fill fill) {
    if (room < minRoom || record == nullptr || room < l2vfib::kItemHead + N) return 0;
    fill(out + l2vfib::kItemHead, record);
    return static_cast<uint16_t>(STLV_Set(out, room, type, N, nullptr));
}

uint16_t U32Item(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                 uint8_t *out) {
    return RecordItem<4>(record, minRoom, type, room, out, [](uint8_t *v, const void *r) {
        PutBe32(v, Load<uint32_t>(r));
    });
}

uint16_t U16Item(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                 uint8_t *out) {
    return RecordItem<2>(record, minRoom, type, room, out, [](uint8_t *v, const void *r) {
        PutBe16(v, Load<uint16_t>(r));
    });
}

// A 16-bit number widened to 32 bits: value bytes 0-1 are 0.
uint16_t U16WideItem(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                     uint8_t *out) {
    return RecordItem<4>(record, minRoom, type, room, out, [](uint8_t *v, const void *r) {
        PutBe32(v, Load<uint16_t>(r));
    });
}

uint16_t EmptyItem(uint16_t minRoom, uint32_t type, uint16_t room, uint8_t *out) {
    if (room < minRoom) return 0;
    return static_cast<uint16_t>(STLV_Set(out, room, type, 0, nullptr));
}

uint16_t KeyItem(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                 uint8_t *out) {
    return RecordItem<8>(record, minRoom, type, room, out, [](uint8_t *v, const void *r) {
        const auto *key = static_cast<const L2VFIB_EntryKey *>(r);
        PutBe32(v, key->id);
        PutBe16(v + 4, key->subId);
        PutBe16(v + 6, 0);
    });
}

uint16_t PairItem(const void *record, uint16_t minRoom, uint32_t type, uint16_t room,
                  uint8_t *out) {
    return RecordItem<8>(record, minRoom, type, room, out, [](uint8_t *v, const void *r) {
        const auto *pair = static_cast<const L2VFIB_WordPair *>(r);
        PutBe32(v, pair->word0);
        PutBe32(v + 4, pair->word1);
    });
}

// Two items: the first of a 32-bit number, the second either empty
// (second == nullptr) or of another 32-bit number. The minimum room covers
// both, so both are always written once it passes.
uint16_t TwoItems(uint16_t minRoom, uint32_t firstType, const void *first, uint32_t secondType,
                  const void *second, bool secondEmpty, uint16_t room, uint8_t *out) {
    if (room < minRoom || first == nullptr || (!secondEmpty && second == nullptr)) return 0;
    uint16_t n = U32Item(first, kNoMinimum, firstType, room, out);
    if (secondEmpty)
        n = static_cast<uint16_t>(n + EmptyItem(kNoMinimum, secondType,
                                                static_cast<uint16_t>(room - n), out + n));
    else
        n = static_cast<uint16_t>(n + U32Item(second, kNoMinimum, secondType,
                                              static_cast<uint16_t>(room - n), out + n));
    return n;
}

}  // namespace

extern "C" {

uint16_t l2vfib_EncTlv83(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return U16WideItem(arg2, 4, 83, room, out);
}
uint16_t l2vfib_EncTlv218(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return U16Item(arg2, 6, 218, room, out);
}
uint16_t l2vfib_EncTlv234(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return U16Item(arg2, 6, 234, room, out);
}
uint16_t l2vfib_EncTlv235(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return U16Item(arg2, 6, 235, room, out);
}
uint16_t l2vfib_EncTlv238(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return U16Item(arg2, 6, 238, room, out);
}

uint16_t l2vfib_EncTlv105(const void *, const void *, uint16_t room, uint8_t *out) {
    return EmptyItem(4, 105, room, out);
}
uint16_t l2vfib_EncTlv106(const void *, const void *, uint16_t room, uint8_t *out) {
    return EmptyItem(4, 106, room, out);
}

uint16_t l2vfib_EncTlv10(const void *arg1, const void *, uint16_t room, uint8_t *out) {
    return KeyItem(arg1, kNoMinimum, 10, room, out);
}
uint16_t l2vfib_EncTlv20(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return KeyItem(arg2, 4, 20, room, out);
}
uint16_t l2vfib_EncTlv70(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return PairItem(arg2, 4, 70, room, out);
}
uint16_t l2vfib_EncTlv180(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    return PairItem(arg2, kNoMinimum, 180, room, out);
}

uint16_t l2vfib_EncTlv181Mark182(const void *arg1, const void *, uint16_t room, uint8_t *out) {
    return TwoItems(12, 181, arg1, 182, nullptr, true, room, out);
}
uint16_t l2vfib_EncTlv181Mark183(const void *arg1, const void *, uint16_t room, uint8_t *out) {
    return TwoItems(12, 181, arg1, 183, nullptr, true, room, out);
}
uint16_t l2vfib_EncTlv181Mark186(const void *arg1, const void *, uint16_t room, uint8_t *out) {
    return TwoItems(12, 181, arg1, 186, nullptr, true, room, out);
}
uint16_t l2vfib_EncTlv143With142(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    return TwoItems(16, 143, arg2, 142, arg1, false, room, out);
}

}  // extern "C"
