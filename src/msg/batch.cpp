// The service socket, the batch buffer and the device capabilities.
//
// Batch datagram: the queued messages back to back, nothing around them.
//
//   area[0]                                   area[used]        area[1400]
//   +------------+------------+-----+---------+-----------------+
//   | message 1  | message 2  | ... | msg n   | zeros           |
//   | hdr + TLVs | hdr + TLVs |     |         |                 |
//   +------------+------------+-----+---------+-----------------+
//
// Capability answer (control code 0x440002, up to 512 bytes): the library
// reads five bytes of it.
//
//   byte 8: fillWords22   9: fillWords13   10: fillWords21
//   byte 11: fillWords33  40: fillWords39
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"
#include "msg/head.h"
#include "msg/state.h"
#include "msg/transport.h"
#include "msg/wire.h"

constinit L2VFIB_BatchBuf *l2vfib_Batch = nullptr;
constinit L2VFIB_DevCaps l2vfib_Caps = {};

namespace {

constexpr uint32_t kCapsCode = 0x440002;
constexpr uint32_t kCapsRoom = 512;

// Sends the queued messages as one datagram. A blocking flush sends again
// while the send fails with EINTR; a non-blocking one tries once. Anything
// but the whole datagram leaves the queue as it was.
uint32_t Flush(int32_t socket, bool blocking) {
    L2VFIB_BatchBuf *batch = l2vfib_Batch;
    if (batch == nullptr) return L2VFIB_ERR_NOT_OPEN;
    if (batch->used == 0) return L2VFIB_OK;
    const bool sent = blocking ? l2vfib::SendBlocking(socket, batch->area, batch->used)
                               : l2vfib::SendOnce(socket, batch->area, batch->used, MSG_DONTWAIT);
    if (!sent) return L2VFIB_ERR_FAIL;
    // Only the queued bytes: the rest of the area is zero already.
    std::memset(batch->area, 0, batch->used);
    batch->used = 0;
    return L2VFIB_OK;
}

uint16_t FreeBytes(const L2VFIB_BatchBuf *batch) {
    return static_cast<uint16_t>(L2VFIB_BATCH_SIZE - batch->used);
}

// The batched command that did not fit behind the queue (or was refused
// outright): sends the queue and tries once more in the empty area. An
// encoder that refused may have written items before the one that did not
// fit; they are cleared, so the area stays zero past the queue. Kept out of
// line, so the path of a message that fits saves fewer registers.
[[gnu::noinline]] uint32_t QueueAfterFlush(int32_t socket, const l2vfib::CmdRow *row,
                                                     const void *arg1, const void *arg2) {
    L2VFIB_BatchBuf *buf = l2vfib_Batch;
    std::memset(buf->area + buf->used, 0, FreeBytes(buf));
    if (L2VFIB_FlushEntry(socket) != L2VFIB_OK) return L2VFIB_ERR_FAIL;
    const uint16_t length = l2vfib::EncodeRow(row, arg1, arg2, L2VFIB_BATCH_SIZE, buf->area);
    if (length == 0) {
        std::memset(buf->area, 0, L2VFIB_BATCH_SIZE);
        return L2VFIB_ERR_FAIL;
    }
    buf->used = length;
    return L2VFIB_OK;
}

// A batched command that has an encoder (or, null row, no code at all):
// behind the queue, or after its flush when it does not fit. Out of line:
// it keeps the caller's arguments across the encoder call for that case,
// which the path of a word item does not need.
[[gnu::noinline]] uint32_t QueueEncoded(int32_t socket, const l2vfib::CmdRow *row,
                                        const void *arg1, const void *arg2) {
    L2VFIB_BatchBuf *buf = l2vfib_Batch;
    const uint16_t length =
        l2vfib::EncodeRow(row, arg1, arg2, FreeBytes(buf), buf->area + buf->used);
    if (length == 0) return QueueAfterFlush(socket, row, arg1, arg2);
    buf->used = static_cast<uint16_t>(buf->used + length);
    return L2VFIB_OK;
}

}  // namespace

