// The variant entry encoder (object types 4, 5 and 37): the entry's key,
// then, when the caller gives an entry record, its common item and the
// items its kind selects.
//
//   TLV 20: 8          TLV 21: 12 + 4c (c = fillWords21)
//   +----+-----+----+  +------+-----+-----+-----+-----+-------+---------+
//   | id |subId|0 0 |  | word0|half0|byte0|kind |byte1| 0 x 3 | FF x 4c |
//   +----+-----+----+  +------+-----+-----+-----+-----+-------+---------+
//
//   kind 1: TLV 23 (16), then TLV 24 (40) when ext is set, TLV 25 / 26
//   (4 x count) when list0 / list1 is set
//   +-----+-----+-----+------+-----+-----+------+
//   |word0|half0|half1|count0|half2|half3|count1|
//   +-----+-----+-----+------+-----+-----+------+
//   +-----+-----+-----+---------------------+---------------------+
//   |word0|half0| 0 0 | sub[0]: word0 half0 | sub[1]: word0 half0 |
//   |     |     |     | ... half5 (16)      | ... half5 (16)      |
//   +-----+-----+-----+---------------------+---------------------+
//   +-------+-------+-------+-------+----
//   | half0 | half1 | half0 | half1 | ...  one pair after the other
//   +-------+-------+-------+-------+----
//
//   kinds 2, 3: TLV 27 (12)               kind 4: TLV 28 (8)
//   +-----+-----+-----+-----+---+         +-----+-----+-----+
//   |word0|word1|half0|byte0| 0 |         |half0| 0 0 |word0|
//   +-----+-----+-----+-----+---+         +-----+-----+-----+
//
// Any other kind sends TLV 21 alone. All numbers are big-endian; the pair
// lists are converted straight into the output like every other value.
#include <cstdint>
#include <cstring>

#include "enc/encoders.h"
#include "enc/items.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/state.h"
#include "msg/wire.h"

namespace {

using l2vfib::PutBe16;
using l2vfib::PutBe32;

constexpr uint32_t kEntryFixed = 12;
constexpr uint32_t kEntryMaxFill = l2vfib::MaxFill(kEntryFixed);  // 61
constexpr uint32_t kSubSize = 16;
// Kind 1's items before the all-ones tail and the optional ones: TLV 20,
// TLV 21's header and fixed part, TLV 23.
constexpr uint32_t kKind1Fixed = 12 + 4 + kEntryFixed + 20;

// What kind 1 adds behind TLV 21 whose size the records decide: TLV 24 and
// the two lists. Worked out in 32 bits, so no count can wrap it.
uint32_t Variant1Extra(const L2VFIB_Variant1 &v) {
    uint32_t n = 0;
    if (v.ext != nullptr) n += 4 + 40;
    if (v.list0 != nullptr) n += 4 + 4 * uint32_t{v.count0};
    if (v.list1 != nullptr) n += 4 + 4 * uint32_t{v.count1};
    return n;
}

// Writes items one behind the other into a payload whose room was measured
// before the first byte: the codec writes each item's header, which always
// fits, and the caller every byte of its value.
class Writer {
  public:
    Writer(uint8_t *out, uint16_t room) : out_(out), pos_(out), end_(out + room) {}
    // The header of an item of length bytes; returns where its value goes.
    uint8_t *Item(uint32_t type, uint32_t length) {
        (void)STLV_Set(pos_, static_cast<uint32_t>(end_ - pos_), type, length, nullptr);
        uint8_t *value = pos_ + l2vfib::kItemHead;
        pos_ = value + length;
        return value;
    }
    uint16_t Length() const { return static_cast<uint16_t>(pos_ - out_); }

