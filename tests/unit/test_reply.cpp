// Immediate requests: a request answered on a fresh socket (with its
// bounded wait), identifier requests, the reply parser and the service's
// notices. (Messages sent alone are rows of the entry tests' table.)
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/state.h"
#include "test_support.h"

using namespace l2vt;

namespace {

const uint32_t kWord = 0x01020304;

Bytes Reply(const char *items) {
    const Bytes payload = Hex(items);
    return Hex("00 07 00") + Bytes{static_cast<uint8_t>(payload.size())} + Hex("00 00 01 08") +
           payload;
}

fake::RecvResult Datagram(const Bytes &b) { return fake::RecvResult::Datagram(b); }

using Answered = OpenLibraryTest;

// The request itself is checked with the catalogue; here the wait on the
// fresh socket: a receive time-out of 180 s, then one receive of 256 bytes.
TEST_F(Answered, FreshSocketWaitsAtMostThreeMinutes) {
    P().recvResults = {Datagram(Reply("00 25 00 04 60 01 00 04"))};
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), 0x60010004u);
    const uint32_t timeout[2] = {180, 0};  // two host-order words: seconds, microseconds
    const auto *bytes = reinterpret_cast<const uint8_t *>(timeout);
    ASSERT_EQ(P().opts.size(), 1u);
    EXPECT_EQ(std::tuple(P().opts[0].level, P().opts[0].name, P().opts[0].value),
              std::tuple(1, 0x1006, Bytes(bytes, bytes + sizeof timeout)));
    EXPECT_EQ(std::pair(P().recvs[0].room, P().recvs[0].flags),
              std::pair(size_t{256}, int{MSG_WAITALL}));
}

TEST_F(Answered, EveryFailureOfTheExchangeFailsAndClosesWhatWasOpened) {
    const Trace steps = {"socket 41", "connect 41", "setopt 41", "send 41", "recv 41"};
    struct Case {
        const char *name;
        fake::Script script;
        long reached;  // steps taken before the close
    };
    const Case cases[] = {
        {"no socket", {.socketFailures = 1}, 0},
        {"connect refused", {.connectErrors = {ECONNREFUSED}}, 2},
        {"no time-out", {.optFailures = 1}, 3},
        {"short send", {.sendResults = {15}}, 4},
        {"failed send", {.sendResults = {-EINTR}}, 4},
        {"failed receive", {.recvResults = {fake::RecvResult::Error(EAGAIN)}}, 5},
        {"three bytes back", {.recvResults = {Datagram(Hex("00 00 00"))}}, 5},
    };
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
    for (const Case &c : cases) {
        for (bool alloc : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.name << (alloc ? ", identifier" : ", answered"));
            P().ClearRecords();
            static_cast<fake::Script &>(P()) = c.script;
            P().nextFd = 41;
            // An identifier reply that would succeed if it were read.
            P().recvResults.push_back(Datagram(Reply("00 b8 00 04 00 00 00 09")));
            if (alloc)
                EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), -1);
            else
                EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
            Trace trace(steps.begin(), steps.begin() + c.reached);
            trace.push_back(c.reached == 0 ? "socket failed" : "close 41");
            EXPECT_EQ(P().trace, trace);
            EXPECT_EQ(Used(), 12);  // the queue is not touched
        }
    }
}

