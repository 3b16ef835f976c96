// Message header.
//
//    0       2          4       6        7        8
//   +-------+----------+-------+--------+--------+-------------------+
//   |objType|payloadLen|  tag  | opcode | byte7  | TLV items ...     |
//   | be16  |  be16    | be16  |   u8   |   u8   | payloadLen bytes  |
//   +-------+----------+-------+--------+--------+-------------------+
//
// payloadLen counts the bytes after the header. tag is 0 in every message
// with this header that the library sends.
#include "msg/head.h"

extern "C" void l2vfib_FillMsgHead(uint32_t objType, uint32_t payloadLen, uint32_t opcode,
                                   uint32_t byte7, L2VFIB_MsgHead *head) {
    head->objType = static_cast<uint16_t>(objType);
    head->payloadLen = static_cast<uint16_t>(payloadLen);
    head->opcode = static_cast<uint8_t>(opcode);
    head->byte7 = static_cast<uint8_t>(byte7);
}
