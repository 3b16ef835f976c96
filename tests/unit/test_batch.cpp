// Opening and closing, the device capabilities, the batch buffer behind
// L2VFIB_Send_Cfg and the flushes. The append protocol's room test is met
// by every row of the entry and overlay tables.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/state.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// Code 73: 12 bytes; code 20 with a word: 16 bytes; both always batched.
const Bytes kMsg12 = Hex("00 02 00 04 00 00 01 08 | 00 6a 00 00");
const Bytes kMsg16 = Hex("00 02 00 08 00 00 01 08 | 00 64 00 04 00 00 00 2a");
const uint32_t kWord42 = 42;

uint32_t Queue12(int fd) { return L2VFIB_Send_Cfg(fd, 73, 0, nullptr, nullptr); }
uint32_t Queue16(int fd) { return L2VFIB_Send_Cfg(fd, 20, 0, &kWord42, nullptr); }

using OpenClose = LibraryTest;

// Neither a failed capability query nor an empty answer changes the counts.
TEST_F(OpenClose, OpenConnectsTheServiceSocketAndQueriesTheCapabilities) {
    Bytes answer(64, 0xEE);
    answer[8] = 1, answer[9] = 2, answer[10] = 3, answer[11] = 4, answer[40] = 5;
    P().controlResults = {{0, answer, std::nullopt}, {1, Bytes(64, 9), std::nullopt},
                          {0, Bytes(64, 9), 0u}};
    for (int i = 0; i < 3; ++i) {
        fd_ = L2VFIB_Open(&RecordNotice);
        ASSERT_EQ(fd_, 40 + i);
        const L2VFIB_DevCaps &c = l2vfib_Caps;
        EXPECT_EQ(std::tuple(c.fillWords22, c.fillWords13, c.fillWords21, c.fillWords33,
                             c.fillWords39), std::tuple(1, 2, 3, 4, 5));
        EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
        L2VFIB_Close(fd_);
    }
    const fake::SocketCall &s = P().sockets[0];
    EXPECT_EQ(std::tuple(s.family, s.type, s.protocol), std::tuple(37, SOCK_DGRAM, 1));
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 0a 6e 80 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(Fields(P().controls[0]), Fields({false, 0x8000, 0x440002, {}, 512, true, true}));
}

// Connect is repeated on EINTR and EISCONN counts as connected; any other
// failure closes the new socket and leaves the library closed.
TEST_F(OpenClose, OpenFailsOnlyWhenNoSocketCanBeConnected) {
    P().socketFailures = 1;
    P().connectErrors = {ECONNREFUSED, EINTR, EINTR, 0, EISCONN};
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_TRUE(P().controls.empty());
    EXPECT_EQ(l2vfib_Batch, nullptr);
    EXPECT_EQ(L2VFIB_Open(nullptr), 41);
    EXPECT_EQ(L2VFIB_Close(41), 0);
    fd_ = L2VFIB_Open(nullptr);
    EXPECT_EQ(fd_, 42);
    EXPECT_EQ(P().trace, (Trace{"socket failed", "socket 40", "connect 40", "close 40",
                                "socket 41", "connect 41", "connect 41", "connect 41", "close 41",
                                "socket 42", "connect 42"}));
}

