// Record encoders sized by a device capability count: a key item, then,
// when the caller gives the record, one record item that ends in c words
// of all-ones, c being the count read at open for that item.
//
//   TLV 32 (4)    TLV 33 (116 + 4c, c = fillWords33)
//   +-------+     +-----+-----+-----+-----+-----+-----+-----+-------------+
//   | arg1  |     |word0|word1|word2|half0|byte0|byte1|word3| name, 32    |
//   +-------+     +-----+-----+-----+-----+-----+-----+-----+-------------+
//                  0     4     8     12    14    15    16    20
//     +-----+-----+-----+-----+-------------+--------+-----+-----+-----+-------+
//     |word4|word5|half1| 0 0 | words[8]    | 0 x 8  |word6|word7|word8|FF x 4c|
//     +-----+-----+-----+-----+-------------+--------+-----+-----+-----+-------+
//      52    56    60    62    64            96       104   108   112   116
//
//   TLV 38 (8)        TLV 39 (32 + 4c, c = fillWords39)
//   +----+-----+---+  +------+-----+------------+-----+-----+-----+-----+-------+
//   | id |subId|0 0|  |family| 0 0 | addr, 16   | mac |half0|half1| 0 0 |FF x 4c|
//   +----+-----+---+  +------+-----+------------+-----+-----+-----+-----+-------+
//
//   TLV 20 (8), the key, and TLV 22 (48 + 4c, c = fillWords22): the
//   attachment circuit's information value, written by PutAcInfo.
//
// All numbers are big-endian. The name goes as at most its first 31
// characters, up to its first NUL, zero-padded: always NUL-terminated.
#include <cstdint>

#include "enc/ac_info.h"
#include "enc/encoders.h"
#include "enc/items.h"
#include "l2vfib.h"
#include "msg/state.h"

namespace {

using l2vfib::Items;
using l2vfib::Value;

constexpr uint32_t kCfgFixed = 116;
constexpr uint32_t kCfgMaxFill = l2vfib::MaxFill(kCfgFixed);  // 35
constexpr uint32_t kNameMax = 31;
constexpr uint32_t kHostFixed = 32;
constexpr uint32_t kHostMaxFill = l2vfib::MaxFill(kHostFixed);  // 56

void PutCfg(Items &items, const L2VFIB_InstanceCfg &cfg, uint32_t c) {
    Value v = items.Open(33, kCfgFixed + 4 * c);
    uint32_t nameLength = 0;
    while (nameLength < kNameMax && cfg.name[nameLength] != '\0') ++nameLength;
    v.Be32(0, cfg.word0)
        .Be32(4, cfg.word1)
        .Be32(8, cfg.word2)
        .Be16(12, cfg.half0)
        .Byte(14, cfg.byte0)
        .Byte(15, cfg.byte1)
        .Be32(16, cfg.word3)
        .Copy(20, cfg.name, nameLength)
        .Be32(52, cfg.word4)
        .Be32(56, cfg.word5)
        .Be16(60, cfg.half1);
    for (uint32_t i = 0; i < 8; ++i) v.Be32(64 + 4 * i, cfg.words[i]);
    v.Be32(104, cfg.word6).Be32(108, cfg.word7).Be32(112, cfg.word8).Ones(kCfgFixed, c);
}

void PutHost(Items &items, const L2VFIB_HostEntry &host, uint32_t c) {
    items.Open(39, kHostFixed + 4 * c)
        .Addr(0, host.ip, l2vfib::AddrRule::kNoReserved)
        .Copy(20, host.mac, sizeof host.mac)
        .Be16(26, host.half0)
        .Be16(28, host.half1)
        .Ones(kHostFixed, c);
}

}  // namespace

extern "C" {

// Returns 8 (the key item alone, arg2 null) or 128 + 4 x fillWords33; 0
// (refused) when room is below 4 x (fillWords33 + 32), arg1 is null, or
// with a record the count is above 35.
uint16_t l2vfib_EncInstanceCfg(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    const uint32_t c = l2vfib_Caps.fillWords33;
    if (room < 4 * (c + 32) || arg1 == nullptr || (arg2 != nullptr && c > kCfgMaxFill)) return 0;
    Items items(out, room);
    items.Word(32, l2vfib::Load<uint32_t>(arg1));
    if (arg2 != nullptr) PutCfg(items, *static_cast<const L2VFIB_InstanceCfg *>(arg2), c);
    return items.Length();
}

// Returns 12 (the key item alone, arg2 null) or 48 + 4 x fillWords39; 0
// (refused) when room is below 4 x (fillWords39 + 12), arg1 is null, or
// with a record the count is above 56.
uint16_t l2vfib_EncHostEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    const uint32_t c = l2vfib_Caps.fillWords39;
    if (room < 4 * (c + 12) || arg1 == nullptr || (arg2 != nullptr && c > kHostMaxFill)) return 0;
    Items items(out, room);
    items.Key(38, *static_cast<const L2VFIB_EntryKey *>(arg1));
    if (arg2 != nullptr) PutHost(items, *static_cast<const L2VFIB_HostEntry *>(arg2), c);
    return items.Length();
}

// Returns 12 (the key item alone, arg2 null) or 64 + 4 x fillWords22; 0
// (refused) when arg1 is null, room is below 20 without a record, or with
// a record room is below 4 x (fillWords22 + 18) or the count is above 52.
uint16_t l2vfib_EncAcInfo(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    const uint32_t c = l2vfib_Caps.fillWords22;
    const uint32_t minRoom = arg2 == nullptr ? 20 : 4 * (c + 18);
    if (room < minRoom || arg1 == nullptr || (arg2 != nullptr && c > l2vfib::kAcInfoMaxFill))
        return 0;
    Items items(out, room);
    items.Key(20, *static_cast<const L2VFIB_EntryKey *>(arg1));
    if (arg2 != nullptr) {
        uint8_t *value = items.InPlace(22, l2vfib::AcInfoLength(c));
        if (value != nullptr) l2vfib::PutAcInfo(value, *static_cast<const L2VFIB_AcInfo *>(arg2), c);
    }
    return items.Length();
}

}  // extern "C"
