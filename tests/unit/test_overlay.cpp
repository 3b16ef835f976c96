// Overlay tunnels, EBG member lists and designated forwarders: each message
// byte for byte, the room each asks for at an exact fit and one byte short,
// member runs split over as many batches as they need, and every refusal
// leaving the queue as it was.
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

std::string Ff(int n) { return n == 0 ? "" : "ff " + Ff(n - 1); }

// The second entry has every top bit set, so a sign extension or a swapped
// byte shows.
const L2VFIB_OverlayTunnelEntry kTunnel = {{1, 2}, {3, 4, 5, 6}};
const L2VFIB_OverlayTunnelEntry kTunnel2 = {
    {0x81828384u, 0x85868788u}, {0x91929394u, 0xA1A2A3A4u, 0xB1B2B3B4u, 0xC1C2C3C4u}};
const std::string kTunnelItems =
    "00 46 00 08 00 00 00 01 00 00 00 02 | 00 47 00 30 00 00 00 03 00 00 00 04 00 00 00 05 "
    "00 00 00 06 " + Ff(32);
const std::string kTunnel2Items =
    "00 46 00 08 81 82 83 84 85 86 87 88 | 00 47 00 30 91 92 93 94 a1 a2 a3 a4 b1 b2 b3 b4 "
    "c1 c2 c3 c4 " + Ff(32);
const L2VFIB_EbgKey kEbgKey = {42};
const L2VFIB_MplsEbgKey kMplsKey = {10, 20};
const L2VFIB_EbgDfEntry kDf = {1, 2, 3, 4};
const L2VFIB_MplsEbgMember kMplsMember = {1, 2, 3};

// Member i is i + 1 (each word of an MPLS EBG member).
const std::vector<uint32_t> kEbgMembers = [] {
    std::vector<uint32_t> m(0x10000);
    for (uint32_t i = 0; i < m.size(); ++i) m[i] = i + 1;
    return m;
}();
const std::vector<L2VFIB_MplsEbgMember> kMplsMembers = [] {
    std::vector<L2VFIB_MplsEbgMember> m(0x10001);
    for (uint32_t i = 0; i < m.size(); ++i) m[i] = {i + 1, i + 1, i + 1};
    return m;
}();
const uint32_t *Ebg() { return kEbgMembers.data(); }
const L2VFIB_MplsEbgMember *Mpls() { return kMplsMembers.data(); }

using Call = std::function<uint32_t(int)>;

struct Row {
    const char *name;
    Call call;
    uint32_t needed;  // the free bytes it asks for; 0: not tested
    std::string message;
};

const Row kRows[] = {
    {"TunnelAdd", [](int fd) { return L2VFIB_AddOverlayTunnel(fd, 5, &kTunnel); }, 72,
     "00 0e 00 40 00 00 05 05 | " + kTunnelItems},
    {"TunnelAddByte7Low8Bits", [](int fd) { return L2VFIB_AddOverlayTunnel(fd, 0x108, &kTunnel); },
     72, "00 0e 00 40 00 00 05 08 | " + kTunnelItems},
    {"TunnelDelByte7Is7", [](int fd) { return L2VFIB_DelOverlayTunnel(fd, 7, &kTunnel2); }, 20,
     "00 12 00 0c 00 00 07 07 | 00 46 00 08 81 82 83 84 85 86 87 88"},
    {"TunnelSwitch", [](int fd) { return L2VFIB_SwitchOverlayTunnel(fd, 5, &kTunnel, &kTunnel2); },
     0, "00 0e 00 40 00 00 07 05 | " + kTunnelItems + "00 0e 00 40 00 00 05 05 | " + kTunnel2Items},
    {"EbgAdd", [](int fd) { return L2VFIB_AddEBGMember(fd, 8, &kEbgKey, Ebg(), 2); }, 0,
     "00 20 00 18 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 01 "
     "| 00 9c 00 04 00 00 00 02"},
    {"EbgDelOne", [](int fd) { return L2VFIB_DelEBGMember(fd, 8, &kEbgKey, Ebg() + 1, 1); }, 24,
     "00 20 00 10 00 00 07 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 02"},
    {"EbgNone", [](int fd) { return l2vfib_SendEbgMemberEntry(fd, 0, 9, &kEbgKey, nullptr, 0); },
     24, "00 20 00 08 00 00 09 00 | 00 9a 00 04 00 00 00 2a"},
    {"MplsEbgDel", [](int fd) { return L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, &kMplsMember, 1); },
     40, "00 23 00 20 00 00 07 08 | 00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff "
         "| 00 cc 00 0c 00 00 00 01 00 00 00 02 00 00 00 03"},
    {"MplsEbgNone", [](int fd) { return L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, nullptr, 0); },
     40, "00 23 00 10 00 00 05 08 | 00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff"},
    {"DfAdd", [](int fd) { return L2VFIB_AddEBGDf(fd, 8, &kDf); }, 28,
     "00 1f 00 14 00 00 05 08 | 00 99 00 10 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04"},
    {"DfDel", [](int fd) { return L2VFIB_DelEBGDf(fd, 8, &kDf); }, 28,
     "00 1f 00 14 00 00 07 08 | 00 99 00 10 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04"},
};

