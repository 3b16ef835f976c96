// Address and data record encoders: one fixed-size item each, two for the
// MAC entry and TLV 239.
//
//   address block (20): family be16, reserved (copied, or 0 in TLV 112),
//   addr 16 bytes (in TLV 112 an IPv4 address is cut to 4 bytes + 12 x 0)
//   +------+--------+----------+
//   |family|reserved| addr, 16 |
//   +------+--------+----------+
//
//   TLV 103 (28)                   TLV 112 (212)
//   +-------+-----+-----+---+      +-------+---------------+-----+- - -+
//   | ip    |word0|half0|0 0|      | ip    | peers[0].ip   |word0| x 8 |
//   +-------+-----+-----+---+      +-------+---------------+-----+- - -+
//
//   TLV 187 (60)                   TLV 231 (52)
//   +-------+-------+-------+      +-------+---------+
//   | ip[0] | ip[1] | ip[2] |      | ip    | FF x 32 |
//   +-------+-------+-------+      +-------+---------+
//
//   TLV 20 (8) + TLV 29 (6)        TLV 201 (48)
//   +----+-----+---+ +-------+     +-----+-----+-----+-----+-----+----+--------+
//   | id |subId|0 0| | mac   |     |word0|word1|word2|byte0|byte1|pair|data, 32|
//   +----+-----+---+ +-------+     +-----+-----+-----+-----+-----+----+--------+
//
//   TLV 239 (40) + TLV 146 (4)
//   +-----+-----+--------+ +------+
//   |word0|word1|data, 32| | arg1 |
//   +-----+-----+--------+ +------+
//
// Numbers are big-endian; MAC addresses, addresses, pair and data blocks go
// as they lie in memory.
#include <cstdint>

#include "enc/encoders.h"
#include "enc/items.h"
#include "l2vfib.h"

namespace {

using l2vfib::AddrRule;
using l2vfib::Items;
using l2vfib::kAddrSize;
using l2vfib::Value;

}  // namespace

extern "C" {

// Returns 32; 0 (refused) when room is below 32 or arg2 is null.
uint16_t l2vfib_EncAddrParam(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 4 || arg2 == nullptr) return 0;
    const auto &r = *static_cast<const L2VFIB_AddrParam *>(arg2);
    Items items(out, room);
    items.Open(103, 28).Addr(0, r.ip, AddrRule::kAsIs).Be32(20, r.word0).Be16(24, r.half0);
    return items.Length();
}

// Returns 216; 0 (refused) when room is below 216 or arg2 is null.
uint16_t l2vfib_EncAddrSet(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 4 || arg2 == nullptr) return 0;
    const auto &r = *static_cast<const L2VFIB_AddrSet *>(arg2);
    Items items(out, room);
    Value v = items.Open(112, kAddrSize + 8 * (kAddrSize + 4));
    v.Addr(0, r.ip, AddrRule::kNoReservedIpv4Cut);
    for (uint32_t i = 0; i < 8; ++i) {
        const uint32_t at = kAddrSize + (kAddrSize + 4) * i;
        v.Addr(at, r.peers[i].ip, AddrRule::kNoReservedIpv4Cut)
            .Be32(at + kAddrSize, r.peers[i].word0);
    }
    return items.Length();
}

// Returns 64; 0 (refused) when room is below 64 or arg2 is null.
uint16_t l2vfib_EncAddrTriple(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 8 || arg2 == nullptr) return 0;
    const auto *ip = static_cast<const L2VFIB_IpAddr *>(arg2);
    Items items(out, room);
    Value v = items.Open(187, 3 * kAddrSize);
    for (uint32_t i = 0; i < 3; ++i) v.Addr(kAddrSize * i, ip[i], AddrRule::kAsIs);
    return items.Length();
}

// Returns 56; 0 (refused) when room is below 56 or arg2 is null.
uint16_t l2vfib_EncAddrFill(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 24 || arg2 == nullptr) return 0;
    const auto &ip = *static_cast<const L2VFIB_IpAddr *>(arg2);
    Items items(out, room);
    items.Open(231, 52).Addr(0, ip, AddrRule::kAsIs).Ones(kAddrSize, 8);
    return items.Length();
}

// Returns 22; 0 (refused) when room is below 22 or a record is null.
uint16_t l2vfib_EncMacEntry(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 22 || !l2vfib::AllGiven(arg1, arg2)) return 0;
    return Items(out, room)
        .Key(20, *static_cast<const L2VFIB_EntryKey *>(arg1))
        .Put(29, static_cast<const uint8_t *>(arg2), 6)
        .Length();
}

// Returns 52; 0 (refused) when room is below 52 or arg2 is null.
uint16_t l2vfib_EncTlv201(const void *, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 52 || arg2 == nullptr) return 0;
    const auto &r = *static_cast<const L2VFIB_DataEntry *>(arg2);
    Items items(out, room);
    items.Open(201, 48)
        .Be32(0, r.word0)
        .Be32(4, r.word1)
        .Be32(8, r.word2)
        .Byte(12, r.byte0)
        .Byte(13, r.byte1)
        .Copy(14, r.pair, sizeof r.pair)
        .Copy(16, r.data, sizeof r.data);
    return items.Length();
}

// Returns 52; 0 (refused) when room is below 52 or a record is null.
uint16_t l2vfib_EncTlv239With146(const void *arg1, const void *arg2, uint16_t room, uint8_t *out) {
    if (room < 52 || !l2vfib::AllGiven(arg1, arg2)) return 0;
    const auto &r = *static_cast<const L2VFIB_DataBlock *>(arg2);
    Items items(out, room);
    items.Open(239, 40).Be32(0, r.word0).Be32(4, r.word1).Copy(8, r.data, sizeof r.data);
    return items.Word(146, l2vfib::Load<uint32_t>(arg1)).Length();
}

}  // extern "C"