TEST_F(OpenClose, SecondOpenFailsAndCloseDiscardsTheQueueAndStopsEverything) {
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().ClearRecords();
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_TRUE(P().trace.empty() && P().controls.empty());
    EXPECT_EQ(Queued(), kMsg12);

    P().closeResult = -1;
    EXPECT_EQ(L2VFIB_Close(fd_), -1);
    EXPECT_EQ(l2vfib_Batch, nullptr);
    // Closed, nothing is sent or read.
    EXPECT_EQ(Queue12(fd_), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Send_Cfg(3, 18, 0, &kWord42, nullptr), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_FlushEntry(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(l2vfib_FlushNoWait(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_AllocECID(18, &kWord42, nullptr), -1);
    P().recvResults = {fake::RecvResult::Datagram(Bytes(16, 0))};
    EXPECT_EQ(L2VFIB_HandleMsg(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Close(7), -1);  // closed already: only the socket
    EXPECT_EQ(P().trace, (Trace{"close 40", "close 7"}));
}

using Batch = OpenLibraryTest;

// 114 x 12 + 2 x 16 = 1400: the last message fits the last free bytes. The
// next one sends the queue first, blocking; when that send fails, nothing
// changes.
TEST_F(Batch, AreaFilledExactlyIsSentWholeWhenTheNextMessageComes) {
    Bytes full;
    for (int i = 0; i < 114; ++i) {
        ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
        full = full + kMsg12;
    }
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    full = full + kMsg16 + kMsg16;
    EXPECT_EQ(Queued(), full);
    EXPECT_TRUE(P().sends.empty());

    P().sendResults = {-EIO};
    EXPECT_EQ(Queue12(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), full);
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 2u);
    EXPECT_EQ(P().sends[1].flags, 0);
    EXPECT_EQ(P().sends[1].data, full);
    EXPECT_EQ(Area(), kMsg12 + Bytes(L2VFIB_BATCH_SIZE - 12, 0));
}

// Only a whole send empties the queue (and zeroes the area); the blocking
// flush sends again on EINTR, the non-blocking one does not.
TEST_F(Batch, FlushSendsTheQueueWholeOrKeepsIt) {
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);  // nothing queued: nothing sent
    EXPECT_EQ(l2vfib_FlushNoWait(fd_), L2VFIB_OK);
    EXPECT_TRUE(P().sends.empty());
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    P().sendResults = {27, -EIO, -EINTR, -EINTR, -EINTR};
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(l2vfib_FlushNoWait(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), kMsg12 + kMsg16);
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    std::vector<int> flags;
    for (const auto &send : P().sends) {
        EXPECT_EQ(send.data, kMsg12 + kMsg16);
        flags.push_back(send.flags);
    }
    EXPECT_EQ(flags, (std::vector<int>{0, 0, MSG_DONTWAIT, 0, 0, 0}));
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

// A batched command goes behind the queue when exactly the bytes it needs
// are free; with one byte fewer the queue is sent first. Alike for a word
// item written from its row, from either argument, and for an encoder's
// payload; a word's null record is refused once the queue is sent.
TEST_F(Batch, CommandGoesBehindTheQueueOnlyWhenItsBytesAreFree) {
    struct Row {
        L2VFIB_CmdId cmd;
        const void *arg1, *arg2;
        const char *message;
    };
    const Row rows[] = {
        {20, &kWord42, nullptr, "00 02 00 08 00 00 01 08 | 00 64 00 04 00 00 00 2a"},
        {28, nullptr, &kWord42, "00 02 00 08 00 00 01 08 | 00 66 00 04 00 00 00 2a"},
        {73, nullptr, nullptr, "00 02 00 04 00 00 01 08 | 00 6a 00 00"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(testing::Message() << "code " << row.cmd);
        const Bytes message = Hex(row.message);
        const size_t n = message.size();
        Leave(n);
        ASSERT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, 1, row.arg1, row.arg2), L2VFIB_OK);
        EXPECT_TRUE(P().sends.empty());
        EXPECT_EQ(ToHex(Queued()), ToHex(Bytes(L2VFIB_BATCH_SIZE - n, 0) + message));
        Leave(n - 1);
        ASSERT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, 1, row.arg1, row.arg2), L2VFIB_OK);
        ASSERT_EQ(P().sends.size(), 1u);
        EXPECT_EQ(P().sends[0].data, Bytes(L2VFIB_BATCH_SIZE + 1 - n, 0));
        EXPECT_EQ(ToHex(Queued()), ToHex(message));
        if (row.arg1 == nullptr && row.arg2 == nullptr) continue;
        EXPECT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, 1, nullptr, nullptr), L2VFIB_ERR_FAIL);
        EXPECT_EQ(P().sends.size(), 2u);
        EXPECT_EQ(Used(), 0);
        EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
    }
}

}  // namespace
