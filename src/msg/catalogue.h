// The command catalogue: command codes 0 to 91, each with its payload
// encoder (or, for the commonest payload, one 32-bit number, the item that
// holds it), header fields and send path.
#ifndef L2VFIB_MSG_CATALOGUE_H
#define L2VFIB_MSG_CATALOGUE_H

#include <cstdint>

#include "enc/encoders.h"
#include "l2vfib.h"
#include "msg/head.h"

namespace l2vfib {

// Where L2VFIB_Send_Cfg sends a command when its batch argument is not 1.
enum class Path : uint8_t {
    kFails,    // no encoder
    kBatched,  // always into the batch buffer
    kAlone,    // at once on the service socket, no answer read
    kReply,    // at once on a fresh socket, the service's answer returned
};

// A payload of one item holding one 32-bit number read from argument 1 or
// 2, big-endian: the catalogue writes it itself, with no encoder.
//
//   +------+------+------+
//   | type | 00 04| be32 |
//   +------+------+------+
struct WordItem {
    uint8_t type;  // 0: the row has no word item
    uint8_t arg;   // 1 or 2
};

// The least room a word item's payload is built in, and its length.
constexpr uint16_t kWordPayload = kItemHead + 4;

struct CmdRow {
    L2VFIB_CmdEncoder encoder;  // null, and no word item: the code is refused
    uint8_t objType;
    uint8_t opcode;
    uint8_t byte7;
    Path path;
    WordItem word = {0, 0};
};

constexpr uint32_t kCmdCount = 92;

}  // namespace l2vfib

extern "C" const l2vfib::CmdRow l2vfib_CmdTable[l2vfib::kCmdCount];

namespace l2vfib {

// The row of cmd, or null for a code above 91.
inline const CmdRow *FindCmd(L2VFIB_CmdId cmd) {
    return cmd < kCmdCount ? &l2vfib_CmdTable[cmd] : nullptr;
}

// The record a word item's number is read from: argument 1 or 2.
inline const void *WordRecord(const CmdRow &row, const void *arg1, const void *arg2) {
    return row.word.arg == 1 ? arg1 : arg2;
}

// Writes the payload of a row with a word item at out, within room bytes:
// its length, or 0 (nothing written) for a row without one, a null record,
// or a room below kWordPayload.
uint16_t EncodeWord(const CmdRow &row, const void *arg1, const void *arg2, uint16_t room,
                    uint8_t *out);

// l2vfib_EncodeCmd for a row found (or null).
inline uint16_t EncodeRow(const CmdRow *row, const void *arg1, const void *arg2, uint16_t room,
                          uint8_t *out) {
    if (row == nullptr || room < kHeadSize) return 0;
    const auto payloadRoom = static_cast<uint16_t>(room - kHeadSize);
    const uint16_t payload =
        row->encoder != nullptr ? row->encoder(arg1, arg2, payloadRoom, out + kHeadSize)
                                : EncodeWord(*row, arg1, arg2, payloadRoom, out + kHeadSize);
    if (payload == 0) return 0;
    PutMsgHead(out, row->objType, payload, row->opcode, row->byte7);
    return static_cast<uint16_t>(payload + kHeadSize);
}

}  // namespace l2vfib

extern "C" {

// Builds the whole message of command cmd at out, within room bytes:
// payload from out + 8, then the header. Returns the message length, or 0
// when nothing was built (room of 7 or less, code above 91, no encoder, or
// the encoder refused); no header is written then.
uint16_t l2vfib_EncodeCmd(L2VFIB_CmdId cmd, const void *arg1, const void *arg2, uint16_t room,
                          uint8_t *out);
}

#endif
