// Immediate requests: a message sent alone on the service socket, a request
// answered on a fresh socket (with its bounded wait), identifier requests,
// the reply parser and the service's notices.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/state.h"
#include "test_support.h"

using namespace l2vt;

namespace {

const uint32_t kWord = 0x01020304;
// Code 18 (answered) with kWord, as it goes out.
const Bytes kRequest18 = Hex("00 01 00 08 00 00 01 08 | 00 64 00 04 01 02 03 04");

Bytes Reply(const char *items) {
    const Bytes payload = Hex(items);
    return Hex("00 07 00") + Bytes{static_cast<uint8_t>(payload.size())} + Hex("00 00 01 08") +
           payload;
}

using Answered = OpenLibraryTest;

TEST_F(Answered, FreshSocketWaitsAtMostThreeMinutesAndIsClosed) {
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 25 00 04 40 01 00 01")));
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), 0x40010001u);
    EXPECT_EQ(P().trace, (std::vector<std::string>{"socket 41", "connect 41", "setopt 41",
                                                   "send 41", "recv 41", "close 41"}));
    ASSERT_EQ(P().opts.size(), 1u);
    EXPECT_EQ(P().opts[0].level, 1);
    EXPECT_EQ(P().opts[0].name, 0x1006);
    ASSERT_EQ(P().opts[0].value.size(), 8u);
    uint32_t timeout[2];  // two host-order words: seconds, microseconds
    std::memcpy(timeout, P().opts[0].value.data(), sizeof timeout);
    EXPECT_EQ(timeout[0], 180u);
    EXPECT_EQ(timeout[1], 0u);
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 0a 6e 80 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(P().sends[0].data, kRequest18);
    EXPECT_EQ(P().recvs[0].room, 256u);
    EXPECT_EQ(P().recvs[0].flags, MSG_WAITALL);
}

TEST_F(Answered, EveryFailureOfTheExchangeFailsAndClosesWhatWasOpened) {
    struct Case {
        const char *name;
        void (*script)(fake::Platform &);
        std::vector<std::string> trace;
    };
    const Case cases[] = {
        {"no socket", [](fake::Platform &p) { p.socketFailures = 1; }, {"socket failed"}},
        {"connect refused", [](fake::Platform &p) { p.connectErrors = {ECONNREFUSED}; },
         {"socket 41", "connect 41", "close 41"}},
        {"no time-out", [](fake::Platform &p) { p.optFailures = 1; },
         {"socket 41", "connect 41", "setopt 41", "close 41"}},
        {"short send", [](fake::Platform &p) { p.sendResults = {fake::SendResult::Short(15)}; },
         {"socket 41", "connect 41", "setopt 41", "send 41", "close 41"}},
        {"failed send", [](fake::Platform &p) { p.sendResults = {fake::SendResult::Error(EINTR)}; },
         {"socket 41", "connect 41", "setopt 41", "send 41", "close 41"}},
        {"failed receive",
         [](fake::Platform &p) { p.recvResults = {fake::RecvResult::Error(EAGAIN)}; },
         {"socket 41", "connect 41", "setopt 41", "send 41", "recv 41", "close 41"}},
        {"three bytes back",
         [](fake::Platform &p) { p.recvResults = {fake::RecvResult::Datagram(Hex("00 00 00"))}; },
         {"socket 41", "connect 41", "setopt 41", "send 41", "recv 41", "close 41"}},
    };
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
    for (const Case &c : cases) {
        for (bool alloc : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.name << (alloc ? ", identifier" : ", answered"));
            fake::Get().nextFd = 41;
            c.script(P());
            // An identifier reply that would succeed if it were read.
            P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 b8 00 04 00 00 00 09")));
            if (alloc)
                EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), -1);
            else
                EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
            EXPECT_EQ(P().trace, c.trace);
            EXPECT_EQ(Used(), 12);  // the queue is not touched
            P().ClearRecords();
            P().recvResults.clear();
            P().sendResults.clear();
        }
    }
}

TEST_F(Answered, RepliesThatCarryNoResultFail) {
    for (const Bytes &reply : {
             Reply("00 b8 00 04 00 00 00 09"),            // an identifier
             Reply("00 24 00 04 00 00 00 09"),            // a notice
             Hex("00 00 00 04 00 00 00 00 00 25 00"),      // 11 bytes
             Hex("00 00 00 09 00 00 00 00 00 25 00 04 00 00 00 00"),  // length overruns
             Hex("00 00 00 08 00 00 00 00 00 25 00 05 00 00 00 00"),  // item overruns
             Hex("00 00 00 04 00 00 00 00 00 25 00 00"),   // no value to read
             Hex("00 00 01 24 00 00 00 00 00 25 00 04 00 00 00 00") + Bytes(284, 0),  // cut to 256
         }) {
        SCOPED_TRACE(ToHex(reply));
        P().recvResults.push_back(fake::RecvResult::Datagram(reply));
        EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
    }
}

TEST_F(Answered, IdentifierComesOnlyFromItem184) {
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 b8 00 04 7f ff ff fe")));
    EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), 0x7ffffffe);
    EXPECT_EQ(P().sends[0].data, kRequest18);
    EXPECT_EQ(P().sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(P().closes, std::vector<int>{41});
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 25 00 04 00 00 00 05")));
    EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), -1);
}

using AnsweredClosed = LibraryTest;

