// Overlay tunnels, EBG member lists and designated forwarders: each message
// byte for byte, the room it asks for at an exact fit and one byte short,
// member runs split across batches, and refusals that leave the queue alone.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <numeric>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// The second tunnel has every top bit set: a sign extension or a swapped
// byte shows.
const L2VFIB_OverlayTunnelEntry kTun = {{1, 2}, {3, 4, 5, 6}}, kTun2 = {
    {0x81828384u, 0x85868788u}, {0x91929394u, 0xA1A2A3A4u, 0xB1B2B3B4u, 0xC1C2C3C4u}};
const std::string kFf32 = "ffffffffffffffff ffffffffffffffff ffffffffffffffff ffffffffffffffff";
const std::string kTunItems =
    "00 46 00 08 00000001 00000002 | 00 47 00 30 00000003 00000004 00000005 00000006 " + kFf32;
const std::string kDel = "00 0e 00 40 00 00 07 05 | " + kTunItems;
const std::string kAdd2 = "00 0e 00 40 00 00 05 05 | 00 46 00 08 81828384 85868788 "
                          "| 00 47 00 30 91929394 a1a2a3a4 b1b2b3b4 c1c2c3c4 " + kFf32;
const L2VFIB_EbgKey kEbgKey = {42};
const L2VFIB_MplsEbgKey kMplsKey = {10, 20};
const std::string kMplsKeyItem = "00 ca 00 0c 0000000a 00000014 ffffffff";
const L2VFIB_EbgDfEntry kDf = {1, 2, 3, 4};
const std::string kDfItem = "00 99 00 10 00000001 00000002 00000003 00000004";

// The words 1, 2, 3, ...: EBG member i is i + 1, MPLS EBG member i holds
// 3i + 1 to 3i + 3.
const std::vector<uint32_t> kWords = [] {
    std::vector<uint32_t> w(3 * 0x10001);
    std::iota(w.begin(), w.end(), 1u);
    return w;
}();
const uint32_t *const kEbg = kWords.data();
const auto *const kMpls = reinterpret_cast<const L2VFIB_MplsEbgMember *>(kWords.data());

using Call = std::function<uint32_t(int)>;
#define CALL(...) [](int fd) { return __VA_ARGS__; }

struct Row {
    const char *name;
    Call call;
    size_t needed;  // the free bytes it asks for; 0: not tested here
    std::string message;
};
void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

const Row kRows[] = {
    {"TunnelAdd", CALL(L2VFIB_AddOverlayTunnel(fd, 5, &kTun)), 72,
     "00 0e 00 40 00 00 05 05 | " + kTunItems},
    {"TunnelAddByte7Low8Bits", CALL(L2VFIB_AddOverlayTunnel(fd, 0x108, &kTun)), 72,
     "00 0e 00 40 00 00 05 08 | " + kTunItems},
    {"TunnelDelByte7Is7", CALL(L2VFIB_DelOverlayTunnel(fd, 7, &kTun2)), 20,
     "00 12 00 0c 00 00 07 07 | 00 46 00 08 81828384 85868788"},
    {"TunnelSwitch", CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, &kTun, &kTun2)), 0, kDel + kAdd2},
    {"EbgAdd", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 2)), 0,
     "00 20 00 18 00 00 05 08 | 00 9a 00 04 0000002a | 00 9c 00 04 00000001 | 00 9c 00 04 00000002"},
    {"EbgDelOne", CALL(L2VFIB_DelEBGMember(fd, 8, &kEbgKey, kEbg + 1, 1)), 24,
     "00 20 00 10 00 00 07 08 | 00 9a 00 04 0000002a | 00 9c 00 04 00000002"},
    {"EbgNone", CALL(l2vfib_SendEbgMemberEntry(fd, 0, 9, &kEbgKey, nullptr, 0)), 24,
     "00 20 00 08 00 00 09 00 | 00 9a 00 04 0000002a"},
    {"MplsEbgDel", CALL(L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, kMpls, 1)), 40,
     "00 23 00 20 00 00 07 08 | " + kMplsKeyItem + " | 00 cc 00 0c 00000001 00000002 00000003"},
    {"MplsEbgNone", CALL(L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, nullptr, 0)), 40,
     "00 23 00 10 00 00 05 08 | " + kMplsKeyItem},
    {"DfAdd", CALL(L2VFIB_AddEBGDf(fd, 8, &kDf)), 28, "00 1f 00 14 00 00 05 08 | " + kDfItem},
    {"DfDel", CALL(L2VFIB_DelEBGDf(fd, 8, &kDf)), 28, "00 1f 00 14 00 00 07 08 | " + kDfItem},
};

using Overlay = OpenLibraryTest;
class Queues : public Overlay, public ::testing::WithParamInterface<Row> {};

TEST_P(Queues, ItsMessageWhereItFits) {
    ExpectQueued(GetParam().call, Hex(GetParam().message), GetParam().needed);
}

