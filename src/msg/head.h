// The 8-byte message header, held in host order until it is written.
#ifndef L2VFIB_MSG_HEAD_H
#define L2VFIB_MSG_HEAD_H

#include <cstdint>

#include "msg/wire.h"

extern "C" {

typedef struct L2VFIB_MsgHead {
    uint16_t objType;
    uint16_t payloadLen;
    uint16_t tag;
    uint8_t opcode;
    uint8_t byte7;
} L2VFIB_MsgHead;

// Stores the four values in head (host order); tag is left alone, so
// callers start from a zeroed record.
void l2vfib_FillMsgHead(uint32_t objType, uint32_t payloadLen, uint32_t opcode, uint32_t byte7,
                        L2VFIB_MsgHead *head);
}

namespace l2vfib {

constexpr uint16_t kHeadSize = 8;

// Writes head at out: the three 16-bit fields big-endian at 0, 2 and 4,
// opcode and byte7 at 6 and 7. Inline: every message passes here.
inline void WriteMsgHead(const L2VFIB_MsgHead &head, uint8_t *out) {
    PutBe16(out, head.objType);
    PutBe16(out + 2, head.payloadLen);
    PutBe16(out + 4, head.tag);
    out[6] = head.opcode;
    out[7] = head.byte7;
}

// Reads the header at in into host order.
L2VFIB_MsgHead ReadMsgHead(const uint8_t *in);

}  // namespace l2vfib

#endif
