// The direct entry functions: forwarding entries, overlay tunnels and EBG.
// Each queued message byte for byte and at the edge of the batch room; the
// refusals that leave the queue alone; the messages sent alone on the
// caller's socket; the two attribute-block encoders; the tunnel switch and
// member runs across batches; the MAC reset's node loop; the type selection.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <numeric>
#include <sys/socket.h>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

using Call = std::function<uint32_t(int32_t)>;
#define CALL(...) [](int32_t fd) { return __VA_ARGS__; }

const L2VFIB_EntryKey kKey = {0x0A0B0C0Du, 0x1234};
const uint8_t kBlock[3] = {0xAA, 0xBB, 0xCC};
// Reserved areas of 0xFF: they must still go as zeros.
const L2VFIB_AcInfo kInfo = {0x8182, 0x83848586u, 0x87, 0x88898A8Bu, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                             0xFF, 0xFF, 0xFF}, 0x1122334455667788u, 0x8C8D8E8Fu,
                             {0xFF, 0xFF, 0xFF, 0xFF}, 0x9091, 0x9293};
const L2VFIB_AcOption kOption = {0xA1A2, 0xA3A4, 0xA5A6, 0xA7A8};
// The second tunnel has every top bit set: a sign extension or a swapped
// byte shows.
const L2VFIB_OverlayTunnelEntry kTun = {{1, 2}, {3, 4, 5, 6}}, kTun2 = {
    {0x81828384u, 0x85868788u}, {0x91929394u, 0xA1A2A3A4u, 0xB1B2B3B4u, 0xC1C2C3C4u}};
const L2VFIB_EbgKey kEbgKey = {42};
const L2VFIB_MplsEbgKey kMplsKey = {10, 20};
const L2VFIB_EbgDfEntry kDf = {1, 2, 3, 4};
// The words 1, 2, 3, ...: EBG member i is i + 1, MPLS EBG member i holds
// 3i + 1 to 3i + 3.
const std::vector<uint32_t> kWords = [] {
    std::vector<uint32_t> w(3 * 0x10001);
    std::iota(w.begin(), w.end(), 1u);
    return w;
}();
const uint32_t *const kEbg = kWords.data();
const auto *const kMpls = reinterpret_cast<const L2VFIB_MplsEbgMember *>(kWords.data());

#define KEY "0a 0b 0c 0d 12 34 00 00"
#define INFO                                                                   \
    "81 82 00 00 83 84 85 86 87 00 00 00 88 89 8a 8b 00 00 00 00 00 00 00 00 " \
    "11 22 33 44 55 66 77 88 8c 8d 8e 8f 00 00 00 00 90 91 92 93 00 00 00 00"
#define FF32 "ff*32"
#define TUN_ITEMS "00 46 00 08 00000001 00000002 | 00 47 00 30 00000003 00000004 00000005 00000006 " FF32
#define TUN_DEL "00 0e 00 40 00 00 07 05 | " TUN_ITEMS
#define TUN_ADD2                                                      \
    "00 0e 00 40 00 00 05 05 | 00 46 00 08 81828384 85868788 "      \
    "| 00 47 00 30 91929394 a1a2a3a4 b1b2b3b4 c1c2c3c4 " FF32
#define MPLS_KEY "00 ca 00 0c 0000000a 00000014 ffffffff"
#define DF_ITEM "00 99 00 10 00000001 00000002 00000003 00000004"

struct QueuedRow {
    const char *name;
    Call call;
    size_t needed;  // the free bytes it asks for; 0: not tried at the edge
    const char *message;
    uint8_t fill22 = 0;
};
void PrintTo(const QueuedRow &row, std::ostream *os) { *os << row.name; }

