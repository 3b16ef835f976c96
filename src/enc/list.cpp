// List and word record encoders.
//
//   range or list: TLV 120 (arg1), then TLVs 121 and 122 (mode 1) or one
//   TLV 123 per entry of words (any other mode); every item 4 bytes
//   +--------+------+--------+-------+--------+-------+
//   | 120, 4 | arg1 | 121, 4 | word0 | 122, 4 | word1 |
//   +--------+------+--------+-------+--------+-------+
//   +--------+------+--------+----------+--------+----------+- - -
//   | 120, 4 | arg1 | 123, 4 | words[0] | 123, 4 | words[1] |
//   +--------+------+--------+----------+--------+----------+- - -
//
//   TLV 141 (16) + TLV 142 (4)                  TLV 145 (8) + TLV 146 (4)
//   +-----+-----+-----+-----+-------+ +----+    +-----+-----+-----+ +----+
//   |word0|half0|half1|word1| 0 x 4 | |arg1|    |word0|half0|half1| |arg1|
//   +-----+-----+-----+-----+-------+ +----+    +-----+-----+-----+ +----+
//
//   TLV 184 (44)                                TLV 236 (12)
//   +-----+-----+-----+---------+               +-----+-----+-----+-----+
//   |word0|word1|word2| FF x 32 |               |word0|word1|half0| 0 0 |
//   +-----+-----+-----+---------+               +-----+-----+-----+-----+
//
// All numbers are big-endian. A list goes whole or not at all: at most
// 173 entries fit the 1392 bytes a message's payload can have.
#include <cstdint>

#include "enc/encoders.h"
#include "enc/items.h"
#include "l2vfib.h"

namespace {

using l2vfib::Items;
using l2vfib::Load;

constexpr uint8_t kModeRange = 1;

}  // namespace

extern "C" {

// Returns 24 (mode 1) or 8 + 8 x count; 0 (refused, nothing written) when
// the whole payload does not fit room or a record is null.
uint16_t l2vfib_EncRangeOrList(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    if (!l2vfib::AllGiven(arg1, arg2)) return 0;
    const auto &r = *static_cast<const L2VFIB_RangeOrList *>(arg2);
    const bool range = r.mode == kModeRange;
    if (room < (range ? 24 : 8 + 8 * uint32_t{r.count})) return 0;
    Items items(out, room);
    items.Word(120, Load<uint32_t>(arg1));
    if (range) return items.Word(121, r.word0).Word(122, r.word1).Length();
    for (uint32_t i = 0; i < r.count; ++i) items.Word(123, r.words[i]);
    return items.Length();
}

// Returns 28; 0 (refused) when room is below 28 or a record is null.
uint16_t l2vfib_EncTlv141With142(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 28 || !l2vfib::AllGiven(arg1, arg2)) return 0;
    const auto &r = *static_cast<const L2VFIB_PairEntryExt *>(arg2);
    Items items(out, room);
    items.Open(141, 16).Be32(0, r.word0).Be16(4, r.half0).Be16(6, r.half1).Be32(8, r.word1);
    return items.Word(142, Load<uint32_t>(arg1)).Length();
}

// Returns 20; 0 (refused) when room is below 20 or a record is null.
uint16_t l2vfib_EncTlv145With146(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 20 || !l2vfib::AllGiven(arg1, arg2)) return 0;
    const auto &r = *static_cast<const L2VFIB_PairEntry *>(arg2);
    Items items(out, room);
    items.Open(145, 8).Be32(0, r.word0).Be16(4, r.half0).Be16(6, r.half1);
    return items.Word(146, Load<uint32_t>(arg1)).Length();
}

// Returns 48; 0 (refused) when room is below 48 or arg2 is null.
uint16_t l2vfib_EncTlv184(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 48 || arg2 == nullptr) return 0;
    const auto &r = *static_cast<const L2VFIB_WordTriple *>(arg2);
    Items items(out, room);
    items.Open(184, 44).Be32(0, r.word0).Be32(4, r.word1).Be32(8, r.word2).Ones(12, 8);
    return items.Length();
}

// Returns 16; 0 (refused) when room is below 16 or arg2 is null.
uint16_t l2vfib_EncTlv236(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 16 || arg2 == nullptr) return 0;
    const auto &r = *static_cast<const L2VFIB_WordsHalf *>(arg2);
    Items items(out, room);
    items.Open(236, 12).Be32(0, r.word0).Be32(4, r.word1).Be16(8, r.half0);
    return items.Length();
}

}  // extern "C"