INSTANTIATE_TEST_SUITE_P(Messages, Queues, ::testing::ValuesIn(kRows),
                         [](const auto &info) { return info.param.name; });

// With a full batch, so that a room check would send it.
TEST_F(Overlay, RefusalsWriteAndSendNothing) {
    const std::pair<Call, uint32_t> refusals[] = {
        {CALL(L2VFIB_AddOverlayTunnel(fd, 5, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_DelOverlayTunnel(fd, 5, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, nullptr, &kTun)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 5, &kTun, nullptr)), L2VFIB_ERR_NOT_OPEN},
        {CALL(L2VFIB_SwitchOverlayTunnel(fd, 7, &kTun, &kTun2)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendEbgMemberEntry(fd, 8, 5, nullptr, kEbg, 1)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendMplsEbgMemberEntry(fd, 8, 5, &kMplsKey, nullptr, 1)), L2VFIB_ERR_FAIL},
        {CALL(l2vfib_SendEbgDfEntry(fd, 8, 5, nullptr)), L2VFIB_ERR_FAIL},
    };
    Leave(0);
    for (const auto &[call, result] : refusals) EXPECT_EQ(call(fd_), result);
    EXPECT_TRUE(P().trace.empty());
    EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE);
}

// Each switch message asks for 136 free bytes: at 136 the delete goes behind
// the queue and the add starts the next batch (when its flush fails, the
// delete stays queued); at 135 both start the next batch (when that flush
// fails, the add is not tried).
TEST_F(Overlay, SwitchKeepsTheDeleteFirstAcrossAFlush) {
    const Bytes del = Hex(kDel), add = Hex(kAdd2), queue = Bytes(1264, 0);
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
    std::string head;  // the header of each
    size_t used;       // then left queued
    std::string last;  // the message left queued, when short enough to write
};
void PrintTo(const MemberRun &run, std::ostream *os) { *os << run.name; }

const MemberRun kRuns[] = {
    {"Ebg173", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 173)), 0, "", 1400, ""},
    {"Ebg174", CALL(L2VFIB_AddEBGMember(fd, 8, &kEbgKey, kEbg, 174)), 1, "00 20 05 70 00 00 05 08",
     24, "00 20 00 10 00 00 05 08 | 00 9a 00 04 0000002a | 00 9c 00 04 000000ae"},
    {"Ebg65535", CALL(L2VFIB_DelEBGMember(fd, 3, &kEbgKey, kEbg, 0xFFFF)), 378,
     "00 20 05 70 00 00 07 03", 16 + 8 * 141, ""},
    {"MplsEbg86", CALL(L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, kMpls, 86)), 0, "", 1400,
     ""},
    {"MplsEbg87", CALL(L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, kMpls, 87)), 1,
     "00 23 05 70 00 00 07 08", 40,
     "00 23 00 20 00 00 07 08 | " + kMplsKeyItem + " | 00 cc 00 0c 00000103 00000104 00000105"},
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
    EXPECT_EQ(ToHex(Queued(), run.last.empty() ? 0 : SIZE_MAX), ToHex(Hex(run.last)));
}

INSTANTIATE_TEST_SUITE_P(Members, Splits, ::testing::ValuesIn(kRuns),
                         [](const auto &info) { return info.param.name; });

// Sent at once, library open or not; the mode picks the object type.
using TunnelInterface = LibraryTest;
TEST_F(TunnelInterface, DeletionGoesAtOnceByMode) {
    const std::string t14 = "00 0e 00 08 00 00 0a 05 | 00 48 00 04 00000105",
                      t18 = "00 12 00 08 00 00 0a 07 | 00 48 00 04 00000105";
    const std::pair<uint32_t, std::string> modes[] = {
        {28, t18}, {29, t18}, {24, t14}, {25, t14}, {33, t14}, {34, t14}, {37, ""}, {26, ""}};
    for (const auto &[mode, message] : modes) {
        fake::Reset();
        P().tunnelMode = mode;
        EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), message.empty() ? L2VFIB_ERR_FAIL : L2VFIB_OK);
        EXPECT_EQ(P().tunnelQueries, std::vector<uint32_t>{261});
        const Bytes sent = P().sends.empty() ? Bytes{} : P().sends[0].data;
        EXPECT_EQ(ToHex(sent), ToHex(Hex(message))) << mode;
        EXPECT_TRUE(P().sends.empty() || (P().sends[0].fd == 7 && P().sends[0].flags == 0));
    }
    P().tunnelModeUntouched = true;  // the preset mode stays: refused
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_ERR_FAIL);
    // An interrupted send is sent again; any other failure is final.
    P().tunnelModeUntouched = false;
    P().tunnelMode = 33;
    P().sendResults = {-EINTR, -EIO, -EINTR};
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_OK);
    EXPECT_EQ(P().sends.size(), 4u);
}

}  // namespace