// Each reply through the parser (with and without an identifier variable),
// an answered request and an identifier request.
TEST_F(Answered, OnlyItem37IsAResultAndOnlyItem184AnIdentifier) {
    struct Case {
        Bytes reply;
        uint32_t result;
        uint32_t identifier;  // what the identifier variable holds afterwards
    };
    const Case cases[] = {
        {Reply("00 25 00 04 00 00 00 00"), 0, 0xFFFFFFFF},
        {Reply("00 25 00 04 87 65 43 21 | 00 b8 00 04 00 00 00 01"), 0x87654321u, 0xFFFFFFFF},
        {Reply("00 b8 00 04 00 00 00 09"), L2VFIB_ERR_FAIL, 9},
        {Reply("00 b8 00 04 80 00 00 00 | 00 25 00 04 00 00 00 00"), L2VFIB_ERR_FAIL, 0x80000000u},
        {Reply("00 24 00 04 00 00 00 09"), L2VFIB_ERR_FAIL, 0xFFFFFFFF},  // a notice
        {Hex("00 00 00 00 00 00 00 00 00 25 00"), L2VFIB_ERR_FAIL, 0xFFFFFFFF},  // 11 bytes
        {Hex("00 00 00 04 00 00 00 00 00 25 00 00"), L2VFIB_ERR_FAIL, 0xFFFFFFFF},  // no value
        {Hex("00 00 00 08 00 00 00 00 00 25 00 05 00 00 00 00"), L2VFIB_ERR_FAIL, 0xFFFFFFFF},
        {Hex("00 00 00 09 00 00 00 00 00 b8 00 04 00 00 00 07"), L2VFIB_ERR_FAIL, 0xFFFFFFFF},
        // A length shorter than the datagram is accepted; only the first item counts.
        {Hex("00 00 00 00 00 00 00 00 00 25 00 04 00 00 00 03"), 3, 0xFFFFFFFF},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(ToHex(c.reply));
        const auto length = static_cast<int32_t>(c.reply.size());
        uint32_t identifier = 0xFFFFFFFF;
        EXPECT_EQ(l2vfib_ParseReply(c.reply.data(), length, &identifier), c.result);
        EXPECT_EQ(identifier, c.identifier);
        EXPECT_EQ(l2vfib_ParseReply(c.reply.data(), length, nullptr), c.result);
        P().recvResults = {Datagram(c.reply), Datagram(c.reply)};
        EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), c.result);
        EXPECT_EQ(L2VFIB_AllocECID(18, &kWord, nullptr), static_cast<int32_t>(c.identifier));
    }
    const Bytes good = Reply("00 25 00 04 00 00 00 00");
    EXPECT_EQ(l2vfib_ParseReply(good.data(), -1, nullptr), L2VFIB_ERR_FAIL);
    // A reply longer than 256 bytes is cut, so its length overruns what was read.
    P().recvResults = {Datagram(Hex("00 00 01 24 00 00 00 00 00 25 00 04 00 00 00 00") +
                                Bytes(284, 0))};
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &kWord, nullptr), L2VFIB_ERR_FAIL);
}

using Notice = OpenLibraryTest;

// Only a whole notice (item 36, a value of four bytes or more) reaches the
// callback, in host order; the receive takes up to 1400 bytes and waits.
TEST_F(Notice, OnlyAWholeNoticeReachesTheCallback) {
    struct Case {
        fake::RecvResult datagram;
        uint32_t result;
    };
    const Case cases[] = {
        {Datagram(Reply("00 24 00 04 80 00 00 2a")), L2VFIB_OK},
        {fake::RecvResult::Error(EAGAIN), L2VFIB_ERR_FAIL},
        {Datagram(Hex("00 00 00 00 00 00 00 00")), L2VFIB_ERR_FAIL},
        {Datagram(Hex("00 00 00 01 00 00 00 00 00")), L2VFIB_ERR_BAD_MSG},
        {Datagram(Hex("00 00 00 03 00 00 00 00 00 24 00")), L2VFIB_ERR_BAD_MSG},
        {Datagram(Hex("00 00 00 09 00 00 00 00 00 24 00 04 00 00 00 01")), L2VFIB_ERR_BAD_MSG},
        {Datagram(Reply("00 25 00 04 00 00 00 01")), L2VFIB_ERR_BAD_MSG},
        {Datagram(Hex("00 00 00 08 00 00 00 00 00 24 00 05 00 00 00 01")), L2VFIB_ERR_FAIL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(ToHex(c.datagram.datagram));
        P().recvResults = {c.datagram};
        EXPECT_EQ(L2VFIB_HandleMsg(fd_), c.result);
    }
    EXPECT_EQ(g_notices, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 0x8000002au}}));
    EXPECT_EQ(std::tuple(P().recvs[0].fd, P().recvs[0].room, P().recvs[0].flags),
              std::tuple(fd_, size_t{1400}, int{MSG_WAITALL}));
    l2vfib_Batch->msgCallback = nullptr;
    P().recvResults = {Datagram(Reply("00 24 00 04 00 00 00 01"))};
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    EXPECT_EQ(g_notices.size(), 1u);
}

}  // namespace
