// The AC data query: what goes out on the caller's socket, and how the
// answer is read into the caller's list or refused with the list untouched.
// It needs no open library. (The AC flag message is a row of the entry
// tests' table of messages sent alone.)
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// Answers: 12-byte head (L), 8-byte head (P), count item (N), entry item.
#define HEAD(L, P) "00 00 00 " L " 00 00 00 00 00 00 00 00 | 00 00 00 " P " 00 00 00 00 | "
#define N2 "00 01 00 04 00 00 00 02 | "
#define E1 "00 00 00 01 00 05 06 07 00 08 00 09 00 00 00 0a"
#define E2 "8a 8b 8c 8d 8e 8f 90 91 92 93 94 95 96 97 98 99"
const uint32_t kUnset = 0x77;
// Slots start as 0xA5 bytes: the same in either byte order.
const L2VFIB_AcData kOld = {0xA5A5A5A5u, 0xA5A5, 0xA5, 0xA5, 0xA5A5, 0xA5A5, 0xA5A5A5A5u};
const L2VFIB_AcData kWhole[2] = {{1, 5, 6, 7, 8, 9, 10},
                                 {0x8A8B8C8Du, 0x8E8F, 0x90, 0x91, 0x9293, 0x9495, 0x96979899u}};
const L2VFIB_AcData kShort[2] = {{0x01020304u, 0x05A5, 0xA5, 0xA5, 0xA5A5, 0xA5A5, 0xA5A5A5A5u},
                                 {0x11121314u, 0x15A5, 0xA5, 0xA5, 0xA5A5, 0xA5A5, 0xA5A5A5A5u}};

struct AnswerRow {
    const char *name, *answer;
    uint32_t result;
    const L2VFIB_AcData *slots;  // the two slots written, or null: list untouched
};
const AnswerRow kAnswers[] = {
    {"Entries16", HEAD("34", "2c") N2 "00 02 00 20 " E1 E2, L2VFIB_OK, kWhole},
    {"Entries20", HEAD("3c", "34") N2 "00 02 00 28 " E1 " ee ee ee ee " E2 " ee ee ee ee | 77",
     L2VFIB_OK, kWhole},
    {"Entries5", HEAD("1f", "17") N2 "00 02 00 0b 01 02 03 04 05 11 12 13 14 15 ff", L2VFIB_OK,
     kShort},
    {"EntrySizeZero", HEAD("1b", "13") "00 01 00 04 00 00 00 08 | 00 02 00 07 01 02 03 04 05 06 07",
     L2VFIB_OK, nullptr},
    {"NoEntries", HEAD("10", "08") "00 01 00 04 00 00 00 00", L2VFIB_OK, nullptr},
    {"MostEntries", HEAD("14", "0c") "00 01 00 04 00 00 00 fe | 00 02 00 00", L2VFIB_OK, nullptr},
    {"TooMany", HEAD("14", "0c") "00 01 00 04 00 00 00 ff | 00 02 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"ElevenBytes", "00 00 00 34 00 00 00 00 00 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"OuterBelow12", HEAD("07", "08") "00 01 00 04 00 00 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"OuterPastEnd", HEAD("11", "08") "00 01 00 04 00 00 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"InnerPastOuter", HEAD("10", "09") "00 01 00 04 00 00 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"CountShort", HEAD("0f", "07") "00 01 00 03 00 00 00", L2VFIB_ERR_FAIL, nullptr},
    {"NoEntryItem", HEAD("10", "08") N2, L2VFIB_ERR_FAIL, nullptr},
    {"EntryPastInner", HEAD("34", "2b") N2 "00 02 00 20 " E1 E2, L2VFIB_ERR_FAIL, nullptr},
};

auto Fields(const L2VFIB_AcData &d) {
    return std::tuple(d.word0, d.half0, d.byte0, d.byte1, d.half1, d.half2, d.word1);
}

class AcDataAnswer : public LibraryTest, public ::testing::WithParamInterface<AnswerRow> {};

// The query goes out blocking; the answer is received again after EINTR.
TEST_P(AcDataAnswer, FillsTheListOrLeavesItAlone) {
    const AnswerRow &row = GetParam();
    L2VFIB_AcData slots[L2VFIB_AC_DATA_MAX];
    std::memset(slots, 0xA5, sizeof slots);
    L2VFIB_AcDataList list = {kUnset, slots};
    P().recvResults = {fake::RecvResult::Error(EINTR), fake::RecvResult::Datagram(Hex(row.answer))};
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), row.result);
    EXPECT_EQ(list.count, row.slots ? 2 : kUnset);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(Fields(slots[i]), Fields(row.slots && i < 2 ? row.slots[i] : kOld)) << i;
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data) + (P().sends[0].flags ? " nonblocking" : ""),
              "00 11 00 08 00 20 12 00 00 00 00 00 00 01 00 00 00 14 00 00");
    ASSERT_EQ(P().recvs.size(), 2u);
    EXPECT_EQ(std::pair(P().recvs[1].room, P().recvs[1].flags),
              std::pair(size_t{4096}, int{MSG_WAITALL}));
}

INSTANTIATE_TEST_SUITE_P(Answers, AcDataAnswer, ::testing::ValuesIn(kAnswers),
                         [](const auto &info) { return info.param.name; });

using AcDataQuery = LibraryTest;

// A null list sends nothing; a null array is refused once entries come; a
// failed send reads nothing; a failed receive fails.
TEST_F(AcDataQuery, FailuresLeaveTheListUnwritten) {
    EXPECT_EQ(L2VFIB_GetAcData(3, nullptr), L2VFIB_ERR_FAIL);
    EXPECT_TRUE(P().trace.empty());
    L2VFIB_AcDataList list = {kUnset, nullptr};
    P().recvResults = {fake::RecvResult::Datagram(Hex(kAnswers[0].answer)),
                       fake::RecvResult::Datagram(Hex(kAnswers[4].answer)),  // none
                       fake::RecvResult::Error(EIO)};
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), L2VFIB_OK);  // no entries: no array needed
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), L2VFIB_ERR_FAIL);
    P().sendResults = {-EIO, 19};
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_GetAcData(3, &list), L2VFIB_ERR_FAIL);
    EXPECT_EQ(list.count, kUnset);
    EXPECT_EQ(P().trace, (Trace{"send 3", "recv 3", "send 3", "recv 3", "send 3", "recv 3",
                                "send 3", "send 3"}));
}

}  // namespace