const QueuedRow kQueued[] = {
    {"PwAddByte7Low8Bits", CALL(L2VFIB_AddPwEntry(fd, 0x1FF, &kKey, kBlock, 3)), 23,
     "00 03 00 0f 00 00 05 ff | 00 0a 00 08 " KEY " | aa bb cc"},
    {"PwAddEmpty", CALL(L2VFIB_AddPwEntry(fd, 2, &kKey, nullptr, 0)), 20,
     "00 03 00 0c 00 00 05 02 | 00 0a 00 08 " KEY},
    {"PwDel", CALL(L2VFIB_DelPwEntry(fd, 0x21, &kKey)), 20,
     "00 03 00 0c 00 00 07 21 | 00 0a 00 08 " KEY},
    {"MinMAdd", CALL(L2VFIB_AddMinMEntry(fd, 9, 0x106, &kKey, kBlock, 2)), 22,
     "00 0c 00 0e 00 00 06 09 | 00 28 00 08 " KEY " | aa bb"},
    {"MinMDel", CALL(L2VFIB_DelMinMEntry(fd, 7, 6, &kKey)), 20,
     "00 0c 00 0c 00 00 06 07 | 00 28 00 08 " KEY},
    {"AcAdd", CALL(L2VFIB_AddAcEntry(fd, &kKey, &kInfo, nullptr)), 72,
     "00 06 00 40 00 00 05 00 | 00 14 00 08 " KEY " | 00 16 00 30 " INFO},
    {"AcAddFilledWithOption", CALL(L2VFIB_AddAcEntry(fd, &kKey, &kInfo, &kOption)), 100,
     "00 06 00 5c 00 00 05 00 | 00 14 00 08 " KEY " | 00 16 00 40 " INFO
     " ff*16 | 00 90 00 08 a1 a2 a3 a4 a5 a6 a7 a8", 4},
    {"AcAddWithoutInfo", CALL(L2VFIB_AddAcEntry(fd, &kKey, nullptr, &kOption)), 20,
     "00 06 00 0c 00 00 07 00 | 00 14 00 08 " KEY, 60},
    {"AcDel", CALL(L2VFIB_DelAcEntry(fd, &kKey)), 20, "00 06 00 0c 00 00 07 00 | 00 14 00 08 " KEY},
    {"Withdraw", CALL(L2VFIB_WithdrawMacAddr(fd, &kKey)), 20,
     "00 09 00 0c 00 00 00 08 | 00 0a 00 08 " KEY},
    {"TunnelAdd", CALL(L2VFIB_AddOverlayTunnel(fd, 5, &kTun)), 72,
     "00 0e 00 40 00 00 05 05 | " TUN_ITEMS},
    {"TunnelDelByte7Is7", CALL(L2VFIB_DelOverlayTunnel(fd, 7, &kTun2)), 20,
     "00 12 00 0c 00 00 07 07 | 00 46 00 08 81828384 85868788"},
    {"TunnelSwitch", CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, &kTun, &kTun2)), 0, TUN_DEL " " TUN_ADD2},
    {"EbgAdd", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 2)), 0,
     "00 20 00 18 00 00 05 08 | 00 9a 00 04 0000002a | 00 9c 00 04 00000001 | 00 9c 00 04 00000002"},
    {"EbgDelOne", CALL(L2VFIB_DelEBGMember(fd, 8, &kEbgKey, kEbg + 1, 1)), 24,
     "00 20 00 10 00 00 07 08 | 00 9a 00 04 0000002a | 00 9c 00 04 00000002"},
    {"EbgNone", CALL(l2vfib_SendEbgMemberEntry(fd, 0, 9, &kEbgKey, nullptr, 0)), 24,
     "00 20 00 08 00 00 09 00 | 00 9a 00 04 0000002a"},
    {"MplsEbgDel", CALL(L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, kMpls, 1)), 40,
     "00 23 00 20 00 00 07 08 | " MPLS_KEY " | 00 cc 00 0c 00000001 00000002 00000003"},
    {"MplsEbgNone", CALL(L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, nullptr, 0)), 40,
     "00 23 00 10 00 00 05 08 | " MPLS_KEY},
    {"DfAdd", CALL(L2VFIB_AddEBGDf(fd, 8, &kDf)), 28, "00 1f 00 14 00 00 05 08 | " DF_ITEM},
    {"DfDel", CALL(L2VFIB_DelEBGDf(fd, 8, &kDf)), 28, "00 1f 00 14 00 00 07 08 | " DF_ITEM},
};

class Queues : public OpenLibraryTest, public ::testing::WithParamInterface<QueuedRow> {};