  private:
    uint8_t *out_;
    uint8_t *pos_;
    uint8_t *end_;
};

void PutKey(Writer &items, const L2VFIB_EntryKey &key) {
    uint8_t *v = items.Item(20, 8);
    PutBe32(v, key.id);
    PutBe32(v + 4, uint32_t{key.subId} << 16);
}

// A pair list as one item, converted straight into the output. (Unrolled:
// the lists are long, and each step converts a few pairs at once.)
void PutList(Writer &items, uint32_t type, const L2VFIB_HalfPair *list, uint16_t count) {
    if (list == nullptr) return;
    uint8_t *at = items.Item(type, 4 * uint32_t{count});
#pragma GCC unroll 4
    for (uint32_t i = 0; i < count; ++i, at += 4) {
        PutBe16(at, list[i].half0);
        PutBe16(at + 2, list[i].half1);
    }
}

void PutVariant1(Writer &items, const L2VFIB_Variant1 &v) {
    uint8_t *head = items.Item(23, 16);
    PutBe32(head, v.word0);
    PutBe16(head + 4, v.half0);
    PutBe16(head + 6, v.half1);
    PutBe16(head + 8, v.count0);
    PutBe16(head + 10, v.half2);
    PutBe16(head + 12, v.half3);
    PutBe16(head + 14, v.count1);
    if (v.ext != nullptr) {
        uint8_t *ext = items.Item(24, 40);
        PutBe32(ext, v.ext->word0);
        PutBe32(ext + 4, uint32_t{v.ext->half0} << 16);
        for (uint32_t i = 0; i < 2; ++i) {
            const L2VFIB_Variant1Sub &sub = v.ext->sub[i];
            uint8_t *at = ext + 8 + kSubSize * i;
            PutBe32(at, sub.word0);
            PutBe16(at + 4, sub.half0);
            PutBe16(at + 6, sub.half1);
            PutBe16(at + 8, sub.half2);
            PutBe16(at + 10, sub.half3);
            PutBe16(at + 12, sub.half4);
            PutBe16(at + 14, sub.half5);
        }
    }
    PutList(items, 25, v.list0, v.count0);
    PutList(items, 26, v.list1, v.count1);
}

}  // namespace

extern "C" {

// Returns the payload length, or 0 (refused) when room is below
// 4 x (fillWords21 + 77), the key is null, or, with an entry record: the
// count is above 61 (TLV 21 would outgrow its 256-byte bound), kind 1 to 4
// comes without its variant record, or the lists do not fit the room. Every
// refusal comes before the first byte is written.
uint16_t l2vfib_EncVariantEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    const uint32_t c = l2vfib_Caps.fillWords21;
    const auto *key = static_cast<const L2VFIB_EntryKey *>(arg1);
    const auto *entry = static_cast<const L2VFIB_VariantEntry *>(arg2);
    if (room < 4 * (c + 77) || key == nullptr) return 0;
    Writer items(out, room);
    if (entry == nullptr) {
        PutKey(items, *key);
        return items.Length();
    }

    const uint8_t kind = entry->kind;
    const void *variant = entry->variant;
    if (c > kEntryMaxFill || (kind >= 1 && kind <= 4 && variant == nullptr)) return 0;
    // The fixed items always fit once the minimum room passed; the lists
    // are the caller's length and are measured before anything is written.
    const auto *v1 = static_cast<const L2VFIB_Variant1 *>(variant);
    if (kind == 1 && kKind1Fixed + 4 * c + Variant1Extra(*v1) > room) return 0;

    PutKey(items, *key);
    uint8_t *common = items.Item(21, kEntryFixed + 4 * c);
    PutBe32(common, entry->word0);
    PutBe16(common + 4, entry->half0);
    common[6] = entry->byte0;
    common[7] = kind;
    PutBe32(common + 8, uint32_t{entry->byte1} << 24);
    if (c != 0) std::memset(common + kEntryFixed, 0xFF, 4 * c);
    switch (kind) {
    case 1:
        PutVariant1(items, *v1);
        break;
    case 2:
    case 3: {
        const auto &v = *static_cast<const L2VFIB_Variant2 *>(variant);
        uint8_t *at = items.Item(27, 12);
        PutBe32(at, v.word0);
        PutBe32(at + 4, v.word1);
        PutBe32(at + 8, uint32_t{v.half0} << 16 | uint32_t{v.byte0} << 8);
        break;
    }
    case 4: {
        const auto &v = *static_cast<const L2VFIB_Variant4 *>(variant);
        uint8_t *at = items.Item(28, 8);
        PutBe32(at, uint32_t{v.half0} << 16);
        PutBe32(at + 4, v.word0);
        break;
    }
    default:
        break;
    }
    return items.Length();
}

}  // extern "C"
