// Opening and closing, the device capabilities, the batch buffer behind
// L2VFIB_Send_Cfg and the flushes, and the append protocol of the direct
// entry functions.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>

#include "l2vfib.h"
#include "l2vfib_platform.h"
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

TEST_F(OpenClose, OpenConnectsTheServiceSocketAndQueriesTheCapabilities) {
    fd_ = L2VFIB_Open(&RecordNotice);
    ASSERT_EQ(fd_, 40);
    ASSERT_EQ(P().sockets.size(), 1u);
    EXPECT_EQ(P().sockets[0].family, 37);
    EXPECT_EQ(P().sockets[0].type, SOCK_DGRAM);
    EXPECT_EQ(P().sockets[0].protocol, 1);
    ASSERT_EQ(P().connects.size(), 1u);
    EXPECT_EQ(P().connects[0].fd, 40);
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 0a 6e 80 00 00 00 00 00 00 00 00 00 00 00");
    ASSERT_EQ(P().controls.size(), 1u);
    const fake::ControlCall &query = P().controls[0];
    EXPECT_FALSE(query.async);
    EXPECT_EQ(query.target, 0x8000u);
    EXPECT_EQ(query.code, 0x440002u);
    EXPECT_TRUE(query.input.empty());
    EXPECT_EQ(query.answerRoom, 512u);
    EXPECT_TRUE(query.hasAnswer && query.hasAnswerLength);
    EXPECT_TRUE(P().sends.empty());
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

TEST_F(OpenClose, ConnectIsRetriedOnInterruptAndAlreadyConnectedCounts) {
    P().connectErrors = {EINTR, EINTR, 0};
    fd_ = L2VFIB_Open(nullptr);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(P().connects.size(), 3u);
    L2VFIB_Close(fd_);

    fake::Reset();
    P().connectErrors = {EISCONN};
    fd_ = L2VFIB_Open(nullptr);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(P().connects.size(), 1u);
}

TEST_F(OpenClose, FailuresToConnectLeaveTheLibraryClosedAndNoSocketOpen) {
    P().socketFailures = 1;
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_TRUE(P().connects.empty());

    P().connectErrors = {ECONNREFUSED};
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_EQ(P().closes, std::vector<int>{40});
    EXPECT_TRUE(P().controls.empty());
    EXPECT_EQ(L2VFIB_Send_Cfg(40, 73, 1, nullptr, nullptr), L2VFIB_ERR_NOT_OPEN);
}

TEST_F(OpenClose, SecondOpenFailsAndLeavesTheFirstAlone) {
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().ClearRecords();
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_TRUE(P().trace.empty());
    EXPECT_TRUE(P().controls.empty());
    EXPECT_EQ(ToHex(Queued()), ToHex(kMsg12));
}

TEST_F(OpenClose, CloseDiscardsTheQueueAndReturnsWhatCloseReturned) {
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().closeResult = -1;
    EXPECT_EQ(L2VFIB_Close(fd_), -1);
    EXPECT_TRUE(P().sends.empty());
    EXPECT_EQ(P().closes, std::vector<int>{fd_});
    EXPECT_EQ(l2vfib_Batch, nullptr);
    EXPECT_EQ(Queue12(fd_), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Close(7), -1);  // closed already: only the socket
    EXPECT_EQ(P().closes, (std::vector<int>{fd_, 7}));
}

TEST_F(OpenClose, NothingSendsBeforeOpen) {
    EXPECT_EQ(L2VFIB_Send_Cfg(3, 73, 1, nullptr, nullptr), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_Send_Cfg(3, 18, 0, &kWord42, nullptr), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(L2VFIB_FlushEntry(3), L2VFIB_ERR_NOT_OPEN);
    EXPECT_EQ(l2vfib_FlushNoWait(3), L2VFIB_ERR_NOT_OPEN);
    l2vfib::Append append{};
    EXPECT_EQ(l2vfib::AppendBegin(3, 20, &append), L2VFIB_ERR_NOT_OPEN);
    EXPECT_TRUE(P().trace.empty());
}

TEST_F(OpenClose, CapabilityAnswerFillsTheCountsAndAFailedQueryKeepsThem) {
    Bytes answer(64, 0xEE);
    answer[8] = 1, answer[9] = 2, answer[10] = 3, answer[11] = 4, answer[40] = 5;
    P().controlResults.push_back({0, answer, std::nullopt});
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_GE(fd_, 0);
    auto counts = [] {
        return std::vector<int>{l2vfib_Caps.fillWords22, l2vfib_Caps.fillWords13,
                                l2vfib_Caps.fillWords21, l2vfib_Caps.fillWords33,
                                l2vfib_Caps.fillWords39};
    };
    EXPECT_EQ(counts(), (std::vector<int>{1, 2, 3, 4, 5}));

    // Neither a failed query nor an empty answer changes them; open still works.
    for (fake::ControlResult r : {fake::ControlResult{1, Bytes(64, 9), std::nullopt},
                                  fake::ControlResult{0, Bytes(64, 9), 0u}}) {
        L2VFIB_Close(fd_);
        P().controlResults.push_back(r);
        fd_ = L2VFIB_Open(nullptr);
        EXPECT_GE(fd_, 0);
        EXPECT_EQ(counts(), (std::vector<int>{1, 2, 3, 4, 5}));
    }
}

using Batch = OpenLibraryTest;

TEST_F(Batch, FlushWithNothingQueuedSendsNothing) {
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    EXPECT_EQ(l2vfib_FlushNoWait(fd_), L2VFIB_OK);
    EXPECT_TRUE(P().sends.empty());
}

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
    EXPECT_EQ(P().sends[0].data, Repeat(kMsg12, 114) + kMsg16 + kMsg16);
    EXPECT_EQ(ToHex(Queued()), ToHex(kMsg12));
    EXPECT_EQ(Area(), kMsg12 + Bytes(L2VFIB_BATCH_SIZE - 12, 0));
}

TEST_F(Batch, FailedFlushForRoomKeepsTheQueueAndRefusesTheMessage) {
    for (int i = 0; i < 116; ++i) ASSERT_EQ(Queue12(fd_), L2VFIB_OK);  // 1392 bytes
    const Bytes before = Area();
    P().sendResults.push_back(fake::SendResult::Error(EIO));
    EXPECT_EQ(Queue16(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Area(), before);
    EXPECT_EQ(Used(), 1392);
}

TEST_F(Batch, ShortOrFailedSendKeepsTheQueueForTheNextFlush) {
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(Queue16(fd_), L2VFIB_OK);
    for (fake::SendResult r : {fake::SendResult::Short(27), fake::SendResult::Error(EIO)}) {
        P().sendResults.push_back(r);
        EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_ERR_FAIL);
        EXPECT_EQ(Queued(), kMsg12 + kMsg16);
    }
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 3u);
    for (const auto &send : P().sends) EXPECT_EQ(send.data, kMsg12 + kMsg16);
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

TEST_F(Batch, BlockingFlushRetriesInterruptsAndTheNonBlockingOneDoesNot) {
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().sendResults = {fake::SendResult::Error(EINTR), fake::SendResult::Error(EINTR)};
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 3u);
    for (const auto &send : P().sends) EXPECT_EQ(send.flags, 0);

    P().ClearRecords();
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    P().sendResults = {fake::SendResult::Error(EINTR)};
    EXPECT_EQ(l2vfib_FlushNoWait(fd_), L2VFIB_ERR_FAIL);
    EXPECT_EQ(Queued(), kMsg12);
    EXPECT_EQ(l2vfib_FlushNoWait(fd_), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 2u);
    for (const auto &send : P().sends) EXPECT_EQ(send.flags, MSG_DONTWAIT);
    EXPECT_EQ(Used(), 0);
}

