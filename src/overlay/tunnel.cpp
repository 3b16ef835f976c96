// Overlay tunnels: add, delete and switch, queued in the batch; tunnel
// interface deletion, sent at once on the caller's socket.
//
//   add, and each switch message: 72 bytes
//    0        8          12        16        20          24               40          72
//   +--------+----------+---------+---------+-----------+----------------+-----------+
//   | header | 70, 8    | key0    | key1    | 71, 48    | attr0 .. attr3 | FF x 32   |
//   |        |          | be32    | be32    |           | be32 x 4       |           |
//   +--------+----------+---------+---------+-----------+----------------+-----------+
//   delete: the header and the TLV 70 item, 20 bytes.
//
//   tunnel interface deletion: 16 bytes, opcode 10
//    0        8          12        16
//   +--------+----------+---------+
//   | header | 72, 4    | ifIndex |
//   |        |          | be32    |
//   +--------+----------+---------+
//
// Header byte 7 selects the object type: 7 goes with object type 18, any
// other value with 14. The switch sends both messages as 14 with byte 7 = 5.
#include <cstring>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/state.h"
#include "msg/transport.h"
#include "msg/wire.h"
#include "overlay/overlay.h"

namespace {

using l2vfib::PutBe32;

constexpr uint32_t kObjType = 14;
constexpr uint32_t kObjTypeByte7 = 18;  // the object type that goes with byte 7 = 7
constexpr uint32_t kByte7Default = 5;
constexpr uint32_t kByte7Alt = 7;

constexpr uint32_t kOpAdd = 5;
constexpr uint32_t kOpDel = 7;
constexpr uint32_t kOpIfDel = 10;

constexpr uint32_t kKeyItem = 70, kKeyLength = 8;
constexpr uint32_t kAttrItem = 71, kAttrLength = 48;
constexpr uint32_t kAttrWords = 4;  // then all-ones up to kAttrLength
constexpr uint32_t kIfItem = 72, kIfLength = 4;

// Free bytes each message asks for. A switch message takes 72 like an add
// but asks for room for two.
constexpr uint32_t kAddNeeded = 72;
constexpr uint32_t kDelNeeded = 20;
constexpr uint32_t kSwitchNeeded = 136;

// The preset tunnel mode: when the lookup leaves it, the interface is
// refused.
constexpr uint32_t kModeUnknown = 37;

uint32_t ObjType(uint32_t byte7) { return byte7 == kByte7Alt ? kObjTypeByte7 : kObjType; }

// Queues one tunnel message: the key item, then, unless keyOnly, the
// attribute item. Returns L2VFIB_OK, L2VFIB_ERR_NOT_OPEN (no batch buffer)
// or L2VFIB_ERR_FAIL (the flush for room failed; nothing written).
uint32_t QueueTunnel(int32_t socket, uint32_t needed, uint32_t objType, uint32_t opcode,
                     uint32_t byte7, const L2VFIB_OverlayTunnelEntry &entry, bool keyOnly) {
    l2vfib::Append append{};
    const uint32_t result = l2vfib::AppendBegin(socket, needed, &append);
    if (result != L2VFIB_OK) return result;
    uint8_t *key = l2vfib::AppendItem(append, kKeyItem, kKeyLength);
    PutBe32(key, entry.tunnelKey.word0);
    PutBe32(key + 4, entry.tunnelKey.word1);
    if (!keyOnly) {
        uint8_t *attr = l2vfib::AppendItem(append, kAttrItem, kAttrLength);
        for (uint32_t i = 0; i < kAttrWords; ++i) PutBe32(attr + 4 * i, entry.tunnelAttr[i]);
        std::memset(attr + 4 * kAttrWords, 0xFF, kAttrLength - 4 * kAttrWords);
    }
    l2vfib::AppendEnd(append, objType, opcode, byte7);
    return L2VFIB_OK;
}

}  // namespace

