// What the overlay tunnel and EBG units share: the switch's worker.
#ifndef L2VFIB_OVERLAY_OVERLAY_H
#define L2VFIB_OVERLAY_OVERLAY_H

#include <cstdint>

#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/state.h"

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
