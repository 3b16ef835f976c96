// Opening and closing, the device capabilities, the batch buffer behind
// L2VFIB_Send_Cfg and the flushes, and the append protocol of the direct
// entry functions.
#include <gtest/gtest.h>

#include <algorithm>
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
Bytes Repeat12(int times) {
    Bytes out;
    for (int i = 0; i < times; ++i) out = out + kMsg12;
    return out;
}
const Bytes kZeros(L2VFIB_BATCH_SIZE, 0);

using OpenClose = LibraryTest;

TEST_F(OpenClose, OpenConnectsTheServiceSocketAndQueriesTheCapabilities) {
    fd_ = L2VFIB_Open(&RecordNotice);
    ASSERT_EQ(fd_, 40);
    EXPECT_EQ(P().trace, (Trace{"socket 40", "connect 40"}));
    const fake::SocketCall &s = P().sockets[0];
    EXPECT_EQ(std::tuple(s.family, s.type, s.protocol), std::tuple(37, SOCK_DGRAM, 1));
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 0a 6e 80 00 00 00 00 00 00 00 00 00 00 00");
    ASSERT_EQ(P().controls.size(), 1u);
    EXPECT_EQ(Fields(P().controls[0]), Fields({false, 0x8000, 0x440002, {}, 512, true, true}));
    EXPECT_EQ(Area(), kZeros);
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

// Every entry point that needs the library open refuses before any call.
TEST_F(OpenClose, NothingIsSentOrReadBeforeOpen) {
    EXPECT_EQ(L2VFIB_Send_Cfg(3, 73, 1, nullptr, nullptr), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Send_Cfg(3, 18, 0, &kWord42, nullptr), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_FlushEntry(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(l2vfib_FlushNoWait(3), L2VFIB_ERR_NOT_OPEN);
    l2vfib::Append append{};
    EXPECT_EQ(l2vfib::AppendBegin(3, 20, &append), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_AllocECID(18, &kWord42, nullptr), -1);
    P().recvResults = {fake::RecvResult::Datagram(Bytes(16, 0))};
    EXPECT_EQ(L2VFIB_HandleMsg(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_TRUE(P().trace.empty());
}

TEST_F(OpenClose, SecondOpenFailsAndCloseDiscardsTheQueue) {
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().ClearRecords();
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_TRUE(P().trace.empty() && P().controls.empty());
    EXPECT_EQ(ToHex(Queued()), ToHex(kMsg12));

    P().closeResult = -1;
    EXPECT_EQ(L2VFIB_Close(fd_), -1);
    EXPECT_EQ(P().trace, Trace{"close 40"});
    EXPECT_EQ(l2vfib_Batch, nullptr);
    EXPECT_EQ(Queue12(fd_), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Close(7), -1);  // closed already: only the socket
    EXPECT_EQ(P().closes, (std::vector<int>{40, 7}));
}

TEST_F(OpenClose, CapabilityAnswerFillsTheCountsAndAFailedQueryKeepsThem) {
    Bytes answer(64, 0xEE);
    answer[8] = 1, answer[9] = 2, answer[10] = 3, answer[11] = 4, answer[40] = 5;
    // Neither a failed query nor an empty answer changes them; open still works.
    P().controlResults = {{0, answer, std::nullopt}, {1, Bytes(64, 9), std::nullopt},
                          {0, Bytes(64, 9), 0u}};
    for (int i = 0; i < 3; ++i) {
        fd_ = L2VFIB_Open(nullptr);
        EXPECT_GE(fd_, 0);
        EXPECT_EQ((std::vector<int>{l2vfib_Caps.fillWords22, l2vfib_Caps.fillWords13,
                                    l2vfib_Caps.fillWords21, l2vfib_Caps.fillWords33,
                                    l2vfib_Caps.fillWords39}),
                  (std::vector<int>{1, 2, 3, 4, 5}));
        L2VFIB_Close(fd_);
    }
}

using Batch = OpenLibraryTest;

TEST_F(Batch, AreaFilledExactlyIsSentWholeWhenTheNextMessageComes) {
    // 114 x 12 + 2 x 16 = 1400: the last message fits the last free bytes.
    for (int i = 0; i < 114; ++i) ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    EXPECT_EQ(Used(), 1400);
    EXPECT_TRUE(P().sends.empty());

    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].flags, 0);
    EXPECT_EQ(P().sends[0].data, Repeat12(114) + kMsg16 + kMsg16);
    EXPECT_EQ(ToHex(Queued()), ToHex(kMsg12));
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
    EXPECT_EQ(Area(), kZeros);
}

TEST_F(Batch, AppendsQueueWholeMessagesAtAnyByte) {
    l2vfib::Append append{};
    auto AppendItem = [](l2vfib::Append &a, const char *item) {
        const Bytes bytes = Hex(item);
        a.pos = std::copy(bytes.begin(), bytes.end(), a.pos);
    };
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 13, &append), L2VFIB_OK);
    EXPECT_EQ(append.end - append.msg, 1400);
    AppendItem(append, "00 0a 00 01 01");
    l2vfib::AppendEnd(append, 3, 5, 0x127);  // byte 7 keeps its low 8 bits
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 14, &append), L2VFIB_OK);
    EXPECT_EQ(append.end - append.msg, 1387);
    AppendItem(append, "00 0a 00 02 02 02");
    l2vfib::AppendEnd(append, 0x0102, 7, 0);
    EXPECT_EQ(ToHex(Queued()), ToHex(Hex("00 03 00 05 00 00 05 27 | 00 0a 00 01 01"
                                         "01 02 00 06 00 00 07 00 | 00 0a 00 02 02 02")));
    EXPECT_TRUE(P().sends.empty());
}

// 116 messages of 12 bytes leave 8 free: a message of 8 fits, one of 9
// first sends the queue (the append without blocking), one of 1401 never
// fits. A failed flush changes nothing.
TEST_F(Batch, MessageThatDoesNotFitFlushesFirst) {
    for (int i = 0; i < 116; ++i) ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    const Bytes before = Area();
    l2vfib::Append append{};
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 8, &append), L2VFIB_OK);
    EXPECT_EQ(append.msg, l2vfib_Batch->area + 1392);
    EXPECT_EQ(l2vfib::AppendBegin(fd_, 1401, &append), L2VFIB_ERR_FAIL);
    P().sendResults = {1, -EIO};
    EXPECT_EQ(l2vfib::AppendBegin(fd_, 9, &append), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queue16(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Area(), before);
    EXPECT_EQ(Used(), 1392);

    ASSERT_EQ(l2vfib::AppendBegin(fd_, 9, &append), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 3u);
    EXPECT_EQ(P().sends[2].flags, MSG_DONTWAIT);
    EXPECT_EQ(P().sends[2].data, Repeat12(116));
    EXPECT_EQ(append.msg, l2vfib_Batch->area);
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 1400, &append), L2VFIB_OK);  // the most that fits
    EXPECT_TRUE(P().sends.size() == 3u && append.msg == l2vfib_Batch->area);
}

}  // namespace
