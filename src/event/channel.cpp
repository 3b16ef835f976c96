// The event channel: a datagram socket of its own, connected to the event
// service at port 12566 of the local node, on which the process opens the
// channel, registers and deregisters for events, and closes it again.
//
// Every message is built in a zeroed 512-byte buffer behind this header:
//
//    0        2          4       6        7        8
//   +--------+----------+-------+--------+--------+----------------+
//   | 20     |payloadLen| tag 0 | opcode | 0      | TLV items ...  |
//   | be16   | be16     |       | 5 or 7 |        |                |
//   +--------+----------+-------+--------+--------+----------------+
//
// Channel message (open: opcode 5, close: opcode 7), 16 bytes. The channel
// word is the one number the library sends in host byte order:
//
//    8       10      12
//   +-------+-------+---------------------+
//   | 0     | 4     | channel word        |
//   | be16  | be16  | host order          |
//   +-------+-------+---------------------+
//
// Registration message (register: opcode 5, deregister: opcode 7), 28
// bytes, or 40 when the mask has bit 0x0010 with bit 0x1000 or 0x2000:
//
//    8      12         16         20         24     26      28
//   +------+----------+----------+----------+------+-------+
//   | 1,16 | selector0| selector1| selector2| mask |extra16|
//   |      | be32     | be32     | be32     | be16 | be16  |
//   +------+----------+----------+----------+------+-------+
//   28     32         36     38      40
//   +------+----------+------+-------+
//   | 4, 8 |eventParam| mask |extra16|
//   |      | be32     | be16 | be16  |
//   +------+----------+------+-------+
#include <sys/socket.h>

#include <cstring>

#include "event/event.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/transport.h"
#include "msg/wire.h"

constinit L2VFIB_EvtCallback *l2vfib_EventCallback = nullptr;

namespace {

using l2vfib::PutBe16;
using l2vfib::PutBe32;

constexpr uint32_t kOpOpen = 5;
constexpr uint32_t kOpClose = 7;
constexpr uint32_t kItemChannel = 0;
constexpr uint32_t kItemSelect = 1;
constexpr uint32_t kItemParam = 4;
// Both time-outs of the event socket.
constexpr uint32_t kTimeout = 180;
// The channel word of every close.
constexpr uint32_t kCloseWord = 8;
// TLV 4 goes out when the mask has kMaskParam and either of kMaskParamKinds.
constexpr uint16_t kMaskParam = 0x0010;
constexpr uint16_t kMaskParamKinds = 0x1000 | 0x2000;

// Writes the header in front of the items written into msg and sends the
// message once, or again while the send is interrupted. A failed send is
// not reported: the channel's messages are announcements.
void Send(int32_t socket, uint8_t *msg, uint32_t itemBytes, uint32_t opcode) {
    l2vfib_FillEvtHead(itemBytes, opcode, msg);
    (void)l2vfib::SendBlocking(socket, msg, l2vfib::kHeadSize + itemBytes);
}

}  // namespace