// Queued in an empty batch, and behind the queue when exactly the bytes it
// needs are free; with one byte fewer the queue is sent first without
// blocking, and when that send fails nothing changes. Closed: NOT_OPEN.
TEST_P(Queues, ItsMessageWhereItFits) {
    const QueuedRow &row = GetParam();
    const Bytes message = Hex(row.message);
    l2vfib_Caps.fillWords22 = row.fill22;
    Leave(L2VFIB_BATCH_SIZE);
    ASSERT_EQ(row.call(fd_), L2VFIB_OK);
    EXPECT_EQ(ToHex(Queued()), ToHex(message));
    if (row.needed != 0) {
        Leave(row.needed);
        ASSERT_EQ(row.call(fd_), L2VFIB_OK);
        EXPECT_EQ(ToHex(Queued()), ToHex(Bytes(L2VFIB_BATCH_SIZE - row.needed, 0) + message));
        Leave(row.needed - 1);
        P().sendResults = {-EAGAIN};
        EXPECT_EQ(row.call(fd_), L2VFIB_ERR_FAIL);
        EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE + 1 - row.needed);
        EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
        ASSERT_EQ(row.call(fd_), L2VFIB_OK);
        ASSERT_EQ(P().sends.size(), 2u);
        EXPECT_EQ(P().sends[1].data, Bytes(L2VFIB_BATCH_SIZE + 1 - row.needed, 0));
        EXPECT_EQ(P().sends[1].flags, MSG_DONTWAIT);
        EXPECT_EQ(ToHex(Queued()), ToHex(message));
    }
    L2VFIB_Close(fd_);
    EXPECT_EQ(row.call(fd_), L2VFIB_ERR_NOT_OPEN);
}

INSTANTIATE_TEST_SUITE_P(Messages, Queues, ::testing::ValuesIn(kQueued),
                         [](const auto &info) { return info.param.name; });

using Entry = OpenLibraryTest;

// Null records and messages that cannot fit an empty batch are refused
// before any flush: with a full batch, a room check would have sent it.
TEST_F(Entry, RefusalsWriteAndSendNothing) {
    static uint8_t big[65535];
    const std::pair<Call, uint32_t> refusals[] = {
        {CALL(L2VFIB_AddPwEntry(fd, 0, nullptr, kBlock, 3)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddPwEntry(fd, 0, &kKey, nullptr, 3)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddPwEntry(fd, 0, &kKey, big, 1381)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddPwEntry(fd, 0, &kKey, big, 65535)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddMinMEntry(fd, 0, 5, &kKey, nullptr, 1)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddMinMEntry(fd, 0, 5, &kKey, big, 65516)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddAcEntry(fd, nullptr, &kInfo, nullptr)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddAcEntry(fd, &kKey, &kInfo, nullptr)), L2VFIB_ERR_FAIL},  // 53 words
        {CALL(L2VFIB_DelAcEntry(fd, nullptr)), L2VFIB_ERR_FAIL},
        {CALL(L2VFIB_AddOverlayTunnel(fd, 5, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_DelOverlayTunnel(fd, 5, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, nullptr, &kTun)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, &kTun, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 7, &kTun, &kTun2)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendEbgMemberEntry(fd, 8, 5, nullptr, kEbg, 1)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendMplsEbgMemberEntry(fd, 8, 5, &kMplsKey, nullptr, 1)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendEbgDfEntry(fd, 8, 5, nullptr)), L2VFIB_ERR_FAIL},
    };
    l2vfib_Caps.fillWords22 = 53;
    Leave(0);
    for (const auto &[call, result] : refusals) EXPECT_EQ(call(fd_), result);
    EXPECT_TRUE(P().trace.empty());
    EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE);
    // The largest block that fits an empty batch sends the queue first.
    EXPECT_EQ(L2VFIB_AddPwEntry(fd_, 0, &kKey, big, 1380), L2VFIB_OK);
    EXPECT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE);
}