void PrintTo(const Row &row, std::ostream *os) { *os << row.name; }

class Overlay : public OpenLibraryTest {
  protected:
    // Empties the batch, then queues zeros until free bytes are left.
    void Leave(uint32_t free) {
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
        P().ClearRecords();
        l2vfib_Batch->used = static_cast<uint16_t>(L2VFIB_BATCH_SIZE - free);
    }
};

class Queues : public LibraryTest, public ::testing::WithParamInterface<Row> {};

TEST_P(Queues, ItsMessageWhereItFits) {
    const Row &row = GetParam();
    const Bytes message = Hex(row.message);
    EXPECT_EQ(row.call(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_TRUE(P().trace.empty());
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_GE(fd_, 0);
    ASSERT_EQ(row.call(fd_), L2VFIB_OK);
    EXPECT_EQ(ToHex(Queued()), ToHex(message));
    if (row.needed == 0) return;

    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    const size_t fit = L2VFIB_BATCH_SIZE - row.needed;
    l2vfib_Batch->used = static_cast<uint16_t>(fit);
    P().ClearRecords();
    ASSERT_EQ(row.call(fd_), L2VFIB_OK);
    EXPECT_TRUE(P().sends.empty());
    const Bytes queued = Queued();
    EXPECT_EQ(ToHex(Bytes(queued.begin() + fit, queued.end())), ToHex(message));

    // One byte short: the queue goes first, and a failed send changes nothing.
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    l2vfib_Batch->used = static_cast<uint16_t>(fit + 1);
    P().ClearRecords();
    P().sendResults = {-EAGAIN};
    EXPECT_EQ(row.call(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Used(), fit + 1);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
    ASSERT_EQ(row.call(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 2u);
    EXPECT_EQ(P().sends[1].data, Bytes(fit + 1, 0));
    EXPECT_EQ(P().sends[1].flags, MSG_DONTWAIT);
    EXPECT_EQ(ToHex(Queued()), ToHex(message));
}

INSTANTIATE_TEST_SUITE_P(Messages, Queues, ::testing::ValuesIn(kRows),
                         [](const auto &info) { return info.param.name; });

// With a full batch, so that any room check would send it.
TEST_F(Overlay, RefusalsWriteAndSendNothing) {
    const std::pair<Call, uint32_t> refusals[] = {
        {[](int fd) { return L2VFIB_AddOverlayTunnel(fd, 5, nullptr); }, L2VFIB_ERR_NOT_OPEN},
        {[](int fd) { return L2VFIB_DelOverlayTunnel(fd, 5, nullptr); }, L2VFIB_ERR_NOT_OPEN},
        {[](int fd) { return L2VFIB_SwitchOverlayTunnel(fd, 5, nullptr, &kTunnel); },
         L2VFIB_ERR_NOT_OPEN},
        {[](int fd) { return L2VFIB_SwitchOverlayTunnel(fd, 5, &kTunnel, nullptr); },
         L2VFIB_ERR_NOT_OPEN},
        {[](int fd) { return L2VFIB_SwitchOverlayTunnel(fd, 7, &kTunnel, &kTunnel2); },
         L2VFIB_ERR_FAIL},
        {[](int fd) { return l2vfib_SendEbgMemberEntry(fd, 8, 5, nullptr, Ebg(), 1); },
         L2VFIB_ERR_FAIL},
        {[](int fd) { return L2VFIB_AddEBGMember(fd, 8, &kEbgKey, nullptr, 1); }, L2VFIB_ERR_FAIL},
        {[](int fd) { return L2VFIB_DelMplsEBGMember(fd, 8, nullptr, Mpls(), 1); }, L2VFIB_ERR_FAIL},
        {[](int fd) { return l2vfib_SendMplsEbgMemberEntry(fd, 8, 5, &kMplsKey, nullptr, 1); },
         L2VFIB_ERR_FAIL},
        {[](int fd) { return l2vfib_SendEbgDfEntry(fd, 8, 5, nullptr); }, L2VFIB_ERR_FAIL},
    };
    Leave(0);
    for (const auto &[call, result] : refusals) EXPECT_EQ(call(fd_), result);
    EXPECT_TRUE(P().trace.empty());
    EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE);
}

// Each switch message asks for 136 free bytes: at 136 the delete goes behind
// the queue and the add starts the next batch; at 135 both do.
TEST_F(Overlay, SwitchKeepsTheDeleteFirstAcrossAFlush) {
    const Bytes del = Hex("00 0e 00 40 00 00 07 05 | " + kTunnelItems);
    const Bytes add = Hex("00 0e 00 40 00 00 05 05 | " + kTunnel2Items);
    Leave(136);
    P().sendResults = {-EAGAIN};
    EXPECT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTunnel, &kTunnel2), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), Bytes(1264, 0) + del);

    Leave(136);
    ASSERT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTunnel, &kTunnel2), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].data, Bytes(1264, 0) + del);
    EXPECT_EQ(Queued(), add);
    Leave(135);
    ASSERT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &kTunnel, &kTunnel2), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].data, Bytes(1265, 0));
    EXPECT_EQ(Queued(), del + add);
}

