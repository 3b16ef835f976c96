// MAC withdraw, queued in the batch: object type 9, opcode 0, byte 7 8,
// then TLV 10 with the key (drawn in keyed.cpp).
//
// MAC reset, 16 bytes, handed to every node that is up by the one-way
// control call 0x440003:
//
//    0        2        4      6    7    8         10        12
//   +--------+--------+------+----+----+---------+---------+-----------+
//   | 00 0a  | 00 08  | 0 0  | 01 | 08 | 00 22   | 00 04   | value     |
//   | type 10| length |      |    |    | TLV 34  |         | be32      |
//   +--------+--------+------+----+----+---------+---------+-----------+
#include <cstdlib>

#include "entry/entry.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/wire.h"

namespace {
constexpr uint32_t kObjWithdraw = 9;
constexpr uint32_t kKeyItem = 10;
constexpr uint32_t kObjReset = 10;
constexpr uint32_t kValueItem = 34;
constexpr uint32_t kResetCode = 0x440003;
constexpr uint32_t kResetArea = 128;
}  // namespace

extern "C" {

// Returns L2VFIB_OK; L2VFIB_ERR_NOT_OPEN when the library is not open;
// L2VFIB_ERR_FAIL for a null key or a flush for room that failed.
L2VFIB_API uint32_t L2VFIB_WithdrawMacAddr(int32_t socket, const L2VFIB_EntryKey *key) {
    return l2vfib::QueueKeyed(socket, l2vfib::Keyed(kObjWithdraw, 0, kKeyItem), 8, key, nullptr, 0);
}

// Returns L2VFIB_OK, whether or not any node was up or took the message;
// L2VFIB_ERR_FAIL for a null value, before the node list is asked for.
L2VFIB_API uint32_t L2VFIB_ResetMacAddr(const uint32_t *value) {
    if (value == nullptr) return L2VFIB_ERR_FAIL;
    uint8_t msg[kResetArea] = {};
    uint8_t item[4];
    l2vfib::PutBe32(item, l2vfib::Load<uint32_t>(value));
    const uint32_t length =
        l2vfib::kHeadSize + STLV_Set(msg + l2vfib::kHeadSize, kResetArea - l2vfib::kHeadSize,
                                     kValueItem, sizeof item, item);
    L2VFIB_MsgHead head{};
    l2vfib_FillMsgHead(kObjReset, length - l2vfib::kHeadSize, 1, 8, &head);
    l2vfib::WriteMsgHead(head, msg);

    uint32_t count = 0;
    uint16_t *nodes = DEV_GetAllNodes(&count);
    if (nodes == nullptr) return L2VFIB_OK;
    // A node that is down is skipped; a failed call does not stop the others.
    for (uint32_t i = 0; i < count; ++i)
        if (IF_IsNodeUp(nodes[i]) == 1) (void)CIOCTL_Async(nodes[i], kResetCode, length, msg);
    std::free(nodes);
    return L2VFIB_OK;
}

}  // extern "C"
