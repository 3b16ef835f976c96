// The 8-byte message header, held in host order until it is written.
#ifndef L2VFIB_MSG_HEAD_H
#define L2VFIB_MSG_HEAD_H

#include <cstdint>

#include "l2vfib_platform.h"
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
// The item header the codec writes in front of every value.
constexpr uint32_t kItemHead = 4;

// Writes the whole header at out: objType and payloadLen big-endian, tag 0,
// then opcode and byte7 (their low 8 bits).
inline void PutMsgHead(uint8_t *out, uint32_t objType, uint32_t payloadLen, uint32_t opcode,
                       uint32_t byte7) {
    PutBe32(out, (objType & 0xFFFF) << 16 | (payloadLen & 0xFFFF));
    PutBe32(out + 4, (opcode & 0xFF) << 8 | (byte7 & 0xFF));
}

// Where a value of length bytes goes once its item header is written in
// front of it at out: STLV_Set is given no value, so it writes the header
// alone and counts the value bytes, which the caller then writes in place.
// Null when the item does not fit room; nothing is written then.
inline uint8_t *OpenItem(uint8_t *out, uint32_t room, uint32_t type, uint32_t length) {
    return STLV_Set(out, room, type, length, nullptr) != 0 ? out + kItemHead : nullptr;
}

// Writes head at out: the three 16-bit fields big-endian at 0, 2 and 4,
// opcode and byte7 at 6 and 7. Inline: every message passes here.
inline void WriteMsgHead(const L2VFIB_MsgHead &head, uint8_t *out) {
    PutBe16(out, head.objType);
    PutBe16(out + 2, head.payloadLen);
    PutBe16(out + 4, head.tag);
    out[6] = head.opcode;
    out[7] = head.byte7;
}

// Reads the header at in into host order. Inline: every datagram received
// passes here.
inline L2VFIB_MsgHead ReadMsgHead(const uint8_t *in) {
    L2VFIB_MsgHead head{};
    head.objType = GetBe16(in);
    head.payloadLen = GetBe16(in + 2);
    head.tag = GetBe16(in + 4);
    head.opcode = in[6];
    head.byte7 = in[7];
    return head;
}

}  // namespace l2vfib

#endif
