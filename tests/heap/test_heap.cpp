// After L2VFIB_Open the library touches the heap no more: every exported
// function runs over the no-I/O platform while malloc, calloc, realloc and
// free are counted. Open's batch buffer and the node list that the platform
// allocates for the MAC reset (and the library frees) are the only blocks.
#include <gtest/gtest.h>

#include <cstdlib>

#include "bench_platform.h"
#include "l2vfib.h"

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
}

namespace {
bool g_counting;
int g_allocs;
int g_frees;
}  // namespace

extern "C" {
void *malloc(size_t n) {
    if (g_counting) ++g_allocs;
    return __libc_malloc(n);
}
void *calloc(size_t n, size_t size) {
    if (g_counting) ++g_allocs;
    return __libc_calloc(n, size);
}
void *realloc(void *p, size_t n) {
    if (g_counting) ++g_allocs;
    return __libc_realloc(p, n);
}
void free(void *p) {
    if (g_counting && p != nullptr) ++g_frees;
    __libc_free(p);
}
}

namespace {

uint32_t OnNotice(uint32_t, uint32_t *) { return 0; }
uint32_t OnEvent(uint32_t, const void *) { return 0; }

const uint8_t kResultOk[] = {0, 1, 0, 8, 0, 0, 1, 8, 0, 0x25, 0, 4, 0, 0, 0, 0};
const uint8_t kIdentifier[] = {0, 0x1d, 0, 8, 0, 0, 5, 8, 0, 0xb8, 0, 4, 0, 0, 0x12, 0x34};
const uint8_t kNotice[] = {0, 0, 0, 8, 0, 0, 0, 0, 0, 0x24, 0, 4, 0, 0, 0, 7};
const uint8_t kAcData[] = {0, 0, 0, 0x1f, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x17, 0, 0, 0, 0,
                           0, 1, 0, 4, 0, 0, 0, 2, 0, 2, 0, 0x0b, 1, 2, 3, 4, 5, 0x11, 0x12,
                           0x13, 0x14, 0x15, 0xff};
const uint8_t kEvent[] = {0, 0x14, 0, 0x10, 0, 0, 0, 0, 0, 3, 0, 0x0c,
                          1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};

TEST(Heap, OnlyOpenAndCloseAllocateAndOnlyTheNodeListIsFreedBetween) {
    const L2VFIB_EntryKey key = {1, 2};
    const uint32_t word = 7;
    const uint8_t block[64] = {};
    L2VFIB_LpwEntry lpw{};
    L2VFIB_MinMMember member{};
    L2VFIB_MinMEntry minm{};
    minm.memberCount = 1;
    minm.members = &member;
    const L2VFIB_AcInfo info{};
    const L2VFIB_AcOption option{};
    L2VFIB_AcData entries[L2VFIB_AC_DATA_MAX];
    L2VFIB_AcDataList list = {0, entries};
    L2VFIB_TypeSelect select{};
    const L2VFIB_OverlayTunnelEntry tunnel{};
    const L2VFIB_EbgKey ebg = {3};
    const uint32_t members[300] = {};
    const L2VFIB_MplsEbgKey mplsKey{};
    const L2VFIB_MplsEbgMember mpls[100] = {};
    const L2VFIB_EbgDfEntry df{};
    const uint32_t selector[3] = {};
    uint8_t out[512];
    uint32_t ok[64];
    int n = 0;

    g_counting = true;
    const int32_t s = L2VFIB_Open(OnNotice);
    ASSERT_GE(s, 0);
    EXPECT_EQ(g_allocs, 1) << "the count sees Open's batch buffer";
    g_allocs = 0;
    bench::ResetCount();

    ok[n++] = L2VFIB_Send_Cfg(s, 28, 1, nullptr, &word);
    bench::SetRecv(kResultOk, sizeof kResultOk);
    ok[n++] = L2VFIB_Send_Cfg(s, 18, 0, &word, nullptr);
    bench::SetRecv(kIdentifier, sizeof kIdentifier);
    ok[n++] = L2VFIB_AllocECID(18, &word, nullptr) == 0x1234 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    bench::SetRecv(kNotice, sizeof kNotice);
    ok[n++] = L2VFIB_HandleMsg(s);
    ok[n++] = L2VFIB_FlushEntry(s);
    L2VFIB_Start(1, 2);
    L2VFIB_Stop(1);
    L2VFIB_CheckVlanRange(1, sizeof block, block);
    ok[n++] = L2VFIB_AddPwEntry(s, 0, &key, block, sizeof block);
    ok[n++] = L2VFIB_DelPwEntry(s, 0, &key);
    ok[n++] = L2VFIB_EncLpwEntry(&lpw, sizeof out, out) != 0 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    ok[n++] = L2VFIB_AddMinMEntry(s, 0, 5, &key, block, sizeof block);
    ok[n++] = L2VFIB_DelMinMEntry(s, 0, 7, &key);
    ok[n++] = L2VFIB_EncMinMEntry(&minm, sizeof out, out) != 0 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    ok[n++] = L2VFIB_AddAcEntry(s, &key, &info, &option);
    ok[n++] = L2VFIB_DelAcEntry(s, &key);
    ok[n++] = L2VFIB_SetAcFlagClear(s, 1);
    bench::SetRecv(kAcData, sizeof kAcData);
    ok[n++] = L2VFIB_GetAcData(s, &list);
    ok[n++] = L2VFIB_WithdrawMacAddr(s, &key);
    ok[n++] = L2VFIB_ResetMacAddr(&word);
    ok[n++] = L2VFIB_SendGrEvent(s, 1);
    L2VFIB_SelectType_Set(1, 2, &select);
    ok[n++] = L2VFIB_AddOverlayTunnel(s, 5, &tunnel);
    ok[n++] = L2VFIB_DelOverlayTunnel(s, 5, &tunnel);
    ok[n++] = L2VFIB_SwitchOverlayTunnel(s, 5, &tunnel, &tunnel);
    ok[n++] = L2VFIB_SendTunnelIFDel(s, 9);
    ok[n++] = L2VFIB_AddEBGMember(s, 5, &ebg, members, 300);
    ok[n++] = L2VFIB_DelEBGMember(s, 5, &ebg, members, 300);
    ok[n++] = l2vfib_SendEbgMemberEntry(s, 5, 5, &ebg, members, 3);
    ok[n++] = L2VFIB_AddMplsEBGMember(s, 5, &mplsKey, mpls, 100);
    ok[n++] = L2VFIB_DelMplsEBGMember(s, 5, &mplsKey, mpls, 100);
    ok[n++] = l2vfib_SendMplsEbgMemberEntry(s, 5, 5, &mplsKey, mpls, 3);
    ok[n++] = L2VFIB_AddEBGDf(s, 5, &df);
    ok[n++] = L2VFIB_DelEBGDf(s, 5, &df);
    ok[n++] = l2vfib_SendEbgDfEntry(s, 5, 5, &df);
    const int32_t e = L2VFIB_InitEvent(1);
    ok[n++] = e >= 0 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    ok[n++] = L2VFIB_RegEvent(e, 0x0010, selector, 0, OnEvent, 0);
    bench::SetRecv(kEvent, sizeof kEvent);
    ok[n++] = L2VFIB_HandleEvtMsg(e);
    ok[n++] = L2VFIB_DeregEvent(e, 0x0010, 0, 0);
    ok[n++] = L2VFIB_FiniEvent(e) == 0 ? L2VFIB_OK : L2VFIB_ERR_FAIL;
    ok[n++] = L2VFIB_FlushEntry(s);
    g_counting = false;

    // Results are checked only now: a failing check allocates.
    for (int i = 0; i < n; ++i) EXPECT_EQ(ok[i], L2VFIB_OK) << "call " << i << " of the run";
    EXPECT_EQ(g_allocs, static_cast<int>(bench::Count().nodeLists))
        << "beyond the platform's node list";
    EXPECT_EQ(g_frees, static_cast<int>(bench::Count().nodeLists));
    EXPECT_GE(bench::Count().nodeLists, 1u);
    EXPECT_GT(bench::Count().sends, 10u);

    g_counting = true;
    g_frees = 0;
    EXPECT_EQ(L2VFIB_Close(s), 0);
    g_counting = false;
    EXPECT_EQ(g_frees, 1) << "Close frees the batch buffer";
}

}  // namespace