extern "C" {

// L2VFIB_OK; L2VFIB_ERR_NOT_OPEN with no batch buffer or a null entry;
// L2VFIB_ERR_FAIL when the flush for room fails (nothing written).
L2VFIB_API uint32_t L2VFIB_AddOverlayTunnel(int32_t socket, uint32_t byte7,
                                            const L2VFIB_OverlayTunnelEntry *entry) {
    if (entry == nullptr) return L2VFIB_ERR_NOT_OPEN;
    return QueueTunnel(socket, kAddNeeded, ObjType(byte7), kOpAdd, byte7, *entry, false);
}

// Sends only the key. Results as L2VFIB_AddOverlayTunnel.
L2VFIB_API uint32_t L2VFIB_DelOverlayTunnel(int32_t socket, uint32_t byte7,
                                            const L2VFIB_OverlayTunnelEntry *entry) {
    if (entry == nullptr) return L2VFIB_ERR_NOT_OPEN;
    return QueueTunnel(socket, kDelNeeded, ObjType(byte7), kOpDel, byte7, *entry, true);
}

uint32_t l2vfib_SendOverlayTunnelEntry(int32_t socket, uint32_t opcode,
                                       const L2VFIB_OverlayTunnelEntry *entry) {
    return QueueTunnel(socket, kSwitchNeeded, kObjType, opcode, kByte7Default, *entry, false);
}

// Queues the old tunnel's delete, then the new tunnel's add; each may flush
// for its own room, so they can travel in two datagrams, the delete first.
// L2VFIB_OK; L2VFIB_ERR_NOT_OPEN with no batch buffer or either entry null
// (nothing queued); L2VFIB_ERR_FAIL for a byte7 other than 5 (nothing
// queued) or a failed flush for room (a delete already queued stays).
L2VFIB_API uint32_t L2VFIB_SwitchOverlayTunnel(int32_t socket, uint32_t byte7,
                                               const L2VFIB_OverlayTunnelEntry *oldEntry,
                                               const L2VFIB_OverlayTunnelEntry *newEntry) {
    if (l2vfib_Batch == nullptr || oldEntry == nullptr || newEntry == nullptr)
        return L2VFIB_ERR_NOT_OPEN;
    if (byte7 != kByte7Default) return L2VFIB_ERR_FAIL;
    const uint32_t result = l2vfib_SendOverlayTunnelEntry(socket, kOpDel, oldEntry);
    if (result != L2VFIB_OK) return result;
    return l2vfib_SendOverlayTunnelEntry(socket, kOpAdd, newEntry);
}

// Works whether or not the library is open. L2VFIB_OK once the message is
// handed over whole; L2VFIB_ERR_FAIL for a tunnel mode outside both sets
// (nothing sent), or a send that fails or hands over less (sent again only
// on EINTR).
L2VFIB_API uint32_t L2VFIB_SendTunnelIFDel(int32_t socket, uint32_t ifIndex) {
    uint32_t mode = kModeUnknown;
    (void)TUNNEL_GetMode(ifIndex, &mode);
    uint32_t objType, byte7;
    switch (mode) {
        case 24: case 25: case 33: case 34:
            objType = kObjType, byte7 = kByte7Default;
            break;
        case 28: case 29:
            objType = kObjTypeByte7, byte7 = kByte7Alt;
            break;
        default:
            return L2VFIB_ERR_FAIL;
    }
    uint8_t msg[l2vfib::kHeadSize + 4 + kIfLength] = {};
    uint8_t value[kIfLength];
    PutBe32(value, ifIndex);
    const uint32_t item =
        STLV_Set(msg + l2vfib::kHeadSize, sizeof msg - l2vfib::kHeadSize, kIfItem, kIfLength, value);
    L2VFIB_MsgHead head{};
    l2vfib_FillMsgHead(objType, item, kOpIfDel, byte7, &head);
    l2vfib::WriteMsgHead(head, msg);
    return l2vfib::SendBlocking(socket, msg, l2vfib::kHeadSize + item) ? L2VFIB_OK : L2VFIB_ERR_FAIL;
}

}  // extern "C"