struct MemberRun {
    const char *name;
    Call call;
    uint32_t count, perMessage;
    std::string head;  // object type, tag, opcode, byte 7 of every message
    std::string key;   // the key item every message opens with
    std::string last;  // the last message, when it is short enough to write
};

const MemberRun kRuns[] = {
    {"Ebg173", [](int fd) { return L2VFIB_AddEBGMember(fd, 8, &kEbgKey, Ebg(), 173); }, 173, 173,
     "00 20 00 00 05 08", "00 9a 00 04 00 00 00 2a", ""},
    {"Ebg174", [](int fd) { return L2VFIB_AddEBGMember(fd, 8, &kEbgKey, Ebg(), 174); }, 174, 173,
     "00 20 00 00 05 08", "00 9a 00 04 00 00 00 2a",
     "00 20 00 10 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 ae"},
    {"Ebg65535", [](int fd) { return L2VFIB_DelEBGMember(fd, 3, &kEbgKey, Ebg(), 0xFFFF); },
     0xFFFF, 173, "00 20 00 00 07 03", "00 9a 00 04 00 00 00 2a", ""},
    {"MplsEbg86", [](int fd) { return L2VFIB_AddMplsEBGMember(fd, 8, &kMplsKey, Mpls(), 86); }, 86,
     86, "00 23 00 00 05 08", "00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff", ""},
    {"MplsEbg87", [](int fd) { return L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, Mpls(), 87); }, 87,
     86, "00 23 00 00 07 08", "00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff",
     "00 23 00 20 00 00 07 08 | 00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff "
     "| 00 cc 00 0c 00 00 00 57 00 00 00 57 00 00 00 57"},
    {"MplsEbgAdd65535",
     [](int fd) { return L2VFIB_AddMplsEBGMember(fd, 1, &kMplsKey, Mpls(), 0xFFFF); }, 0xFFFF, 86,
     "00 23 00 00 05 01", "00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff", ""},
    {"MplsEbgDel65537",
     [](int fd) { return L2VFIB_DelMplsEBGMember(fd, 8, &kMplsKey, Mpls(), 0x10001); }, 0x10001,
     86, "00 23 00 00 07 08", "00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff", ""},
};

void PrintTo(const MemberRun &run, std::ostream *os) { *os << run.name; }

