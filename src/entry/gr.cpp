// The graceful-restart event: a header alone, sent at once on the caller's
// socket, outside the batch.
//
//    0        2        4      6        7
//   +--------+--------+------+--------+----+
//   | 00 07  | 00 00  | 0 0  | 03/04  | 08 |   opcode 3 for flag 0, else 4
//   +--------+--------+------+--------+----+
//
// And the type selection utility, which touches only the caller's record:
// type t (0 to 7) is the bit 0x80000000 >> t of typeMask; 8 and above mark
// all eight.
#include "entry/entry.h"
#include "msg/head.h"
#include "msg/transport.h"

extern "C" {

// Returns L2VFIB_OK when all 8 bytes were handed over, else L2VFIB_ERR_FAIL.
L2VFIB_API uint32_t L2VFIB_SendGrEvent(int32_t socket, uint32_t flag) {
    uint8_t msg[l2vfib::kHeadSize] = {};
    L2VFIB_MsgHead head{};
    l2vfib_FillMsgHead(7, 0, flag == 0 ? 3 : 4, 8, &head);
    l2vfib::WriteMsgHead(head, msg);
    return l2vfib::SendBlocking(socket, msg, sizeof msg) ? L2VFIB_OK : L2VFIB_ERR_FAIL;
}

// No result; does nothing for a null select.
L2VFIB_API void L2VFIB_SelectType_Set(uint32_t value, uint32_t type, L2VFIB_TypeSelect *select) {
    if (select == nullptr) return;
    select->typeMask |= type <= 7 ? 0x80000000u >> type : 0xFF000000u;
    select->value = value;
}

}  // extern "C"
