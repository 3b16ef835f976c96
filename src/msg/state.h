// Process-wide state of the message layer: the batch buffer and the device
// capability counts. No lock protects either; calls that append, flush,
// open or close come from one thread at a time.
#ifndef L2VFIB_MSG_STATE_H
#define L2VFIB_MSG_STATE_H

#include <cstdint>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"

extern "C" {

typedef struct L2VFIB_BatchBuf {
    L2VFIB_MsgCallback *msgCallback;
    uint16_t used;  // bytes of area holding queued messages
    uint8_t area[L2VFIB_BATCH_SIZE];
} L2VFIB_BatchBuf;

// Counts of all-ones 32-bit words that end TLVs 13, 21, 22, 33 and 39.
typedef struct L2VFIB_DevCaps {
    uint8_t fillWords13;
    uint8_t fillWords21;
    uint8_t fillWords22;
    uint8_t fillWords33;
    uint8_t fillWords39;
} L2VFIB_DevCaps;

// Null while the library is closed.
extern L2VFIB_BatchBuf *l2vfib_Batch;
// All 0 until the first successful capability query.
extern L2VFIB_DevCaps l2vfib_Caps;

// Sends the queued messages without blocking. Returns L2VFIB_OK (also when
// nothing is queued), L2VFIB_ERR_NOT_OPEN, or L2VFIB_ERR_FAIL with the
// messages left queued.
uint32_t l2vfib_FlushNoWait(int32_t socket);

// Creates a socket connected to the forwarding service; its descriptor, or
// -1.
int32_t l2vfib_ConnectService(void);

// Reads the device capabilities into l2vfib_Caps; a failed query leaves the
// counts as they were.
void l2vfib_QueryCaps(void);

// The unbatched path of L2VFIB_Send_Cfg: L2VFIB_OK, L2VFIB_ERR_FAIL, or on
// the answered path the service's result.
uint32_t l2vfib_SendCfgNow(int32_t socket, L2VFIB_CmdId cmd, const void *arg1, const void *arg2);

// Parses a reply of length bytes: the service's result from item 37, or
// L2VFIB_ERR_FAIL. On item 184 stores the identifier at out (when not
// null) and returns L2VFIB_ERR_FAIL.
uint32_t l2vfib_ParseReply(const uint8_t *msg, int32_t length, uint32_t *out);
}

namespace l2vfib {

// The service's address: port 2670 on node 0x8000.
constexpr uint16_t kServicePort = 2670;
constexpr uint16_t kServiceNode = 0x8000;

// The append protocol of the direct entry functions. AppendBegin checks that
// the library is open and, when fewer than needed bytes are free, flushes
// without blocking; on L2VFIB_OK the message starts at msg, its items go
// from msg + 8 and may run up to end (the end of the batch area). A message
// that cannot fit even an empty area is refused with L2VFIB_ERR_FAIL before
// anything is sent or written. AppendEnd writes the header in front of the
// bytes written up to pos and adds the message to the queue.
struct Append {
    uint8_t *msg;
    uint8_t *pos;
    uint8_t *end;
};

// AppendBegin's way when fewer than needed bytes are free: refuses a
// message longer than the whole area, else sends the queue without
// blocking.
uint32_t AppendMakeRoom(int32_t socket, uint32_t needed);

// (Inline: they run once for every message the entry functions queue.)
inline uint32_t AppendBegin(int32_t socket, uint32_t needed, Append *append) {
    L2VFIB_BatchBuf *batch = l2vfib_Batch;
    if (batch == nullptr) return L2VFIB_ERR_NOT_OPEN;
    if (needed > uint32_t{L2VFIB_BATCH_SIZE} - batch->used) {
        const uint32_t result = AppendMakeRoom(socket, needed);
        if (result != L2VFIB_OK) return result;
    }
    append->msg = batch->area + batch->used;
    append->pos = append->msg + kHeadSize;
    append->end = batch->area + L2VFIB_BATCH_SIZE;
    return L2VFIB_OK;
}

inline void AppendEnd(const Append &append, uint32_t objType, uint32_t opcode, uint32_t byte7) {
    const auto length = static_cast<uint32_t>(append.pos - append.msg);
    PutMsgHead(append.msg, objType, length - kHeadSize, opcode, byte7);
    l2vfib_Batch->used = static_cast<uint16_t>(l2vfib_Batch->used + length);
}

// Writes the header of an item of length value bytes at the append position
// (STLV_Set given no value) and moves the position behind the value;
// returns where the value goes, for the caller to write every byte of.
// AppendBegin reserved the room, so the codec writes the header.
inline uint8_t *AppendItem(Append &append, uint32_t type, uint32_t length) {
    uint8_t *value = append.pos + kItemHead;
    append.pos += STLV_Set(append.pos, static_cast<uint32_t>(append.end - append.pos), type,
                           length, nullptr);
    return value;
}

// For a run of messages that outgrows the batch: closes the open message as
// AppendEnd does, sends the queue without blocking and opens the next
// message at the start of the emptied area. Returns L2VFIB_OK, or
// L2VFIB_ERR_FAIL when the send fails; the closed message then stays queued
// and counted, and append must not be written through again.
uint32_t AppendReopen(int32_t socket, Append *append, uint32_t objType, uint32_t opcode,
                      uint32_t byte7);

}  // namespace l2vfib

#endif
