// The command catalogue: every code with a scalar encoder builds its
// message, byte for byte, on every path it can take (batched with batch 1,
// its own path otherwise, and the identifier request); every other code is
// refused without a byte written or sent.
#include <gtest/gtest.h>

#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/catalogue.h"
#include "records.h"
#include "test_support.h"

using namespace l2vt;

namespace {

enum class Path { kBatched, kAlone, kReply };

struct CmdRow {
    L2VFIB_CmdId cmd;
    Path path;  // when batch is not 1
    const void *arg1;
    const void *arg2;
    const char *message;  // header | items
};

constexpr Path B = Path::kBatched, A = Path::kAlone, R = Path::kReply;
#define W &kWordA, &kWordB
#define H &kHalfDecoy, &kHalf
#define N nullptr, nullptr

const CmdRow kRows[] = {
    {2, A, W, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {3, A, W, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {10, A, W, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {15, A, W, "00 0d 00 08 00 00 01 08 | 00 2c 00 04 88 99 aa bb"},
    {16, A, W, "00 0d 00 08 00 00 02 08 | 00 2c 00 04 88 99 aa bb"},
    {17, A, H, "00 0f 00 08 00 00 02 08 | 00 53 00 04 00 00 8a 1b"},
    {18, R, W, "00 01 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {19, R, W, "00 01 00 08 00 00 02 08 | 00 64 00 04 88 99 aa bb"},
    {20, B, W, "00 02 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {21, A, W, "00 01 00 08 00 00 17 08 | 00 20 00 04 88 99 aa bb"},
    {22, A, &kKeys.a, &kKeys.b, "00 01 00 0c 00 00 17 08 | 00 0a 00 08 01 02 03 04 05 06 00 00"},
    {23, A, &kKeys.a, &kKeys.b, "00 06 00 0c 00 00 17 08 | 00 14 00 08 c1 c2 c3 c4 c5 c6 00 00"},
    {26, R, W, "00 01 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {27, R, W, "00 01 00 08 00 00 02 08 | 00 66 00 04 f1 e2 d3 c4"},
    {28, B, W, "00 02 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {37, A, W, "00 01 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {38, B, W, "00 02 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {39, A, W, "00 01 00 10 00 00 06 08 | 00 8f 00 04 f1 e2 d3 c4 00 8e 00 04 88 99 aa bb"},
    {42, R, W, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb 00 b6 00 00"},
    {43, A, W, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb 00 b6 00 00"},
    {44, R, W, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb 00 b7 00 00"},
    {45, A, W, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb 00 b7 00 00"},
    {46, B, &kPairA, &kPairB, "00 1c 00 0c 00 00 06 08 | 00 b4 00 08 91 92 93 94 05 06 07 08"},
    {56, A, W, "00 01 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {57, B, W, "00 02 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {58, A, W, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb 00 ba 00 00"},
    {59, A, W, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb 00 ba 00 00"},
    {61, A, N, "00 01 00 04 00 00 01 08 | 00 69 00 00"},
    {62, A, N, "00 01 00 04 00 00 02 08 | 00 69 00 00"},
    {63, B, N, "00 02 00 04 00 00 01 08 | 00 69 00 00"},
    {64, A, W, "00 01 00 08 00 00 06 08 | 00 bd 00 04 f1 e2 d3 c4"},
    {65, B, W, "00 02 00 08 00 00 06 08 | 00 be 00 04 f1 e2 d3 c4"},
    {68, A, W, "00 24 00 08 00 00 05 08 | 00 d7 00 04 f1 e2 d3 c4"},
    {71, A, N, "00 01 00 04 00 00 01 08 | 00 6a 00 00"},
    {72, A, N, "00 01 00 04 00 00 02 08 | 00 6a 00 00"},
    {73, B, N, "00 02 00 04 00 00 01 08 | 00 6a 00 00"},
    {74, A, W, "00 01 00 08 00 00 06 08 | 00 d9 00 04 f1 e2 d3 c4"},
    {75, A, W, "00 01 00 08 00 00 06 08 | 00 e6 00 04 f1 e2 d3 c4"},
    {76, A, H, "00 27 00 06 00 00 05 08 | 00 da 00 02 8a 1b"},
    {77, A, H, "00 01 00 06 00 00 06 08 | 00 ea 00 02 8a 1b"},
    {80, A, &kPairA, &kPairB, "00 0e 00 0c 00 00 17 05 | 00 46 00 08 91 92 93 94 05 06 07 08"},
    {81, R, H, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {85, B, H, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {86, R, W, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {87, R, W, "00 2b 00 08 00 00 02 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {88, B, W, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {89, A, H, "00 01 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
    {90, B, H, "00 02 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
};
#undef W
#undef H
#undef N

// Rows 81/85 and 86/88 expect the same bytes: those codes differ only in
// their path.

// Codes without an encoder, or whose encoder is not one of the scalar ones
// (the record encoders are not in the library yet), and codes past the end.
const L2VFIB_CmdId kRefused[] = {0,  1,  4,  5,  6,  7,  8,  9,  11, 12, 13, 14, 24, 25, 29, 30,
                                 31, 32, 33, 34, 35, 36, 40, 41, 47, 48, 49, 50, 51, 52, 53, 54,
                                 55, 60, 66, 67, 69, 70, 78, 79, 82, 83, 84, 91, 92, 93, 255,
                                 0x10000, 0xFFFFFFFFu};

const Bytes kResultReply = Hex("00 00 00 08 00 00 00 00 | 00 25 00 04 12 34 56 78");
const Bytes kIdentifierReply = Hex("00 00 00 08 00 00 00 00 | 00 b8 00 04 00 ab cd ef");

class CatalogueCode : public OpenLibraryTest, public ::testing::WithParamInterface<CmdRow> {};

TEST_P(CatalogueCode, EncodeCmdBuildsTheMessageWithinItsRoomOnly) {
    const CmdRow &row = GetParam();
    const Bytes expected = Hex(row.message);
    const size_t size = expected.size();
    for (size_t room : {size, size_t{L2VFIB_BATCH_SIZE}}) {
        Bytes buf = Canary(L2VFIB_BATCH_SIZE + 16);
        ASSERT_EQ(l2vfib_EncodeCmd(row.cmd, row.arg1, row.arg2, static_cast<uint16_t>(room),
                                   buf.data()),
                  size);
        EXPECT_EQ(ToHex(Bytes(buf.begin(), buf.begin() + static_cast<long>(size))),
                  ToHex(expected));
        EXPECT_EQ(Bytes(buf.begin() + static_cast<long>(size), buf.end()),
                  Canary(L2VFIB_BATCH_SIZE + 16 - size));
    }
    Bytes buf = Canary(size + 16);
    EXPECT_EQ(l2vfib_EncodeCmd(row.cmd, row.arg1, row.arg2, static_cast<uint16_t>(size - 1),
                               buf.data()),
              0);
    EXPECT_EQ(buf, Canary(size + 16));
}

TEST_P(CatalogueCode, BatchOneQueuesItWhateverItsOwnPath) {
    const CmdRow &row = GetParam();
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, 1, row.arg1, row.arg2), L2VFIB_OK);
    EXPECT_TRUE(P().sends.empty());
    EXPECT_TRUE(P().sockets.empty());
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].fd, fd_);
    EXPECT_EQ(P().sends[0].flags, 0);
    EXPECT_EQ(ToHex(P().sends[0].data), ToHex(Hex(row.message)));
}

TEST_P(CatalogueCode, OtherBatchValuesTakeItsOwnPath) {
    const CmdRow &row = GetParam();
    const Bytes expected = Hex(row.message);
    for (uint32_t batch : {0u, 2u}) {
        SCOPED_TRACE(testing::Message() << "batch " << batch);
        P().ClearRecords();
        P().recvResults.push_back(fake::RecvResult::Datagram(kResultReply));
        const uint32_t result = L2VFIB_Send_Cfg(fd_, row.cmd, batch, row.arg1, row.arg2);
        switch (row.path) {
            case Path::kBatched:
                ASSERT_EQ(result, L2VFIB_OK);
                EXPECT_TRUE(P().sends.empty());
                EXPECT_EQ(ToHex(Queued()), ToHex(expected));
                ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
                ASSERT_EQ(P().sends.size(), 1u);
                EXPECT_EQ(P().sends[0].flags, 0);
                break;
            case Path::kAlone:
                ASSERT_EQ(result, L2VFIB_OK);
                EXPECT_TRUE(P().sockets.empty());
                EXPECT_TRUE(P().recvs.empty());
                ASSERT_EQ(P().sends.size(), 1u);
                EXPECT_EQ(P().sends[0].fd, fd_);
                EXPECT_EQ(P().sends[0].flags, 0);
                EXPECT_EQ(Used(), 0);
                break;
            case Path::kReply:
                EXPECT_EQ(result, 0x12345678u);
                ASSERT_EQ(P().sockets.size(), 1u);
                ASSERT_EQ(P().sends.size(), 1u);
                EXPECT_NE(P().sends[0].fd, fd_);
                EXPECT_EQ(P().sends[0].flags, MSG_DONTWAIT);
                EXPECT_EQ(P().closes, std::vector<int>{P().sends[0].fd});
                EXPECT_EQ(Used(), 0);
                break;
        }
        if (!P().sends.empty()) {
            EXPECT_EQ(ToHex(P().sends[0].data), ToHex(expected));
        }
        P().recvResults.clear();
    }
}

TEST_P(CatalogueCode, IdentifierRequestSendsTheSameMessage) {
    const CmdRow &row = GetParam();
    P().recvResults.push_back(fake::RecvResult::Datagram(kIdentifierReply));
    EXPECT_EQ(L2VFIB_AllocECID(row.cmd, row.arg1, row.arg2), 0x00abcdef);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data), ToHex(Hex(row.message)));
}

INSTANTIATE_TEST_SUITE_P(ScalarCodes, CatalogueCode, ::testing::ValuesIn(kRows),
                         [](const auto &info) { return "Cmd" + std::to_string(info.param.cmd); });

class RefusedCode : public OpenLibraryTest, public ::testing::WithParamInterface<L2VFIB_CmdId> {
  protected:
    // Large zeroed records, so that a code refused here reads valid memory
    // whatever its encoder would read.
    uint8_t record1_[512] = {};
    uint8_t record2_[512] = {};
};

TEST_P(RefusedCode, NothingIsWrittenOrSent) {
    const L2VFIB_CmdId cmd = GetParam();
    Bytes buf = Canary(L2VFIB_BATCH_SIZE);
    EXPECT_EQ(l2vfib_EncodeCmd(cmd, record1_, record2_, L2VFIB_BATCH_SIZE, buf.data()), 0);
    EXPECT_EQ(buf, Canary(L2VFIB_BATCH_SIZE));

    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, cmd, 0, record1_, record2_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_AllocECID(cmd, record1_, record2_), -1);
    EXPECT_TRUE(P().trace.empty());
    EXPECT_EQ(Used(), 0);
}

// With batch 1 the refusal first sends what is queued, then fails in the
// empty area.
TEST_P(RefusedCode, BatchOneFlushesTheQueueThenFails) {
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, GetParam(), 1, record1_, record2_), L2VFIB_ERR_FAIL);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data), "00 02 00 04 00 00 01 08 00 6a 00 00");
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

INSTANTIATE_TEST_SUITE_P(Codes, RefusedCode, ::testing::ValuesIn(kRefused));

TEST(EncodeCmd, RoomOfSevenOrLessBuildsNothingAndEightLeavesTheEncoderNone) {
    // Code 71's empty item needs 4 payload bytes and nothing else.
    for (uint16_t room = 0; room < 12; ++room) {
        Bytes buf = Canary(16);
        EXPECT_EQ(l2vfib_EncodeCmd(71, nullptr, nullptr, room, buf.data()), 0) << "room " << room;
        EXPECT_EQ(buf, Canary(16)) << "room " << room;
    }
    Bytes buf = Canary(16);
    EXPECT_EQ(l2vfib_EncodeCmd(71, nullptr, nullptr, 12, buf.data()), 12);
}

}  // namespace
