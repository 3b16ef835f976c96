// Immediate requests, their replies, and the service's notices.
//
// Reply (first 256 bytes read), and notice (up to 1400 bytes):
//
//    0            8          10         12           16
//   +------------+----------+----------+------------+-----
//   | header     | type     | length   | value      | ...
//   | payloadLen | 37 / 184 |  >= 4    | be32       |
//   |  checked   | (36 in a notice)    |            |
//   +------------+----------+----------+------------+-----
//
// Type 37 carries the service's result, 184 an identifier it allocated,
// 36 (notices only) the value handed to the notice callback. Only the
// first item is read.
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"
#include "msg/head.h"
#include "msg/state.h"
#include "msg/transport.h"
#include "msg/wire.h"

namespace {

constexpr uint32_t kReplyRoom = 256;
constexpr uint32_t kItemResult = 37;
constexpr uint32_t kItemIdentifier = 184;
constexpr uint32_t kItemNotice = 36;
// The wait for an answer is bounded: a service that never answers fails
// the request after this many seconds.
constexpr uint32_t kReplyTimeout = 180;

// Reads the first item of the bytes after the header; false when there is
// none. A value shorter than a 32-bit number reads as no item.
bool FirstWord(const uint8_t *msg, uint32_t length, uint32_t *type, uint32_t *word) {
    uint32_t itemLength = 0;
    const void *value = nullptr;
    if (STLV_Get(msg + l2vfib::kHeadSize, length - l2vfib::kHeadSize, type, &itemLength, &value) ==
            0 ||
        value == nullptr)
        return false;
    if (itemLength < 4) return false;
    *word = l2vfib::GetBe32(static_cast<const uint8_t *>(value));
    return true;
}

// Sends the message on a fresh service socket and reads the answer: its
// length, or -1 when no socket, no time-out, a short send, or 3 bytes or
// fewer back.
int32_t Exchange(const uint8_t *msg, uint16_t length, uint8_t (&reply)[kReplyRoom]) {
    const int32_t fd = l2vfib_ConnectService();
    if (fd < 0) return -1;
    int32_t received = -1;
    if (l2vfib::SetTimeout(fd, l2vfib::kOptRecvTimeout, kReplyTimeout) &&
        l2vfib::SendOnce(fd, msg, length, MSG_DONTWAIT)) {
        const ssize_t n = SKT_Recv(fd, reply, sizeof reply, MSG_WAITALL);
        if (n > 3) received = static_cast<int32_t>(n);
    }
    SKT_Close(fd);
    return received;
}

bool IsReplyPath(L2VFIB_CmdId cmd) {
    return cmd < l2vfib::kCmdCount && l2vfib_CmdTable[cmd].path == l2vfib::Path::kReply;
}

}  // namespace

extern "C" {

uint32_t l2vfib_ParseReply(const uint8_t *msg, int32_t length, uint32_t *out) {
    if (length <= 11) return L2VFIB_ERR_FAIL;
    const L2VFIB_MsgHead head = l2vfib::ReadMsgHead(msg);
    if (head.payloadLen > static_cast<uint16_t>(length - l2vfib::kHeadSize)) return L2VFIB_ERR_FAIL;
    uint32_t type = 0;
    uint32_t word = 0;
    if (!FirstWord(msg, static_cast<uint32_t>(length), &type, &word)) return L2VFIB_ERR_FAIL;
    if (type == kItemResult) return word;
    if (type == kItemIdentifier && out != nullptr) *out = word;
    return L2VFIB_ERR_FAIL;
}

uint32_t l2vfib_SendCfgNow(int32_t socket, L2VFIB_CmdId cmd, const void *arg1, const void *arg2) {
    uint8_t msg[L2VFIB_BATCH_SIZE] = {};
    const uint16_t length = l2vfib_EncodeCmd(cmd, arg1, arg2, sizeof msg, msg);
    if (length == 0) return L2VFIB_ERR_FAIL;
    if (!IsReplyPath(cmd))
        return l2vfib::SendBlocking(socket, msg, length) ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    uint8_t reply[kReplyRoom] = {};
    const int32_t received = Exchange(msg, length, reply);
    if (received < 0) return L2VFIB_ERR_FAIL;
    return l2vfib_ParseReply(reply, received, nullptr);
}

L2VFIB_API int32_t L2VFIB_AllocECID(L2VFIB_CmdId cmd, const void *arg1, const void *arg2) {
    if (l2vfib_Batch == nullptr) return -1;
    uint32_t answer = 0xFFFFFFFFu;
    uint8_t msg[L2VFIB_BATCH_SIZE] = {};
    const uint16_t length = l2vfib_EncodeCmd(cmd, arg1, arg2, sizeof msg, msg);
    if (length == 0) return -1;
    uint8_t reply[kReplyRoom] = {};
    const int32_t received = Exchange(msg, length, reply);
    if (received < 0) return -1;
    (void)l2vfib_ParseReply(reply, received, &answer);
    return static_cast<int32_t>(answer);
}

L2VFIB_API uint32_t L2VFIB_HandleMsg(int32_t socket) {
    const L2VFIB_BatchBuf *batch = l2vfib_Batch;
    if (batch == nullptr) return L2VFIB_ERR_NOT_OPEN;
    // Not zeroed: nothing past the bytes received is read.
    uint8_t msg[L2VFIB_BATCH_SIZE];
    const ssize_t received = SKT_Recv(socket, msg, sizeof msg, MSG_WAITALL);
    if (received <= 8) return L2VFIB_ERR_FAIL;
    if (received <= 11) return L2VFIB_ERR_BAD_MSG;
    const auto count = static_cast<uint32_t>(received);
    const L2VFIB_MsgHead head = l2vfib::ReadMsgHead(msg);
    if (head.payloadLen > count - l2vfib::kHeadSize) return L2VFIB_ERR_BAD_MSG;
    uint32_t itemLength = 0;
    uint32_t type = 0;
    const void *value = nullptr;
    if (STLV_Get(msg + l2vfib::kHeadSize, count - l2vfib::kHeadSize, &type, &itemLength, &value) ==
            0 ||
        value == nullptr)
        return L2VFIB_ERR_FAIL;
    if (type != kItemNotice || itemLength < 4) return L2VFIB_ERR_BAD_MSG;
    if (batch->msgCallback == nullptr) return L2VFIB_OK;
    uint32_t notice = l2vfib::GetBe32(static_cast<const uint8_t *>(value));
    (void)batch->msgCallback(1, &notice);
    return L2VFIB_OK;
}

}  // extern "C"