// Each switch message asks for 136 free bytes: at 136 the delete goes behind
// the queue and the add starts the next batch (when its flush fails, the
// delete stays queued); at 135 both start the next batch (when that flush
// fails, the add is not tried).
TEST_F(Entry, SwitchKeepsTheDeleteFirstAcrossAFlush) {
    const Bytes del = Hex(TUN_DEL), add = Hex(TUN_ADD2), queue = Bytes(1264, 0);
    Leave(135);
    P().sendResults = {-EAGAIN};
    EXPECT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTun, &kTun2), L2VFIB_ERR_FAIL);
    EXPECT_EQ(P().sends.size(), 1u);
    Leave(136);
    P().sendResults = {-EAGAIN};
    EXPECT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTun, &kTun2), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), queue + del);
    Leave(136);
    ASSERT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTun, &kTun2), L2VFIB_OK);
    EXPECT_EQ(P().sends.size() == 1 ? P().sends[0].data : Bytes{}, queue + del);
    EXPECT_EQ(Queued(), add);
    Leave(135);
    ASSERT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTun, &kTun2), L2VFIB_OK);
    EXPECT_EQ(P().sends.size() == 1 ? P().sends[0].data : Bytes{}, Bytes(1265, 0));
    EXPECT_EQ(Queued(), del + add);
}

struct MemberRun {
    const char *name;
    Call call;
    size_t sends;      // full batches sent
    const char *head;  // the header of each
    size_t used;       // then left queued
    const char *last;  // the message left queued, when short enough to write
};
void PrintTo(const MemberRun &run, std::ostream *os) { *os << run.name; }

const MemberRun kRuns[] = {
    {"Ebg173", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 173)), 0, "", 1400, ""},
    {"Ebg174", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 174)), 1, "00 20 05 70 00 00 05 08",
     24, "00 20 00 10 00 00 05 08 | 00 9a 00 04 0000002a | 00 9c 00 04 000000ae"},
    {"Ebg65535", CALL(L2VFIB_DelEBGMember(fd, 3, &kEbgKey, kEbg, 0xFFFF)), 378,
     "00 20 05 70 00 00 07 03", 16 + 8 * 141, ""},
    {"MplsEbg86", CALL(L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, kMpls, 86)), 0, "", 1400, ""},
    {"MplsEbg87", CALL(L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, kMpls, 87)), 1,
     "00 23 05 70 00 00 07 08", 40,
     "00 23 00 20 00 00 07 08 | " MPLS_KEY " | 00 cc 00 0c 00000103 00000104 00000105"},
    {"MplsEbg65537", CALL(L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, kMpls, 0x10001)), 762,
     "00 23 05 70 00 00 07 08", 24 + 16 * 5, ""},
};

class Splits : public OpenLibraryTest, public ::testing::WithParamInterface<MemberRun> {};

// A failed flush part-way leaves the closed message queued.
TEST_P(Splits, MembersRunOverAsManyBatchesAsTheyNeed) {
    const MemberRun &run = GetParam();
    if (run.sends != 0) {
        P().sendResults = {-EAGAIN};
        EXPECT_EQ(run.call(fd_), L2VFIB_ERR_FAIL);
        EXPECT_EQ(ToHex(Queued(), 8), run.head);
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
        P().ClearRecords();
    }
    ASSERT_EQ(run.call(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), run.sends);
    for (const auto &send : P().sends)
        EXPECT_TRUE(ToHex(send.data, 8) == run.head && send.data.size() == L2VFIB_BATCH_SIZE);
    EXPECT_EQ(Used(), run.used);
    EXPECT_EQ(ToHex(Queued(), *run.last == 0 ? 0 : SIZE_MAX), ToHex(Hex(run.last)));
}

INSTANTIATE_TEST_SUITE_P(Members, Splits, ::testing::ValuesIn(kRuns),
                         [](const auto &info) { return info.param.name; });

// Sent at once and blocking on the caller's socket, library open or not:
// again after EINTR, and only a whole send succeeds. The tunnel
// interface's mode (kUnset: the platform leaves it as it was) picks the
// object type; other modes are refused without a send.
constexpr uint32_t kUnset = 0xFFFF;
struct AloneRow {
    const char *name;
    Call call;
    const char *message;  // "": refused
    uint32_t mode = 0;    // the tunnel interface's
    bool open = false;    // the library opened first
};
void PrintTo(const AloneRow &row, std::ostream *os) { *os << row.name; }