TEST_F(AnsweredClosed, IdentifierRequestNeedsTheLibraryOpen) {
    EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), -1);
    EXPECT_TRUE(P().trace.empty());
}

using Alone = OpenLibraryTest;

TEST_F(Alone, InterruptedSendIsRepeatedAndOnlyAWholeSendSucceeds) {
    P().sendResults = {fake::SendResult::Error(EINTR), fake::SendResult::Error(EINTR)};
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 21, 0, &kWord, nullptr), L2VFIB_OK);
    ASSERT_EQ(P().sends.size(), 3u);
    for (const auto &send : P().sends) EXPECT_EQ(send.fd, fd_);
    P().sendResults = {fake::SendResult::Short(11)};
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 21, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
    P().sendResults = {fake::SendResult::Error(EPIPE)};
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 21, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
    EXPECT_TRUE(P().sockets.empty());
    EXPECT_TRUE(P().recvs.empty());
}

TEST(ParseReply, ResultIdentifierAndRefusals) {
    struct Case {
        Bytes reply;
        uint32_t result;
        uint32_t out;  // what the output variable holds afterwards
    };
    const Case cases[] = {
        {Reply("00 25 00 04 00 00 00 00"), 0, 0x55},
        {Reply("00 25 00 04 87 65 43 21 | 00 b8 00 04 00 00 00 01"), 0x87654321u, 0x55},
        {Reply("00 b8 00 04 00 00 00 09"), L2VFIB_ERR_FAIL, 9},
        {Reply("00 26 00 04 00 00 00 09"), L2VFIB_ERR_FAIL, 0x55},
        {Hex("00 00 00 00 00 00 00 00 00 25 00"), L2VFIB_ERR_FAIL, 0x55},
        {Hex("00 00 00 04 00 00 00 00 00 b8 00 00"), L2VFIB_ERR_FAIL, 0x55},  // no value
        {Hex("00 00 00 09 00 00 00 00 00 25 00 04 00 00 00 00"), L2VFIB_ERR_FAIL, 0x55},
        // A length shorter than the datagram is accepted; only the first item counts.
        {Hex("00 00 00 00 00 00 00 00 00 25 00 04 00 00 00 03"), 3, 0x55},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(ToHex(c.reply));
        uint32_t out = 0x55;
        EXPECT_EQ(l2vfib_ParseReply(c.reply.data(), static_cast<int32_t>(c.reply.size()), &out),
                  c.result);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(l2vfib_ParseReply(c.reply.data(), static_cast<int32_t>(c.reply.size()), nullptr),
                  c.result);
    }
    const Bytes good = Reply("00 25 00 04 00 00 00 00");
    EXPECT_EQ(l2vfib_ParseReply(good.data(), -1, nullptr), L2VFIB_ERR_FAIL);
}

using Notice = OpenLibraryTest;

TEST_F(Notice, ValidNoticeReachesTheCallbackInHostOrder) {
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 24 00 04 80 00 00 2a")));
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    ASSERT_EQ(P().recvs.size(), 1u);
    EXPECT_EQ(P().recvs[0].fd, fd_);
    EXPECT_EQ(P().recvs[0].room, 1400u);
    EXPECT_EQ(P().recvs[0].flags, MSG_WAITALL);
    EXPECT_EQ(Notices(), (std::vector<std::pair<uint32_t, uint32_t>>{{1, 0x8000002au}}));
}

TEST_F(Notice, MalformedOrUnreadableNoticesReachNoCallback) {
    struct Case {
        fake::RecvResult datagram;
        uint32_t result;
    };
    const Case cases[] = {
        {fake::RecvResult::Error(EAGAIN), L2VFIB_ERR_FAIL},
        {fake::RecvResult::Datagram(Hex("00 00 00 00 00 00 00 00")), L2VFIB_ERR_FAIL},
        {fake::RecvResult::Datagram(Hex("00 00 00 01 00 00 00 00 00")), L2VFIB_ERR_BAD_MSG},
        {fake::RecvResult::Datagram(Hex("00 00 00 03 00 00 00 00 00 24 00")), L2VFIB_ERR_BAD_MSG},
        {fake::RecvResult::Datagram(Hex("00 00 00 09 00 00 00 00 00 24 00 04 00 00 00 01")),
         L2VFIB_ERR_BAD_MSG},
        {fake::RecvResult::Datagram(Reply("00 25 00 04 00 00 00 01")), L2VFIB_ERR_BAD_MSG},
        {fake::RecvResult::Datagram(Hex("00 00 00 08 00 00 00 00 00 24 00 05 00 00 00 01")),
         L2VFIB_ERR_FAIL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(ToHex(c.datagram.datagram));
        P().recvResults.push_back(c.datagram);
        EXPECT_EQ(L2VFIB_HandleMsg(fd_), c.result);
    }
    EXPECT_TRUE(Notices().empty());
}

TEST_F(Notice, NoCallbackIsFineAndNoLibraryReadsNothing) {
    L2VFIB_Close(fd_);
    fd_ = L2VFIB_Open(nullptr);
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 24 00 04 00 00 00 01")));
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    L2VFIB_Close(fd_);
    P().ClearRecords();
    P().recvResults.push_back(fake::RecvResult::Datagram(Reply("00 24 00 04 00 00 00 01")));
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_ERR_NOT_OPEN);
    EXPECT_TRUE(P().recvs.empty());
    EXPECT_TRUE(Notices().empty());
}

}  // namespace
