// Forwarding entries: each queued message byte for byte and at the edges
// of the batch room, the refusals that leave everything as it was, the two
// attribute-block encoders, the MAC reset's node loop, the graceful-restart
// event and the type selection.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

const L2VFIB_EntryKey kKey = {0x0A0B0C0Du, 0x1234};
const uint8_t kBlock[3] = {0xAA, 0xBB, 0xCC};
// Reserved areas of 0xFF: they must still go as zeros.
const L2VFIB_AcInfo kInfo = {0x8182, 0x83848586u, 0x87, 0x88898A8Bu, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                             0xFF, 0xFF, 0xFF}, 0x1122334455667788u, 0x8C8D8E8Fu,
                             {0xFF, 0xFF, 0xFF, 0xFF}, 0x9091, 0x9293};
const L2VFIB_AcOption kOption = {0xA1A2, 0xA3A4, 0xA5A6, 0xA7A8};
#define KEY "0a 0b 0c 0d 12 34 00 00"
#define INFO                                                                   \
    "81 82 00 00 83 84 85 86 87 00 00 00 88 89 8a 8b 00 00 00 00 00 00 00 00 " \
    "11 22 33 44 55 66 77 88 8c 8d 8e 8f 00 00 00 00 90 91 92 93 00 00 00 00"

struct MsgRow {
    const char *name;
    uint32_t (*call)(int32_t fd);
    uint8_t fill22;
    const char *message;
};
const MsgRow kMsgs[] = {
    {"PwAdd", [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 0x1FF, &kKey, kBlock, 3); }, 0,
     "00 03 00 0f 00 00 05 ff | 00 0a 00 08 " KEY " | aa bb cc"},
    {"PwAddEmpty", [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 2, &kKey, nullptr, 0); }, 0,
     "00 03 00 0c 00 00 05 02 | 00 0a 00 08 " KEY},
    {"PwDel", [](int32_t fd) { return L2VFIB_DelPwEntry(fd, 0x21, &kKey); }, 0,
     "00 03 00 0c 00 00 07 21 | 00 0a 00 08 " KEY},
    {"MinMAdd", [](int32_t fd) { return L2VFIB_AddMinMEntry(fd, 9, 0x106, &kKey, kBlock, 2); }, 0,
     "00 0c 00 0e 00 00 06 09 | 00 28 00 08 " KEY " | aa bb"},
    {"MinMDel", [](int32_t fd) { return L2VFIB_DelMinMEntry(fd, 7, 6, &kKey); }, 0,
     "00 0c 00 0c 00 00 06 07 | 00 28 00 08 " KEY},
    {"AcAdd", [](int32_t fd) { return L2VFIB_AddAcEntry(fd, &kKey, &kInfo, nullptr); }, 0,
     "00 06 00 40 00 00 05 00 | 00 14 00 08 " KEY " | 00 16 00 30 " INFO},
    {"AcAddFilledWithOption",
     [](int32_t fd) { return L2VFIB_AddAcEntry(fd, &kKey, &kInfo, &kOption); }, 4,
     "00 06 00 5c 00 00 05 00 | 00 14 00 08 " KEY " | 00 16 00 40 " INFO
     " ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff | 00 90 00 08 a1 a2 a3 a4 a5 a6 a7 a8"},
    {"AcAddWithoutInfo", [](int32_t fd) { return L2VFIB_AddAcEntry(fd, &kKey, nullptr, &kOption); },
     60, "00 06 00 0c 00 00 07 00 | 00 14 00 08 " KEY},
    {"AcDel", [](int32_t fd) { return L2VFIB_DelAcEntry(fd, &kKey); }, 0,
     "00 06 00 0c 00 00 07 00 | 00 14 00 08 " KEY},
    {"Withdraw", [](int32_t fd) { return L2VFIB_WithdrawMacAddr(fd, &kKey); }, 0,
     "00 09 00 0c 00 00 00 08 | 00 0a 00 08 " KEY},
};

