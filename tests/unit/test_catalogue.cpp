// The command catalogue over the scalar encoders: every code with a scalar
// encoder builds its message, byte for byte, within its room only and on
// every path it can take (batched with batch 1, its own path otherwise, the
// identifier request), and refuses a null record it reads. Every other code
// is refused without a byte written or sent.
#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/catalogue.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// Every number has its top bit set, so a sign extension or a swapped byte
// shows, and the two records of each kind differ, so reading arg1 for arg2
// shows.
const uint32_t kWordA = 0x8899AABBu, kWordB = 0xF1E2D3C4u;
const uint16_t kHalfDecoy = 0x0102, kHalf = 0x8A1B;
const L2VFIB_WordPair kPairA = {0x0A0B0C0Du, 0x8E8F9091u}, kPairB = {0x91929394u, 0x05060708u};
// Keys whose bytes behind subId are all 0xFF: only id and subId are read.
struct Keys {
    L2VFIB_EntryKey a, b;
    Keys() {
        std::memset(&a, 0xFF, sizeof a), std::memset(&b, 0xFF, sizeof b);
        a.id = 0x01020304u, a.subId = 0x0506, b.id = 0xC1C2C3C4u, b.subId = 0xC5C6;
    }
} const kKeys;

enum class Path { kBatched, kAlone, kReply };
constexpr Path B = Path::kBatched, A = Path::kAlone, R = Path::kReply;

struct CmdRow {
    L2VFIB_CmdId cmd;
    Path path;  // when batch is not 1
    const void *arg1, *arg2;
    int reads;            // records the encoder reads: 1 arg1, 2 arg2, 3 both
    const char *message;  // header | items
};

#define W1 &kWordA, &kWordB, 1
#define W2 &kWordA, &kWordB, 2
#define H2 &kHalfDecoy, &kHalf, 2
#define P2 &kPairA, &kPairB, 2
#define N nullptr, nullptr, 0