TEST_F(Batch, AMessageSentAloneLeavesTheQueueAsItWas) {
    ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 71, 0, nullptr, nullptr), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data), "00 01 00 04 00 00 01 08 00 6a 00 00");
    EXPECT_EQ(Queued(), kMsg12);
}

// The append protocol, with a message of one item whose value is n bytes.
void AppendItem(l2vfib::Append &append, uint8_t n) {
    const Bytes value(n, n);
    const uint32_t written = STLV_Set(append.pos, static_cast<uint32_t>(append.end - append.pos),
                                      0x0a, n, value.data());
    ASSERT_EQ(written, 4u + n);
    append.pos += written;
}

TEST_F(Batch, AppendsQueueWholeMessagesAtAnyByte) {
    l2vfib::Append append{};
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 13, &append), L2VFIB_OK);
    EXPECT_EQ(append.end - append.msg, 1400);
    AppendItem(append, 1);
    l2vfib::AppendEnd(append, 3, 5, 0x127);  // byte 7 keeps its low 8 bits
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 14, &append), L2VFIB_OK);
    EXPECT_EQ(append.end - append.msg, 1387);
    AppendItem(append, 2);
    l2vfib::AppendEnd(append, 0x0102, 7, 0);
    EXPECT_EQ(ToHex(Queued()), ToHex(Hex("00 03 00 05 00 00 05 27 | 00 0a 00 01 01"
                                         "01 02 00 06 00 00 07 00 | 00 0a 00 02 02 02")));
    EXPECT_TRUE(P().sends.empty());
}

TEST_F(Batch, AppendFlushesWithoutBlockingOnlyWhenTheMessageDoesNotFit) {
    for (int i = 0; i < 116; ++i) ASSERT_EQ(Queue12(fd_), L2VFIB_OK);  // 8 bytes free
    l2vfib::Append append{};
    ASSERT_EQ(l2vfib::AppendBegin(fd_, 8, &append), L2VFIB_OK);
    EXPECT_TRUE(P().sends.empty());
    EXPECT_EQ(append.msg, l2vfib_Batch->area + 1392);

    ASSERT_EQ(l2vfib::AppendBegin(fd_, 9, &append), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(P().sends[0].data, Repeat(kMsg12, 116));
    EXPECT_EQ(append.msg, l2vfib_Batch->area);
}

TEST_F(Batch, AppendThatCannotFlushOrCannotEverFitChangesNothing) {
    for (int i = 0; i < 116; ++i) ASSERT_EQ(Queue12(fd_), L2VFIB_OK);
    const Bytes before = Area();
    l2vfib::Append append{};
    P().sendResults.push_back(fake::SendResult::Short(1));
    EXPECT_EQ(l2vfib::AppendBegin(fd_, 20, &append), L2VFIB_ERR_FAIL);
    EXPECT_EQ(P().sends.size(), 1u);

    P().ClearRecords();
    EXPECT_EQ(l2vfib::AppendBegin(fd_, 1401, &append), L2VFIB_ERR_FAIL);
    EXPECT_TRUE(P().sends.empty());
    EXPECT_EQ(Area(), before);
    EXPECT_EQ(Used(), 1392);

    ASSERT_EQ(l2vfib::AppendBegin(fd_, 1400, &append), L2VFIB_OK);  // the most that fits
    EXPECT_EQ(append.msg, l2vfib_Batch->area);
}

}  // namespace
