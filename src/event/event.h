// The event channel's internals: the registration record, the message
// builders behind the exported calls, and the process's event callback.
#ifndef L2VFIB_EVENT_EVENT_H
#define L2VFIB_EVENT_EVENT_H

#include <cstdint>

#include "l2vfib.h"

extern "C" {

// What one registration or deregistration asks for, in host order.
typedef struct L2VFIB_EvtReg {
    uint32_t selector0;
    uint32_t selector1;
    uint32_t selector2;
    uint16_t eventMask;
    uint16_t extra16;
} L2VFIB_EvtReg;

// Installed by L2VFIB_RegEvent (null included), read by L2VFIB_HandleEvtMsg
// for each event item. Null until the first registration; closing the
// channel leaves it in force. No lock: registration and dispatch come from
// one thread at a time.
extern L2VFIB_EvtCallback *l2vfib_EventCallback;

// Writes object type 20 and the payload length (both big-endian) at bytes
// 0-3 of head and the opcode at byte 6; bytes 4, 5 and 7 are left as they
// are. Cannot fail.
void l2vfib_FillEvtHead(uint32_t payloadLen, uint32_t opcode, uint8_t *head);

// Sends the channel message carrying channelWord: opcode 7 (close) when
// closing is 1, else 5 (open). Returns 0 whether or not the send succeeded.
uint32_t l2vfib_SendEvtChannel(int32_t socket, uint32_t closing, uint32_t channelWord);

// Sends the registration message for reg and eventParam: opcode 7
// (deregister) when deregister is 1, else 5 (register). Returns 0 whether
// or not the send succeeded.
uint32_t l2vfib_SendEvtReg(int32_t socket, uint32_t deregister, const L2VFIB_EvtReg *reg,
                           uint32_t eventParam);
}

namespace l2vfib {

// The event service listens at this port on the local node.
constexpr uint16_t kEventPort = 12566;
constexpr uint16_t kEventObjType = 20;
// Longest message the library sends on the event channel.
constexpr uint32_t kEventMsgRoom = 512;

}  // namespace l2vfib

#endif
