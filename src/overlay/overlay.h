// What the overlay tunnel and EBG units share: the item writer of their
// batched messages, and the switch's worker.
#ifndef L2VFIB_OVERLAY_OVERLAY_H
#define L2VFIB_OVERLAY_OVERLAY_H

#include <cstdint>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/state.h"

namespace l2vfib {

// Writes one item at the append position, with the room left up to the end
// of the batch area, and moves the position behind it. Callers have made
// room for the item first (AppendBegin's needed count, or their own test of
// the room); were it refused all the same, nothing is written and the
// position stays, so the message stays whole.
inline void PutItem(Append &append, uint32_t type, const uint8_t *value, uint32_t length) {
    append.pos += STLV_Set(append.pos, static_cast<uint32_t>(append.end - append.pos), type,
                           length, value);
}

}  // namespace l2vfib

extern "C" {

// Queues one overlay tunnel message of object type 14 with byte 7 = 5, the
// given opcode, and the key and attribute items of entry; it asks for 136
// free bytes. entry must not be null: the switch has tested it. Returns
// L2VFIB_OK, L2VFIB_ERR_NOT_OPEN (no batch buffer), or L2VFIB_ERR_FAIL when
// the flush for room fails (nothing written).
uint32_t l2vfib_SendOverlayTunnelEntry(int32_t socket, uint32_t opcode,
                                       const L2VFIB_OverlayTunnelEntry *entry);
}

#endif