// Rows 81/85 and 86/88 expect the same bytes: those codes differ only in
// their path.
const CmdRow kRows[] = {
    {2, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {3, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {10, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {15, A, W1, "00 0d 00 08 00 00 01 08 | 00 2c 00 04 88 99 aa bb"},
    {16, A, W1, "00 0d 00 08 00 00 02 08 | 00 2c 00 04 88 99 aa bb"},
    {17, A, H2, "00 0f 00 08 00 00 02 08 | 00 53 00 04 00 00 8a 1b"},
    {18, R, W1, "00 01 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {19, R, W1, "00 01 00 08 00 00 02 08 | 00 64 00 04 88 99 aa bb"},
    {20, B, W1, "00 02 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {21, A, W1, "00 01 00 08 00 00 17 08 | 00 20 00 04 88 99 aa bb"},
    {22, A, &kKeys.a, &kKeys.b, 1,
     "00 01 00 0c 00 00 17 08 | 00 0a 00 08 01 02 03 04 05 06 00 00"},
    {23, A, &kKeys.a, &kKeys.b, 2,
     "00 06 00 0c 00 00 17 08 | 00 14 00 08 c1 c2 c3 c4 c5 c6 00 00"},
    {26, R, W2, "00 01 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {27, R, W2, "00 01 00 08 00 00 02 08 | 00 66 00 04 f1 e2 d3 c4"},
    {28, B, W2, "00 02 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {37, A, W2, "00 01 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {38, B, W2, "00 02 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {39, A, &kWordA, &kWordB, 3,
     "00 01 00 10 00 00 06 08 | 00 8f 00 04 f1 e2 d3 c4 | 00 8e 00 04 88 99 aa bb"},
    {42, R, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 b6 00 00"},
    {43, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 b6 00 00"},
    {44, R, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 b7 00 00"},
    {45, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 b7 00 00"},
    {46, B, P2, "00 1c 00 0c 00 00 06 08 | 00 b4 00 08 91 92 93 94 05 06 07 08"},
    {56, A, W2, "00 01 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {57, B, W2, "00 02 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {58, A, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 ba 00 00"},
    {59, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 ba 00 00"},
    {61, A, N, "00 01 00 04 00 00 01 08 | 00 69 00 00"},
    {62, A, N, "00 01 00 04 00 00 02 08 | 00 69 00 00"},
    {63, B, N, "00 02 00 04 00 00 01 08 | 00 69 00 00"},
    {64, A, W2, "00 01 00 08 00 00 06 08 | 00 bd 00 04 f1 e2 d3 c4"},
    {65, B, W2, "00 02 00 08 00 00 06 08 | 00 be 00 04 f1 e2 d3 c4"},
    {68, A, W2, "00 24 00 08 00 00 05 08 | 00 d7 00 04 f1 e2 d3 c4"},
    {71, A, N, "00 01 00 04 00 00 01 08 | 00 6a 00 00"},
    {72, A, N, "00 01 00 04 00 00 02 08 | 00 6a 00 00"},
    {73, B, N, "00 02 00 04 00 00 01 08 | 00 6a 00 00"},
    {74, A, W2, "00 01 00 08 00 00 06 08 | 00 d9 00 04 f1 e2 d3 c4"},
    {75, A, W2, "00 01 00 08 00 00 06 08 | 00 e6 00 04 f1 e2 d3 c4"},
    {76, A, H2, "00 27 00 06 00 00 05 08 | 00 da 00 02 8a 1b"},
    {77, A, H2, "00 01 00 06 00 00 06 08 | 00 ea 00 02 8a 1b"},
    {80, A, P2, "00 0e 00 0c 00 00 17 05 | 00 46 00 08 91 92 93 94 05 06 07 08"},
    {81, R, H2, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {85, B, H2, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {86, R, W2, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {87, R, W2, "00 2b 00 08 00 00 02 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {88, B, W2, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {89, A, H2, "00 01 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
    {90, B, H2, "00 02 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
};

// Codes without an encoder, or whose encoder is not one of the scalar ones
// (the record encoders are not in the library yet), and codes past the end.
const L2VFIB_CmdId kRefused[] = {0,  1,  4,  5,  6,  7,  8,  9,  11, 12, 13, 14, 24, 25, 29, 30,
                                 31, 32, 33, 34, 35, 36, 40, 41, 47, 48, 49, 50, 51, 52, 53, 54,
                                 55, 60, 66, 67, 69, 70, 78, 79, 82, 83, 84, 91, 92, 93, 255,
                                 0x10000, 0xFFFFFFFFu};

// Code 73, queued ahead of the message under test.
const Bytes kQueued = Hex("00 02 00 04 00 00 01 08 | 00 6a 00 00");
const Bytes kResultReply = Hex("00 00 00 08 00 00 00 00 | 00 25 00 04 12 34 56 78");
const Bytes kIdentifierReply = Hex("00 00 00 08 00 00 00 00 | 00 b8 00 04 00 ab cd ef");
const Trace kAnswered = {"socket 41", "connect 41", "setopt 41", "send 41", "recv 41", "close 41"};

class CatalogueCode : public OpenLibraryTest, public ::testing::WithParamInterface<CmdRow> {};

// Every room too small is refused, by the catalogue, the encoder's own room
// test or the codec, before anything is written; so is a null record the
// encoder reads.
TEST_P(CatalogueCode, EncodeCmdBuildsTheMessageWithinItsRoomOnly) {
    const CmdRow &row = GetParam();
    const Bytes expected = Hex(row.message);
    const size_t size = expected.size();
    // The first 100 bytes are the whole buffer, but for the largest room.
    auto check = [&](size_t room, const void *arg1, const void *arg2, bool builds) {
        Bytes buf = Canary(room + 16);
        EXPECT_EQ(l2vfib_EncodeCmd(row.cmd, arg1, arg2, static_cast<uint16_t>(room), buf.data()),
                  builds ? size : 0) << "room " << room;
        EXPECT_EQ(ToHex(buf, 100),
                  ToHex(builds ? expected + Canary(room + 16 - size) : Canary(room + 16), 100))
            << "room " << room;
    };
    for (size_t room = 0; room <= size + 1; ++room) check(room, row.arg1, row.arg2, room >= size);
    check(0xFFFF, row.arg1, row.arg2, true);
    check(64, nullptr, row.arg2, !(row.reads & 1));
    check(64, row.arg1, nullptr, !(row.reads & 2));
}

// Batch 1 queues every code; other batch values take the code's own path.
// A queued message goes behind the queue; one sent at once leaves it alone.
TEST_P(CatalogueCode, TakesEachOfItsPathsAndTheIdentifierRequest) {
    const CmdRow &row = GetParam();
    const Bytes expected = Hex(row.message);
    for (uint32_t batch : {1u, 0u, 2u}) {
        SCOPED_TRACE(testing::Message() << "batch " << batch);
        ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
        P().ClearRecords();
        P().nextFd = 41;
        P().recvResults = {fake::RecvResult::Datagram(kResultReply)};
        const bool queued = batch == 1 || row.path == B, answered = !queued && row.path == R;
        EXPECT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, batch, row.arg1, row.arg2),
                  answered ? 0x12345678u : L2VFIB_OK);
        if (queued) {
            EXPECT_TRUE(P().trace.empty());
            EXPECT_EQ(ToHex(Queued()), ToHex(kQueued + expected));
        } else {
            EXPECT_EQ(P().trace, answered ? kAnswered : Trace{"send 40"});
            ASSERT_EQ(P().sends.size(), 1u);
            EXPECT_EQ(ToHex(P().sends[0].data), ToHex(expected));
            EXPECT_EQ(P().sends[0].flags, answered ? MSG_DONTWAIT : 0);
            EXPECT_EQ(Queued(), kQueued);
        }
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    }
    P().ClearRecords();
    P().nextFd = 41;
    P().recvResults = {fake::RecvResult::Datagram(kIdentifierReply)};
    EXPECT_EQ(L2VFIB_AllocECID(row.cmd, row.arg1, row.arg2), 0x00abcdef);
    EXPECT_EQ(P().trace, kAnswered);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data), ToHex(expected));
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

// With batch 1 the refusal first sends what is queued, then fails in the
// empty area.
TEST_P(RefusedCode, NothingIsWrittenOrSent) {
    const L2VFIB_CmdId cmd = GetParam();
    Bytes buf = Canary(L2VFIB_BATCH_SIZE);
    EXPECT_EQ(l2vfib_EncodeCmd(cmd, record1_, record2_, L2VFIB_BATCH_SIZE, buf.data()), 0);
    EXPECT_EQ(buf, Canary(L2VFIB_BATCH_SIZE));
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, cmd, 0, record1_, record2_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_AllocECID(cmd, record1_, record2_), -1);
    EXPECT_TRUE(P().trace.empty());

    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, cmd, 1, record1_, record2_), L2VFIB_ERR_FAIL);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].data, kQueued);
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

INSTANTIATE_TEST_SUITE_P(Codes, RefusedCode, ::testing::ValuesIn(kRefused));

}  // namespace