class QueuedMsg : public OpenLibraryTest, public ::testing::WithParamInterface<MsgRow> {};

TEST_P(QueuedMsg, IsQueuedWholeWhereItFits) {
    l2vfib_Caps.fillWords22 = GetParam().fill22;
    const Bytes msg = Hex(GetParam().message);
    ExpectQueued(GetParam().call, msg, msg.size());
}

INSTANTIATE_TEST_SUITE_P(Entries, QueuedMsg, ::testing::ValuesIn(kMsgs),
                         [](const auto &info) { return info.param.name; });

using Refused = OpenLibraryTest;

// Refusals come before any flush: the queue stays, nothing is sent. (Every
// keyed message shares one null test; the attachment circuit has its own.)
TEST_F(Refused, NullRecordsAndMessagesThatCannotFitAnEmptyBatch) {
    static uint8_t big[65535];
    l2vfib_Caps.fillWords22 = 53;
    uint32_t (*const calls[])(int32_t) = {
        [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 0, nullptr, kBlock, 3); },
        [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 0, &kKey, nullptr, 3); },
        [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 0, &kKey, big, 1381); },
        [](int32_t fd) { return L2VFIB_AddPwEntry(fd, 0, &kKey, big, 65535); },
        [](int32_t fd) { return L2VFIB_AddMinMEntry(fd, 0, 5, &kKey, nullptr, 1); },
        [](int32_t fd) { return L2VFIB_AddMinMEntry(fd, 0, 5, &kKey, big, 65516); },
        [](int32_t fd) { return L2VFIB_AddAcEntry(fd, nullptr, &kInfo, nullptr); },
        [](int32_t fd) { return L2VFIB_AddAcEntry(fd, &kKey, &kInfo, nullptr); },  // 53 words
        [](int32_t fd) { return L2VFIB_DelAcEntry(fd, nullptr); },
    };
    ASSERT_EQ(L2VFIB_DelAcEntry(fd_, &kKey), L2VFIB_OK);
    const Bytes queued = Queued();
    for (auto call : calls) EXPECT_EQ(call(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), queued);
    EXPECT_TRUE(P().sends.empty());
    // The largest block that fits an empty batch sends the queue first.
    EXPECT_EQ(L2VFIB_AddPwEntry(fd_, 0, &kKey, big, 1380), L2VFIB_OK);
    EXPECT_EQ(Used(), 1400);
    EXPECT_EQ(P().sends.size(), 1u);
}

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
    {false, 3, 0, 96, 44, "00 0d 00 28 " LPWV " ff ff ff ff ff ff ff ff ff ff ff ff"},
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

using Direct = LibraryTest;

// The reset goes to every node that is up, in list order, whatever the
// calls answer; the list is released (the sanitizer build sees a leak).
TEST_F(Direct, MacResetReachesEveryNodeThatIsUp) {
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

// Sent at once, blocking, again on EINTR; only all 8 bytes succeed.
TEST_F(Direct, GracefulRestartEvent) {
    P().sendResults = {-EINTR, 8, 8, 8, -EIO, 7};
    std::vector<uint32_t> results;
    for (uint32_t flag : {0u, 1u, 0xFFFFFFFFu, 0u, 0u})
        results.push_back(L2VFIB_SendGrEvent(3, flag));
    EXPECT_EQ(results, (std::vector<uint32_t>{0, 0, 0, L2VFIB_ERR_FAIL, L2VFIB_ERR_FAIL}));
    std::vector<std::string> sent;
    for (const auto &s : P().sends) sent.push_back(ToHex(s.data) + (s.flags ? " nonblocking" : ""));
    const std::string gr3 = "00 07 00 00 00 00 03 08", gr4 = "00 07 00 00 00 00 04 08";
    EXPECT_EQ(sent, (std::vector<std::string>{gr3, gr3, gr4, gr4, gr3, gr3}));
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
