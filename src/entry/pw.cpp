// Pseudowires: add (opcode 5, with the caller's attribute block) and delete
// (opcode 7) of object type 3, keyed by TLV 10; and the attribute block's
// encoder.
//
// Attribute block, c = fillWords13:
//
//   TLV 13, 28 + 4c bytes
//    0             8             16      20     22     24     26  27  28
//   +-------------+-------------+-------+------+------+------+---+---+---------+
//   | attr64[0]   | attr64[1]   |attr32 |attr16|attr16|attr16|a8 | 0 | FF x 4c |
//   | be64        | be64        | be32  | [0]  | [1]  | [2]  |   |   |         |
//   +-------------+-------------+-------+------+------+------+---+---+---------+
//   TLV 12, 24 bytes per sub-record present, sub[0] first
//    0      4      8      12    14  15  16    18    20     24
//   +------+------+------+-----+---+---+-----+-----+------+
//   |word0 |word1 |word2 |half0|b0 |b1 |half1|half2|word3 |  (be32/be16)
//   +------+------+------+-----+---+---+-----+-----+------+
#include <cstring>

#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/state.h"
#include "msg/wire.h"

namespace {

using l2vfib::PutBe16;
using l2vfib::PutBe32;
using l2vfib::PutBe64;

constexpr uint32_t kObjPw = 3;
constexpr uint32_t kKeyItem = 10;
constexpr uint32_t kAttrItem = 13;
constexpr uint32_t kSubItem = 12;
constexpr uint32_t kAttrFixed = 28;
constexpr uint32_t kSubSize = 24;
// The most all-ones words that keep TLV 13 within a 256-byte value.
constexpr uint32_t kMaxFill = (256 - kAttrFixed) / 4;

void PutSub(const L2VFIB_LpwSubEntry &sub, uint8_t *v) {
    PutBe32(v, sub.word0);
    PutBe32(v + 4, sub.word1);
    PutBe32(v + 8, sub.word2);
    PutBe16(v + 12, sub.half0);
    v[14] = sub.byte0;
    v[15] = sub.byte1;
    PutBe16(v + 16, sub.half1);
    PutBe16(v + 18, sub.half2);
    PutBe32(v + 20, sub.word3);
}

}  // namespace

extern "C" {

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key, a null block of nonzero length, a block
// above 1380 bytes (the message cannot fit an empty batch), or a flush for
// room that failed.
L2VFIB_API uint32_t L2VFIB_AddPwEntry(int32_t socket, uint32_t byte7, const L2VFIB_EntryKey *key,
                                      const void *block, uint16_t blockLength) {
    return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjPw, l2vfib::kOpAdd, kKeyItem), byte7, key, block,
                              blockLength);
}

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key or a flush for room that failed.
L2VFIB_API uint32_t L2VFIB_DelPwEntry(int32_t socket, uint32_t byte7, const L2VFIB_EntryKey *key) {
    return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjPw, l2vfib::kOpDelete, kKeyItem), byte7, key, nullptr, 0);
}

// Returns the block's length, 32 + 4c without sub-records, 56 + 4c or
// 80 + 4c with one or two; or 0 with nothing written: a null entry or out,
// a fillWords13 above 57, or a room below that of the largest block,
// 4 x (c + 21), whatever entry holds.
L2VFIB_API uint32_t L2VFIB_EncLpwEntry(const L2VFIB_LpwEntry *entry, uint32_t room, void *out) {
    const uint32_t c = l2vfib_Caps.fillWords13;
    if (entry == nullptr || out == nullptr || c > kMaxFill || room < 4 * (c + 21)) return 0;
    // The room test covers the largest block, so both items fit: their
    // values are written whole first, then STLV_Set puts each header in
    // front of its value (given no value, it leaves those bytes as they are).
    auto *o = static_cast<uint8_t *>(out);
    const uint32_t attrLength = kAttrFixed + 4 * c;
    uint8_t *value = o + l2vfib::kItemHead;
    PutBe64(value, entry->attr64[0]);
    PutBe64(value + 8, entry->attr64[1]);
    PutBe32(value + 16, entry->attr32);
    for (int i = 0; i < 3; ++i) PutBe16(value + 20 + 2 * i, entry->attr16[i]);
    value[26] = entry->attr8;
    value[27] = 0;
    if (c != 0) std::memset(value + kAttrFixed, 0xFF, 4 * c);
    const uint32_t n = STLV_Set(o, room, kAttrItem, attrLength, nullptr);
    if (n == 0) return 0;

    uint32_t subs = 0;
    for (const L2VFIB_LpwSubEntry *sub : entry->sub)
        if (sub != nullptr) PutSub(*sub, o + n + l2vfib::kItemHead + kSubSize * subs++);
    if (subs == 0) return n;
    return n + STLV_Set(o + n, room - n, kSubItem, kSubSize * subs, nullptr);
}

}  // extern "C"