const uint32_t kWord = 0x01020304;
#define T14 "00 0e 00 08 00 00 0a 05 | 00 48 00 04 00000105"
#define T18 "00 12 00 08 00 00 0a 07 | 00 48 00 04 00000105"
#define TUNNEL_IF CALL(L2VFIB_SendTunnelIFDel(fd, 261))
const AloneRow kAlone[] = {
    {"GrFlag0", CALL(L2VFIB_SendGrEvent(fd, 0)), "00 07 00 00 00 00 03 08"},
    {"GrFlag1", CALL(L2VFIB_SendGrEvent(fd, 1)), "00 07 00 00 00 00 04 08"},
    {"GrFlagAllOnes", CALL(L2VFIB_SendGrEvent(fd, 0xFFFFFFFFu)), "00 07 00 00 00 00 04 08"},
    {"AcFlag1", CALL(L2VFIB_SetAcFlagClear(fd, 1)), "00 10 00 04 00 03 11 00 00000000 | 00 0d 00 00"},
    {"AcFlag0", CALL(L2VFIB_SetAcFlagClear(fd, 0)), "00 10 00 04 00 03 10 00 00000000 | 00 0d 00 00"},
    {"AcFlag2", CALL(L2VFIB_SetAcFlagClear(fd, 2)), "00 10 00 04 00 03 10 00 00000000 | 00 0d 00 00"},
    {"AcFlagMinus1", CALL(L2VFIB_SetAcFlagClear(fd, -1)),
     "00 10 00 04 00 03 10 00 00000000 | 00 0d 00 00"},
    {"TunnelIfMode28", TUNNEL_IF, T18, 28}, {"TunnelIfMode29", TUNNEL_IF, T18, 29},
    {"TunnelIfMode24", TUNNEL_IF, T14, 24}, {"TunnelIfMode25", TUNNEL_IF, T14, 25},
    {"TunnelIfMode33", TUNNEL_IF, T14, 33}, {"TunnelIfMode34", TUNNEL_IF, T14, 34},
    {"TunnelIfMode26", TUNNEL_IF, "", 26}, {"TunnelIfModeUnset", TUNNEL_IF, "", kUnset},
    {"Cfg21", CALL(L2VFIB_Send_Cfg(fd, 21, 0, &kWord, nullptr)),
     "00 01 00 08 00 00 17 08 | 00 20 00 04 01 02 03 04", 0, true},
};

class Alone : public LibraryTest, public ::testing::WithParamInterface<AloneRow> {};

TEST_P(Alone, GoesAtOnceOnTheCallersSocket) {
    const AloneRow &row = GetParam();
    const int32_t fd = row.open ? (fd_ = L2VFIB_Open(nullptr)) : 7;
    P().ClearRecords();
    P().tunnelMode = row.mode;
    P().tunnelModeUntouched = row.mode == kUnset;
    P().sendResults = {-EINTR};
    const std::string message = ToHex(Hex(row.message));
    EXPECT_EQ(row.call(fd), message.empty() ? L2VFIB_ERR_FAIL : L2VFIB_OK);
    EXPECT_EQ(P().tunnelQueries, (row.mode == 0 ? std::vector<uint32_t>{} : std::vector{261u}));
    std::vector<std::string> sent;
    for (const auto &s : P().sends)
        sent.push_back(ToHex(s.data) + (s.fd == fd && s.flags == 0 ? "" : " elsewhere"));
    EXPECT_EQ(sent, message.empty() ? Trace{} : (Trace{message, message}));
    if (message.empty()) return;
    P().sendResults = {static_cast<long>(Hex(row.message).size()) - 1, -EIO};
    EXPECT_EQ(row.call(fd), L2VFIB_ERR_FAIL);
    EXPECT_EQ(row.call(fd), L2VFIB_ERR_FAIL);
    EXPECT_EQ(P().sends.size(), 4u);
}

INSTANTIATE_TEST_SUITE_P(Messages, Alone, ::testing::ValuesIn(kAlone),
                         [](const auto &info) { return info.param.name; });

