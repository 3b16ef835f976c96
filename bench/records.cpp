// The records of the benchmark cases. See records.h.
#include "records.h"

namespace bench {

const L2VFIB_EntryKey kKey = {0x01020304, 0x0506};
const uint32_t kWord = 0x11223344;
uint8_t g_pwBlock[200];
uint8_t g_minmBlock[512];
uint16_t g_minmLength;
L2VFIB_HalfPair g_pairs[60];
L2VFIB_Variant1Ext g_ext;
L2VFIB_Variant1 g_variant1;
L2VFIB_VariantEntry g_variantEntry;
L2VFIB_AcInfo g_acInfo;
L2VFIB_AcOption g_acOption = {1, 2, 3, 4};
L2VFIB_OverlayTunnelEntry g_tunnel = {{0x0a000001, 0x0a000002}, {1, 2, 3, 4}};
L2VFIB_EbgKey g_ebgKey = {77};
uint32_t g_members[1000];
L2VFIB_EbgDfEntry g_df = {1, 2, 3, 4};
L2VFIB_LpwSubEntry g_lpwSub = {1, 2, 3, 4, 5, 6, 7, 8, 9};
L2VFIB_LpwEntry g_lpw;
uint8_t g_encOut[512];
uint32_t g_encLength;

const uint8_t kNotice[16] = {0, 0, 0, 8, 0, 0, 0, 0, 0, 0x24, 0, 4, 0, 0, 0, 7};
const uint8_t kEvent[76] = {
    0x00, 0x14, 0x00, 0x44, 0x01, 0x02, 0x07, 0x09, 0x00, 0x03, 0x00, 0x06, 0x0a, 0x0b, 0x0c,
    0x0d, 0x01, 0x02, 0x00, 0x09, 0x00, 0x02, 0xff, 0xff, 0x00, 0x02, 0x00, 0x30, 0x00, 0x00,
    0x00, 0x01, 0x00, 0x00, 0x00, 0x02, 0x5d, 0xab, 0x03, 0x04, 0x00, 0x00, 0x00, 0x05, 0x00,
    0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x07, 0x08, 0x09, 0xcd, 0xef, 0x0a, 0x0b, 0x0c, 0x0d,
    0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1a, 0x1b, 0x1c, 0x1d, 0x1e,
    0x1f};

uint64_t g_seen;

uint32_t OnNotice(uint32_t, uint32_t *value) {
    g_seen += *value;
    return 0;
}

uint32_t OnEvent(uint32_t tag, const void *) {
    g_seen += tag;
    return L2VFIB_OK;
}

void FillRecords() {
    for (size_t i = 0; i < sizeof g_pwBlock; ++i) g_pwBlock[i] = static_cast<uint8_t>(i);
    for (uint16_t i = 0; i < 60; ++i) g_pairs[i] = {i, static_cast<uint16_t>(i + 1)};
    g_ext = {1, 2, {{3, 4, 5, 6, 7, 8, 9}, {10, 11, 12, 13, 14, 15, 16}}};
    g_variant1 = {1, 2, 3, 60, g_pairs, 4, 5, 60, g_pairs, &g_ext};
    g_variantEntry = {9, &g_variant1, 2, 3, 1, 4};
    g_acInfo.half0 = 1;
    g_acInfo.word0 = 2;
    g_acInfo.word1 = 3;
    g_acInfo.attr64 = 4;
    g_acInfo.word2 = 5;
    for (uint32_t i = 0; i < 1000; ++i) g_members[i] = 0x0a000000 + i;
    g_lpw = {{1, 2}, 3, {4, 5, 6}, 7, {&g_lpwSub, &g_lpwSub}};
    static const L2VFIB_MinMMember members[2] = {{1, {1, 2, 3, 4, 5, 6, 7, 8}},
                                                 {2, {8, 7, 6, 5, 4, 3, 2, 1}}};
    L2VFIB_MinMEntry minm{};
    minm.memberCount = 2;
    minm.members = members;
    g_minmLength = static_cast<uint16_t>(L2VFIB_EncMinMEntry(&minm, sizeof g_minmBlock,
                                                             g_minmBlock));
}

}  // namespace bench
