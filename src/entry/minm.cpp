// MAC-in-MAC entries: object type 12, keyed by TLV 40, with the caller's
// opcode; and the attribute block's encoder.
//
// Attribute block, m = memberCount:
//
//   TLV 41, 64 bytes
//    0      4      8      12     16     20      26      32      38   40        64
//   +------+------+------+------+------+-------+-------+-------+----+---------+
//   |word0 |word1 |word2 |  m   |word4 | mac 0 | mac 1 | mac 2 |0 0 | opaque  |
//   | be32 | be32 | be32 | be32 | be32 |       |       |       |    | as is   |
//   +------+------+------+------+------+-------+-------+-------+----+---------+
//   TLV 42, 12 x m bytes: the members        TLV 43, 12 bytes, when extra is set
//   +--------------+--------------+         +--------------+--------------+
//   | word0 be32   | data (8)     | ...     | word0 be32   | data (8)     |
//   +--------------+--------------+         +--------------+--------------+
#include <cstring>

#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/wire.h"

namespace {

using l2vfib::PutBe32;

constexpr uint32_t kObjMinM = 12;
constexpr uint32_t kKeyItem = 40;
constexpr uint32_t kEntryItem = 41;
constexpr uint32_t kMembersItem = 42;
constexpr uint32_t kExtraItem = 43;
constexpr uint32_t kEntrySize = 64;
constexpr uint32_t kMemberSize = 12;
// The most members that keep TLV 42 within a 256-byte value.
constexpr uint32_t kMaxMembers = 256 / kMemberSize;

void StageMember(const L2VFIB_MinMMember &member, uint8_t *v) {
    PutBe32(v, member.word0);
    std::memcpy(v + 4, member.data, sizeof member.data);
}

}  // namespace

extern "C" {

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key, a null block of nonzero length, a block
// above 1380 bytes (the message cannot fit an empty batch), or a flush for
// room that failed.
L2VFIB_API uint32_t L2VFIB_AddMinMEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                        const L2VFIB_EntryKey *key, const void *block,
                                        uint16_t blockLength) {
    return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjMinM, opcode, kKeyItem), byte7, key, block,
                              blockLength);
}

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key or a flush for room that failed.
L2VFIB_API uint32_t L2VFIB_DelMinMEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                        const L2VFIB_EntryKey *key) {
    return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjMinM, opcode, kKeyItem), byte7, key, nullptr,
                              0);
}

// Returns the block's length, 72 + 12 x memberCount, plus 16 with extra; or
// 0 with nothing written: a null entry, out or members, a memberCount of 0
// or above 21, or a room below the block's length.
L2VFIB_API uint32_t L2VFIB_EncMinMEntry(const L2VFIB_MinMEntry *entry, uint32_t room, void *out) {
    if (entry == nullptr || out == nullptr || entry->members == nullptr) return 0;
    const uint32_t m = entry->memberCount;
    if (m == 0 || m > kMaxMembers) return 0;
    const uint32_t extra = entry->extra != nullptr ? 4 + kMemberSize : 0;
    if (room < 4 + kEntrySize + 4 + kMemberSize * m + extra) return 0;

    uint8_t value[256] = {};
    PutBe32(value, entry->word0);
    PutBe32(value + 4, entry->word1);
    PutBe32(value + 8, entry->word2);
    PutBe32(value + 12, m);
    PutBe32(value + 16, entry->word4);
    std::memcpy(value + 20, entry->macAddr, sizeof entry->macAddr);
    std::memcpy(value + 40, entry->opaque, sizeof entry->opaque);
    auto *o = static_cast<uint8_t *>(out);
    uint32_t n = STLV_Set(o, room, kEntryItem, kEntrySize, value);

    for (uint32_t i = 0; i < m; ++i) StageMember(entry->members[i], value + kMemberSize * i);
    n += STLV_Set(o + n, room - n, kMembersItem, kMemberSize * m, value);
    if (entry->extra != nullptr) {
        StageMember(*entry->extra, value);
        n += STLV_Set(o + n, room - n, kExtraItem, kMemberSize, value);
    }
    return n;
}

}  // extern "C"