// Attribute blocks: what each encoder writes in the least room it takes
// (the largest block's for a pseudowire, the block's own for MAC-in-MAC),
// refused a byte less; and its bounds. A refusal writes nothing.
const L2VFIB_LpwSubEntry kSubs[2] = {
    {0xC0C1C2C3u, 0xC4C5C6C7u, 0xC8C9CACBu, 0xCCCD, 0xCE, 0xCF, 0xD0D1, 0xD2D3, 0xD4D5D6D7u},
    {0xE0E1E2E3u, 0xE4E5E6E7u, 0xE8E9EAEBu, 0xECED, 0xEE, 0xEF, 0xF0F1, 0xF2F3, 0xF4F5F6F7u}};
const L2VFIB_MinMMember kMembers[22] = {
    {1, {0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68}},
    {0x8A8B8C8Du, {0x71, 0x72, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78}}};
const L2VFIB_MinMMember kExtra = {0x9A9B9C9Du, {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8}};
#define LPWV "01 02 03 04 05 06 07 08 81 82 83 84 85 86 87 88 91 92 93 94 a1 a2 a3 a4 a5 a6 b1 00"
#define LPW "00 0d 00 1c " LPWV
#define SUB0 "c0 c1 c2 c3 c4 c5 c6 c7 c8 c9 ca cb cc cd ce cf d0 d1 d2 d3 d4 d5 d6 d7"
#define SUB1 "e0 e1 e2 e3 e4 e5 e6 e7 e8 e9 ea eb ec ed ee ef f0 f1 f2 f3 f4 f5 f6 f7"
#define MINM                                                                                       \
    "00 29 00 40 01 02 03 04 05 06 07 08 09 0a 0b 0c 00 00 00 02 11 12 13 14 20 21 22 23 24 25 "   \
    "26 27 28 29 2a 2b 2c 2d 2e 2f 30 31 00 00 40 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f "   \
    "50 51 52 53 54 55 56 57 | 00 2a 00 18 00 00 00 01 61 62 63 64 65 66 67 68 8a 8b 8c 8d 71 72 " \
    "73 74 75 76 77 78"

struct BlockRow {
    bool minm;
    uint8_t fill13;     // pseudowire: fillWords13; MAC-in-MAC: memberCount
    int parts;          // pseudowire: 1 sub[0], 2 sub[1]; MAC-in-MAC: 1 members, 2 extra
    uint32_t room;      // the least room that takes it
    uint32_t length;    // 0: refused in any room
    const char *block;  // null: only the length is checked
};
const BlockRow kBlocks[] = {
    {false, 0, 0, 84, 32, LPW},
    {false, 3, 0, 96, 44, "00 0d 00 28 " LPWV " ff*12"},
    {false, 0, 2, 84, 60, LPW " | 00 0c 00 18 " SUB1},
    {false, 0, 3, 84, 84, LPW " | 00 0c 00 30 " SUB0 SUB1},
    {false, 57, 3, 312, 312, nullptr},
    {false, 58, 0, 4000, 0, ""},
    {true, 2, 1, 96, 96, MINM},
    {true, 2, 3, 112, 112, MINM " | 00 2b 00 0c 9a 9b 9c 9d a1 a2 a3 a4 a5 a6 a7 a8"},
    {true, 0, 1, 4000, 0, ""},
    {true, 2, 0, 4000, 0, ""},
    {true, 21, 1, 324, 324, nullptr},
    {true, 22, 1, 4000, 0, ""},
};