class Splits : public OpenLibraryTest, public ::testing::WithParamInterface<MemberRun> {
  protected:
    // Walks the messages sent and queued: each must carry the run's header
    // fields and key item, and the members must follow on in order from
    // member 1 (each item ends in the member's number). Returns the number
    // of members of each message. In both families a member item is as long
    // as the key item.
    std::vector<size_t> Walk() {
        const MemberRun &run = GetParam();
        const Bytes head = Hex(run.head), key = Hex(run.key);
        std::vector<Bytes> datagrams;
        for (const auto &send : P().sends) datagrams.push_back(send.data);
        datagrams.push_back(Queued());
        std::vector<size_t> counts;
        uint32_t next = 1;
        for (const Bytes &d : datagrams) {
            for (size_t at = 0; at + 8 <= d.size();) {
                const auto *m = d.data() + at;
                const size_t length = 8u + (m[2] << 8 | m[3]), item = key.size();
                if (length < 8 + item || at + length > d.size()) {
                    ADD_FAILURE() << "bad message length " << length << " at " << at;
                    return counts;
                }
                EXPECT_EQ(Bytes({m[0], m[1], m[4], m[5], m[6], m[7]}), head);
                EXPECT_EQ(Bytes(m + 8, m + 8 + item), key);
                const size_t n = (length - 8 - item) / item;
                for (size_t i = 0; i < n; ++i, ++next) {
                    const uint8_t *w = m + 8 + item * (i + 2) - 4;
                    EXPECT_EQ(uint32_t{w[0]} << 24 | w[1] << 16 | w[2] << 8 | w[3], next);
                }
                counts.push_back(n);
                at += length;
            }
        }
        return counts;
    }
};

TEST_P(Splits, MembersRunOverAsManyMessagesAsTheyNeed) {
    const MemberRun &run = GetParam();
    if (run.count > run.perMessage) {
        // A failed flush part-way keeps the closed message queued.
        P().sendResults = {-EAGAIN};
        EXPECT_EQ(run.call(fd_), L2VFIB_ERR_FAIL);
        P().ClearRecords();
        EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE);
        EXPECT_EQ(Walk(), std::vector<size_t>(1, run.perMessage));
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
        P().ClearRecords();
    }
    ASSERT_EQ(run.call(fd_), L2VFIB_OK);
    std::vector<size_t> counts(run.count / run.perMessage, run.perMessage);
    if (run.count % run.perMessage != 0) counts.push_back(run.count % run.perMessage);
    EXPECT_EQ(Walk(), counts);
    for (const auto &send : P().sends) EXPECT_EQ(send.data.size(), L2VFIB_BATCH_SIZE);
    if (!run.last.empty()) {
        EXPECT_EQ(ToHex(Queued()), ToHex(Hex(run.last)));
    }
}

INSTANTIATE_TEST_SUITE_P(Members, Splits, ::testing::ValuesIn(kRuns),
                         [](const auto &info) { return info.param.name; });

// Sent at once, open library or not; the mode picks the object type.
using TunnelInterface = LibraryTest;
TEST_F(TunnelInterface, DeletionGoesAtOnceByMode) {
    const std::string item = " | 00 48 00 04 00 00 01 05";
    const std::pair<uint32_t, std::string> modes[] = {
        {28, "00 12 00 08 00 00 0a 07" + item}, {29, "00 12 00 08 00 00 0a 07" + item},
        {24, "00 0e 00 08 00 00 0a 05" + item}, {25, "00 0e 00 08 00 00 0a 05" + item},
        {33, "00 0e 00 08 00 00 0a 05" + item}, {34, "00 0e 00 08 00 00 0a 05" + item},
        {37, ""}, {26, ""}, {0, ""}};
    for (const auto &[mode, message] : modes) {
        fake::Reset();
        P().tunnelMode = mode;
        EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), message.empty() ? L2VFIB_ERR_FAIL : L2VFIB_OK);
        EXPECT_EQ(P().tunnelQueries, std::vector<uint32_t>{261});
        ASSERT_EQ(P().sends.size(), message.empty() ? 0u : 1u) << mode;
        if (!message.empty()) {
            EXPECT_EQ(ToHex(P().sends[0].data), ToHex(Hex(message)));
            EXPECT_TRUE(P().sends[0].fd == 7 && P().sends[0].flags == 0);
        }
    }
    // A lookup that leaves the mode as it was refuses the interface.
    P().tunnelMode = 33;
    P().tunnelModeUntouched = true;
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_ERR_FAIL);
    // An interrupted send is sent again; any other failure is final.
    P().tunnelModeUntouched = false;
    P().sendResults = {-EINTR, -EIO, -EINTR};
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(7, 261), L2VFIB_OK);
    EXPECT_EQ(P().sends.size(), 4u);
}

}  // namespace
