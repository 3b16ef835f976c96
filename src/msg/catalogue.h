// The command catalogue: command codes 0 to 91, each with its payload
// encoder, header fields and send path.
#ifndef L2VFIB_MSG_CATALOGUE_H
#define L2VFIB_MSG_CATALOGUE_H

#include <cstdint>

#include "enc/encoders.h"
#include "l2vfib.h"

namespace l2vfib {

// Where L2VFIB_Send_Cfg sends a command when its batch argument is not 1.
enum class Path : uint8_t {
    kFails,    // no encoder
    kBatched,  // always into the batch buffer
    kAlone,    // at once on the service socket, no answer read
    kReply,    // at once on a fresh socket, the service's answer returned
};

struct CmdRow {
    L2VFIB_CmdEncoder encoder;  // null: the code is refused
    uint8_t objType;
    uint8_t opcode;
    uint8_t byte7;
    Path path;
};

constexpr uint32_t kCmdCount = 92;

}  // namespace l2vfib

extern "C" {

extern const l2vfib::CmdRow l2vfib_CmdTable[l2vfib::kCmdCount];

// Builds the whole message of command cmd at out, within room bytes:
// payload from out + 8, then the header. Returns the message length, or 0
// when nothing was built (room of 7 or less, code above 91, no encoder, or
// the encoder refused); no header is written then.
uint16_t l2vfib_EncodeCmd(L2VFIB_CmdId cmd, const void *arg1, const void *arg2, uint16_t room,
                          uint8_t *out);
}

#endif
