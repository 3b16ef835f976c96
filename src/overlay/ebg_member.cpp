// EBG and MPLS EBG member lists. One call queues a group's members as a run
// of messages, each opening with the group's key item. When the next member
// item no longer fits the batch area, the message is closed, the batch sent
// without blocking, and the run goes on in a new message at the start of the
// emptied area. The two families share the algorithm; a table holds what
// differs.
//
//   EBG, object type 32: 16 + 8n bytes, up to 173 members from an empty area
//    0        8          12       16         20       24
//   +--------+----------+--------+----------+--------+-- ... --+
//   | header | 154, 4   | ebgId  | 156, 4   | member | n items |
//   |        |          | be32   |          | be32   |         |
//   +--------+----------+--------+----------+--------+-- ... --+
//
//   MPLS EBG, object type 35: 24 + 16n bytes, up to 86 members
//    0        8          12      16      20       24         28      32      36      40
//   +--------+----------+-------+-------+--------+----------+-------+-------+-------+-- ...
//   | header | 202, 12  | word0 | word1 | FF x 4 | 204, 12  | word0 | word1 | word2 |
//   |        |          | be32  | be32  |        |          | be32  | be32  | be32  |
//   +--------+----------+-------+-------+--------+----------+-------+-------+-------+-- ...
#include <cstring>

#include "l2vfib.h"
#include "msg/head.h"
#include "msg/state.h"
#include "msg/wire.h"
#include "overlay/overlay.h"

namespace {

using l2vfib::PutBe32;

using l2vfib::kItemHead;

// What one family of member lists is made of. The put functions write the
// whole value of the key item and of member index where it goes.
struct Family {
    uint32_t objType;
    uint32_t keyItem, keyLength;
    uint32_t memberItem, memberLength;
    void (*putKey)(const void *groupKey, uint8_t *value);
    void (*putMember)(const void *members, uint32_t index, uint8_t *value);
};

constexpr Family kEbg = {
    32, 154, 4, 156, 4,
    [](const void *groupKey, uint8_t *value) {
        PutBe32(value, static_cast<const L2VFIB_EbgKey *>(groupKey)->ebgId);
    },
    [](const void *members, uint32_t index, uint8_t *value) {
        PutBe32(value, static_cast<const uint32_t *>(members)[index]);
    },
};

constexpr Family kMplsEbg = {
    35, 202, 12, 204, 12,
    [](const void *groupKey, uint8_t *value) {
        const auto *key = static_cast<const L2VFIB_MplsEbgKey *>(groupKey);
        PutBe32(value, key->word0);
        PutBe32(value + 4, key->word1);
        std::memset(value + 8, 0xFF, 4);
    },
    [](const void *members, uint32_t index, uint8_t *value) {
        const auto &member = static_cast<const L2VFIB_MplsEbgMember *>(members)[index];
        PutBe32(value, member.word0);
        PutBe32(value + 4, member.word1);
        PutBe32(value + 8, member.word2);
    },
};

// Queues count members of one group. A call starts only where a header, the
// key item and one member item fit, so its first message holds a member
// whenever there is one. Returns L2VFIB_OK; L2VFIB_ERR_FAIL for a null key,
// or null members with a nonzero count (refused before anything is sent or
// written); L2VFIB_ERR_NOT_OPEN with no batch buffer; L2VFIB_ERR_FAIL when
// a flush fails: before the first message nothing is written, part-way the
// closed message stays queued and the members after it are dropped.
// (A template on the family, so each family's put functions are inlined
// into its loop.)
template <const Family &family>
uint32_t SendMembers(int32_t socket, uint32_t byte7, uint32_t opcode, const void *groupKey,
                     const void *members, uint32_t count) {
    if (groupKey == nullptr || (members == nullptr && count != 0)) return L2VFIB_ERR_FAIL;
    constexpr uint32_t memberSize = kItemHead + family.memberLength;
    constexpr uint32_t start = l2vfib::kHeadSize + kItemHead + family.keyLength + memberSize;

    l2vfib::Append append{};
    uint32_t result = l2vfib::AppendBegin(socket, start, &append);
    if (result != L2VFIB_OK) return result;
    family.putKey(groupKey, l2vfib::AppendItem(append, family.keyItem, family.keyLength));
    for (uint32_t i = 0; i < count; ++i) {
        if (static_cast<uint32_t>(append.end - append.pos) < memberSize) {
            result = l2vfib::AppendReopen(socket, &append, family.objType, opcode, byte7);
            if (result != L2VFIB_OK) return result;
            family.putKey(groupKey, l2vfib::AppendItem(append, family.keyItem, family.keyLength));
        }
        family.putMember(members, i,
                         l2vfib::AppendItem(append, family.memberItem, family.memberLength));
    }
    l2vfib::AppendEnd(append, family.objType, opcode, byte7);
    return L2VFIB_OK;
}

}  // namespace

extern "C" {

// Each of these returns what SendMembers does (above): L2VFIB_OK,
// L2VFIB_ERR_NOT_OPEN, or L2VFIB_ERR_FAIL.

L2VFIB_API uint32_t l2vfib_SendEbgMemberEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                              const L2VFIB_EbgKey *groupKey,
                                              const uint32_t *members, uint16_t count) {
    return SendMembers<kEbg>(socket, byte7, opcode, groupKey, members, count);
}

L2VFIB_API uint32_t L2VFIB_AddEBGMember(int32_t socket, uint32_t byte7,
                                        const L2VFIB_EbgKey *groupKey, const uint32_t *members,
                                        uint16_t count) {
    return l2vfib_SendEbgMemberEntry(socket, byte7, 5, groupKey, members, count);
}

L2VFIB_API uint32_t L2VFIB_DelEBGMember(int32_t socket, uint32_t byte7,
                                        const L2VFIB_EbgKey *groupKey, const uint32_t *members,
                                        uint16_t count) {
    return l2vfib_SendEbgMemberEntry(socket, byte7, 7, groupKey, members, count);
}

L2VFIB_API uint32_t l2vfib_SendMplsEbgMemberEntry(int32_t socket, uint32_t byte7, uint32_t opcode,
                                                  const L2VFIB_MplsEbgKey *groupKey,
                                                  const L2VFIB_MplsEbgMember *members,
                                                  uint32_t count) {
    return SendMembers<kMplsEbg>(socket, byte7, opcode, groupKey, members, count);
}

L2VFIB_API uint32_t L2VFIB_AddMplsEBGMember(int32_t socket, uint32_t byte7,
                                            const L2VFIB_MplsEbgKey *groupKey,
                                            const L2VFIB_MplsEbgMember *members, uint16_t count) {
    return l2vfib_SendMplsEbgMemberEntry(socket, byte7, 5, groupKey, members, count);
}

// Unlike the add, takes its count whole, 32 bits wide.
L2VFIB_API uint32_t L2VFIB_DelMplsEBGMember(int32_t socket, uint32_t byte7,
                                            const L2VFIB_MplsEbgKey *groupKey,
                                            const L2VFIB_MplsEbgMember *members, uint32_t count) {
    return l2vfib_SendMplsEbgMemberEntry(socket, byte7, 7, groupKey, members, count);
}

}  // extern "C"
