// The records every benchmark case hands over, in host order, filled once:
// the library's calls and the libmnl daemon's (mnl_daemon.h) read the same
// ones. Also the datagrams the receiving cases read, and the callbacks both
// sides end in.
#ifndef L2VFIB_BENCH_RECORDS_H
#define L2VFIB_BENCH_RECORDS_H

#include <cstddef>
#include <cstdint>

#include "l2vfib.h"

namespace bench {

extern const L2VFIB_EntryKey kKey;
extern const uint32_t kWord;
extern uint8_t g_pwBlock[200];
extern uint8_t g_minmBlock[512];
extern uint16_t g_minmLength;
extern L2VFIB_HalfPair g_pairs[60];
extern L2VFIB_Variant1Ext g_ext;
extern L2VFIB_Variant1 g_variant1;
extern L2VFIB_VariantEntry g_variantEntry;
extern L2VFIB_AcInfo g_acInfo;
extern L2VFIB_AcOption g_acOption;
extern L2VFIB_OverlayTunnelEntry g_tunnel;
extern L2VFIB_EbgKey g_ebgKey;
extern uint32_t g_members[1000];
extern L2VFIB_EbgDfEntry g_df;
extern L2VFIB_LpwSubEntry g_lpwSub;
extern L2VFIB_LpwEntry g_lpw;

// Where the encoder cases write their block, and its length.
extern uint8_t g_encOut[512];
extern uint32_t g_encLength;

// A notice (item 36, one word) and an event datagram of three items, as
// the library receives them.
extern const uint8_t kNotice[16];
extern const uint8_t kEvent[76];

// What the callbacks were handed, summed, so no call is optimised away.
extern uint64_t g_seen;

// The callbacks of the C calls, which the libmnl daemon calls too.
uint32_t OnNotice(uint32_t kind, uint32_t *value);
uint32_t OnEvent(uint32_t tag, const void *record);

void FillRecords();

}  // namespace bench

#endif