extern "C" {

int32_t l2vfib_ConnectService(void) {
    return l2vfib::OpenConnected(l2vfib::kServicePort, l2vfib::kServiceNode);
}

void l2vfib_QueryCaps(void) {
    uint8_t answer[kCapsRoom] = {};
    uint32_t answerLength = 0;
    if (CIOCTL(l2vfib::kServiceNode, kCapsCode, 0, nullptr, kCapsRoom, answer, &answerLength) != 0)
        return;
    if (answerLength == 0) return;
    l2vfib_Caps.fillWords22 = answer[8];
    l2vfib_Caps.fillWords13 = answer[9];
    l2vfib_Caps.fillWords21 = answer[10];
    l2vfib_Caps.fillWords33 = answer[11];
    l2vfib_Caps.fillWords39 = answer[40];
}

L2VFIB_API int32_t L2VFIB_Open(L2VFIB_MsgCallback *msgCallback) {
    if (l2vfib_Batch != nullptr) return -1;
    const int32_t fd = l2vfib_ConnectService();
    if (fd < 0) return -1;
    auto *batch = static_cast<L2VFIB_BatchBuf *>(std::calloc(1, sizeof(L2VFIB_BatchBuf)));
    if (batch == nullptr) {
        SKT_Close(fd);
        return -1;
    }
    batch->msgCallback = msgCallback;
    l2vfib_Batch = batch;
    l2vfib_QueryCaps();
    return fd;
}

L2VFIB_API int32_t L2VFIB_Close(int32_t socket) {
    if (l2vfib_Batch != nullptr) {
        std::free(l2vfib_Batch);
        l2vfib_Batch = nullptr;
    }
    return SKT_Close(socket);
}

L2VFIB_API uint32_t L2VFIB_FlushEntry(int32_t socket) { return Flush(socket, true); }

uint32_t l2vfib_FlushNoWait(int32_t socket) { return Flush(socket, false); }

L2VFIB_API uint32_t L2VFIB_Send_Cfg(int32_t socket, L2VFIB_CmdId cmd, uint32_t batch,
                                    const void *arg1, const void *arg2) {
    L2VFIB_BatchBuf *buf = l2vfib_Batch;
    if (buf == nullptr) return L2VFIB_ERR_NOT_OPEN;
    const l2vfib::CmdRow *row = l2vfib::FindCmd(cmd);
    if (batch != 1 && (row == nullptr || row->path != l2vfib::Path::kBatched))
        return l2vfib_SendCfgNow(socket, cmd, arg1, arg2);
    if (row == nullptr || row->word.type == 0) return QueueEncoded(socket, row, arg1, arg2);

    // A word item: the header and the number first, then the item's header
    // through the codec, the last call, so nothing is kept across it.
    constexpr uint32_t kLength = l2vfib::kHeadSize + l2vfib::kWordPayload;
    const void *record = l2vfib::WordRecord(*row, arg1, arg2);
    const uint32_t used = buf->used;
    if (record == nullptr || L2VFIB_BATCH_SIZE - used < kLength)
        return QueueAfterFlush(socket, row, arg1, arg2);
    uint8_t *msg = buf->area + used;
    buf->used = static_cast<uint16_t>(used + kLength);
    l2vfib::PutMsgHead(msg, row->objType, l2vfib::kWordPayload, row->opcode, row->byte7);
    l2vfib::PutBe32(msg + l2vfib::kHeadSize + l2vfib::kItemHead, l2vfib::Load<uint32_t>(record));
    (void)STLV_Set(msg + l2vfib::kHeadSize, l2vfib::kWordPayload, row->word.type, 4, nullptr);
    return L2VFIB_OK;
}

}  // extern "C"

namespace l2vfib {

uint32_t AppendMakeRoom(int32_t socket, uint32_t needed) {
    // A message longer than the whole area can never be queued; refuse it
    // before the queue is sent for nothing.
    if (needed > L2VFIB_BATCH_SIZE) return L2VFIB_ERR_FAIL;
    return l2vfib_FlushNoWait(socket) == L2VFIB_OK ? L2VFIB_OK : L2VFIB_ERR_FAIL;
}

uint32_t AppendReopen(int32_t socket, Append *append, uint32_t objType, uint32_t opcode,
                      uint32_t byte7) {
    AppendEnd(*append, objType, opcode, byte7);
    if (l2vfib_FlushNoWait(socket) != L2VFIB_OK) return L2VFIB_ERR_FAIL;
    append->msg = l2vfib_Batch->area;
    append->pos = append->msg + kHeadSize;
    return L2VFIB_OK;
}

}  // namespace l2vfib