TEST(Blocks, EncodersWriteTheirItemsWithinTheirRoomOnly) {
    L2VFIB_LpwEntry lpw = {{0x0102030405060708u, 0x8182838485868788u}, 0x91929394u,
                           {0xA1A2, 0xA3A4, 0xA5A6}, 0xB1, {}};
    L2VFIB_MinMEntry minm = {0x01020304u, 0x05060708u, 0x090A0B0Cu, 0, 0x11121314u, {}, {}, {}, {}};
    for (int i = 0; i < 18; ++i) minm.macAddr[i / 6][i % 6] = static_cast<uint8_t>(0x20 + i);
    for (int i = 0; i < 24; ++i)
        reinterpret_cast<uint8_t *>(minm.opaque)[i] = static_cast<uint8_t>(0x40 + i);
    for (const BlockRow &row : kBlocks) {
        SCOPED_TRACE(testing::Message() << (row.minm ? "minm " : "lpw ") << int(row.fill13));
        if (row.minm) {
            minm.memberCount = row.fill13;
            minm.members = row.parts & 1 ? kMembers : nullptr;
            minm.extra = row.parts & 2 ? &kExtra : nullptr;
        } else {
            l2vfib_Caps.fillWords13 = row.fill13;
            lpw.sub[0] = row.parts & 1 ? &kSubs[0] : nullptr;
            lpw.sub[1] = row.parts & 2 ? &kSubs[1] : nullptr;
        }
        for (uint32_t room : {row.room - 1, row.room}) {
            Bytes out = Canary(row.room + 8);
            const uint32_t n = row.minm ? L2VFIB_EncMinMEntry(&minm, room, out.data())
                                        : L2VFIB_EncLpwEntry(&lpw, room, out.data());
            EXPECT_EQ(n, room == row.room ? row.length : 0) << "room " << room;
            const Bytes block = n == 0      ? Bytes{}
                                : row.block ? Hex(row.block)
                                            : Bytes(out.begin(), out.begin() + n);
            EXPECT_EQ(ToHex(out), ToHex(block + Canary(out.size() - block.size())))
                << "room " << room;
        }
    }
    l2vfib_Caps = {};
    uint8_t out[512];
    EXPECT_EQ(L2VFIB_EncLpwEntry(nullptr, sizeof out, out) +
                  L2VFIB_EncLpwEntry(&lpw, sizeof out, nullptr) +
                  L2VFIB_EncMinMEntry(nullptr, sizeof out, out) +
                  L2VFIB_EncMinMEntry(&minm, sizeof out, nullptr),
              0u);
}

// The reset goes to every node that is up, in list order, whatever the
// calls answer, library open or not; the list is released (the sanitizer
// build sees a leak).
using Closed = LibraryTest;
TEST_F(Closed, MacResetReachesEveryNodeThatIsUp) {
    const Bytes msg = Hex("00 0a 00 08 00 00 01 08 | 00 22 00 04 00 00 01 02");
    const uint32_t value = 258;
    P().nodes = {{5, 0x8001, 3}}, P().upNodes = {3, 5, 9}, P().asyncResult = L2VFIB_ERR_FAIL;
    EXPECT_EQ(L2VFIB_ResetMacAddr(&value), L2VFIB_OK);
    EXPECT_EQ(P().upQueries, (std::vector<uint32_t>{5, 0x8001, 3}));
    ASSERT_EQ(P().controls.size(), 2u);
    EXPECT_EQ(Fields(P().controls[0]), Fields({true, 5, 0x440003, msg, 0, false, false}));
    EXPECT_EQ(Fields(P().controls[1]), Fields({true, 3, 0x440003, msg, 0, false, false}));
    fake::Reset();  // no node list
    EXPECT_EQ(L2VFIB_ResetMacAddr(&value), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_ResetMacAddr(nullptr), L2VFIB_ERR_FAIL);
    EXPECT_EQ(P().nodeQueries, 1);
    EXPECT_TRUE(P().controls.empty());
}

// Marks accumulate, types 8 and above mark all eight, the value is replaced.
TEST(TypeSelect, MarksAccumulate) {
    L2VFIB_TypeSelect select = {0, 0x00ABCDEF};
    std::vector<uint32_t> seen;
    for (uint32_t type : {0u, 3u, 7u, 8u}) {
        L2VFIB_SelectType_Set(type + 10, type, &select);
        seen.insert(seen.end(), {select.value, select.typeMask});
    }
    EXPECT_EQ(seen, (std::vector<uint32_t>{10, 0x80ABCDEF, 13, 0x90ABCDEF, 17, 0x91ABCDEF, 18,
                                           0xFFABCDEF}));
    L2VFIB_SelectType_Set(1, 0xFFFFFFFFu, nullptr);
}

}  // namespace