extern "C" {

void l2vfib_FillEvtHead(uint32_t payloadLen, uint32_t opcode, uint8_t *head) {
    PutBe16(head, l2vfib::kEventObjType);
    PutBe16(head + 2, static_cast<uint16_t>(payloadLen));
    head[6] = static_cast<uint8_t>(opcode);
}

uint32_t l2vfib_SendEvtChannel(int32_t socket, uint32_t closing, uint32_t channelWord) {
    uint8_t msg[l2vfib::kEventMsgRoom] = {};
    const uint32_t itemBytes = STLV_Set(msg + l2vfib::kHeadSize, sizeof msg - l2vfib::kHeadSize,
                                        kItemChannel, sizeof channelWord, &channelWord);
    Send(socket, msg, itemBytes, closing == 1 ? kOpClose : kOpOpen);
    return 0;
}

uint32_t l2vfib_SendEvtReg(int32_t socket, uint32_t deregister, const L2VFIB_EvtReg *reg,
                           uint32_t eventParam) {
    uint8_t msg[l2vfib::kEventMsgRoom] = {};
    uint8_t select[16] = {};
    PutBe32(select, reg->selector0);
    PutBe32(select + 4, reg->selector1);
    PutBe32(select + 8, reg->selector2);
    PutBe16(select + 12, reg->eventMask);
    PutBe16(select + 14, reg->extra16);
    uint8_t *items = msg + l2vfib::kHeadSize;
    uint32_t itemBytes =
        STLV_Set(items, sizeof msg - l2vfib::kHeadSize, kItemSelect, sizeof select, select);
    if ((reg->eventMask & kMaskParam) != 0 && (reg->eventMask & kMaskParamKinds) != 0) {
        uint8_t param[8] = {};
        PutBe32(param, eventParam);
        PutBe16(param + 4, reg->eventMask);
        PutBe16(param + 6, reg->extra16);
        itemBytes += STLV_Set(items + itemBytes, sizeof msg - l2vfib::kHeadSize - itemBytes,
                              kItemParam, sizeof param, param);
    }
    Send(socket, msg, itemBytes, deregister == 1 ? kOpClose : kOpOpen);
    return 0;
}

// Returns the event socket's descriptor, or -1 with no socket left open:
// no socket, a time-out that cannot be set, or a connect that fails for any
// reason but EISCONN (EINTR connects again). A failed send of the
// channel-open message does not fail the call.
L2VFIB_API int32_t L2VFIB_InitEvent(uint32_t channelWord) {
    const int fd = SKT_Socket(l2vfib::kFamily, SOCK_DGRAM, l2vfib::kProtocol);
    if (fd < 0) return -1;
    if (!l2vfib::SetTimeout(fd, l2vfib::kOptSendTimeout, kTimeout) ||
        !l2vfib::SetTimeout(fd, l2vfib::kOptRecvTimeout, kTimeout)) {
        SKT_Close(fd);
        return -1;
    }
    const auto node = static_cast<uint16_t>(LIP_GetLocalLip(0));
    if (!l2vfib::ConnectTo(fd, l2vfib::kEventPort, node)) {
        SKT_Close(fd);
        return -1;
    }
    (void)l2vfib_SendEvtChannel(fd, 0, channelWord);
    return fd;
}

// Sends the channel-close message (channel word 8) and closes socket.
// Returns what close returned: 0, or -1. The event callback stays in force.
L2VFIB_API int32_t L2VFIB_FiniEvent(int32_t socket) {
    (void)l2vfib_SendEvtChannel(socket, 1, kCloseWord);
    return SKT_Close(socket);
}

// Installs callback (null removes it) and sends a registration for the
// three selector words (0xFFFFFFFF, 0, 0 when selector is null). Returns
// L2VFIB_OK, also when the send failed.
L2VFIB_API uint32_t L2VFIB_RegEvent(int32_t socket, uint16_t eventMask, const uint32_t *selector,
                                    uint32_t eventParam, L2VFIB_EvtCallback *callback,
                                    uint16_t extra16) {
    l2vfib_EventCallback = callback;
    L2VFIB_EvtReg reg = {0xFFFFFFFFu, 0, 0, eventMask, extra16};
    if (selector != nullptr) {
        reg.selector0 = selector[0];
        reg.selector1 = selector[1];
        reg.selector2 = selector[2];
    }
    (void)l2vfib_SendEvtReg(socket, 0, &reg, eventParam);
    return L2VFIB_OK;
}

// Sends a deregistration for selector0 with extra16 0; the event callback
// is not touched. Returns L2VFIB_OK, also when the send failed.
L2VFIB_API uint32_t L2VFIB_DeregEvent(int32_t socket, uint16_t eventMask, uint32_t selector0,
                                      uint32_t eventParam) {
    const L2VFIB_EvtReg reg = {selector0, 0, 0, eventMask, 0};
    (void)l2vfib_SendEvtReg(socket, 1, &reg, eventParam);
    return L2VFIB_OK;
}

}  // extern "C"
