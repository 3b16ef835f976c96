// The C++ face (l2vfib.hpp), where it adds behaviour to the C calls: result
// codes as std::error_code, the session and event channel closing on every
// path, the session that retries when the service is busy, and the
// process-wide callback slots. What the wrapped calls send is the C tests'.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>

#include "l2vfib.hpp"
#include "test_support.h"

using namespace l2vt;
using fake::RecvResult;

namespace {

class Face : public LibraryTest {};

// Counts how many copies of a callable are alive, so a test sees the slot
// let go of it.
struct Alive {
    int *count;
    explicit Alive(int *c) : count(c) { ++*count; }
    Alive(Alive &&o) noexcept : count(o.count) { ++*count; }
    ~Alive() { --*count; }
};

const L2VFIB_EntryKey kKey = {0x0A0B0C0Du, 0x1234};
// A reply whose result item says 3, a notice of value 7, an event datagram
// (tag 7) of one type-3 item.
const char *const kReply3 = "00 00 00 00 00 00 00 00 | 00 25 00 04 00 00 00 03";
const char *const kNotice7 = "00 00 00 08 00 00 00 00 | 00 24 00 04 00 00 00 07";
const char *const kEvent = "00 00 00 10 00 07 00 00 | 00 03 00 0c 00000001 00000002 00 09 00 00";

TEST(FaceResults, CodesReadAsErrcAndInWords) {
    struct Row {
        uint32_t code;
        bool failed;
        std::error_code as;  // the errc it equals, if any
        const char *message;
    } const rows[] = {
        {L2VFIB_OK, false, {}, "ok"},
        {L2VFIB_ERR_FAIL, true, l2vfib::errc::fail,
         "the call failed: refused, or an encode, send, receive or parse failed"},
        {L2VFIB_ERR_NOT_OPEN, true, l2vfib::errc::not_open, "the library is not open"},
        {L2VFIB_ERR_BAD_MSG, true, l2vfib::errc::bad_msg, "a malformed notice arrived from the service"},
        {L2VFIB_ERR_NO_DATA, true, l2vfib::errc::no_data, "nothing was waiting on the event socket"},
        {0x80000003u, true, {}, "a result of the service's own: 0x80000003"},
    };
    for (const Row &row : rows) {
        const std::error_code ec = l2vfib::to_error(row.code);
        EXPECT_EQ(static_cast<bool>(ec), row.failed) << row.message;
        EXPECT_EQ(static_cast<uint32_t>(ec.value()), row.code);
        EXPECT_STREQ(ec.category().name(), "l2vfib");
        EXPECT_EQ(ec.message(), row.message);
        for (auto e : {l2vfib::errc::fail, l2vfib::errc::not_open, l2vfib::errc::bad_msg,
                       l2vfib::errc::no_data})
            EXPECT_EQ(ec == e, row.as == make_error_code(e)) << row.message;
    }
    EXPECT_STREQ(l2vfib_result_name(L2VFIB_ERR_NOT_OPEN), "the library is not open");
}

// No service: nothing open, nothing left in the slot. Open: a second
// session fails and leaves the first, callback and all; moving hands the
// socket over; the last owner closes once and lets go of the callable.
TEST_F(Face, SessionOpensOnceAndClosesOnce) {
    int alive = 0;
    uint32_t seen = 0;
    P().socketFailures = 1;
    {
        auto none = l2vfib::Session::open([a = Alive(&alive)](uint32_t, uint32_t) {});
        EXPECT_EQ(none.error(), l2vfib::errc::fail);
    }
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(l2vfib_Batch, nullptr);
    {
        auto first = l2vfib::Session::open(
            [a = Alive(&alive), &seen](uint32_t kind, uint32_t value) { seen = kind << 16 | value; });
        ASSERT_TRUE(first);
        auto second = l2vfib::Session::open([&seen](uint32_t, uint32_t) { seen = 0xBAD; });
        EXPECT_EQ(second.error(), l2vfib::errc::fail);
        EXPECT_FALSE(second->is_open());

        l2vfib::Session moved = std::move(*first);
        EXPECT_FALSE(first->is_open());
        P().recvResults = {RecvResult::Datagram(Hex(kNotice7))};
        EXPECT_FALSE(moved.handle_msg());
        EXPECT_EQ(seen, 0x10007u);
        EXPECT_EQ(alive, 1);
        P().ClearRecords();
    }
    EXPECT_EQ(P().closes, std::vector<int>{40});
    EXPECT_EQ(alive, 0);
    EXPECT_EQ(l2vfib_Batch, nullptr);
}

TEST_F(Face, ValuesOrWhyNot) {
    auto session = l2vfib::Session::open();
    ASSERT_TRUE(session);
    const uint32_t word = 9;
    // An answered command: the service's own result is the value.
    P().recvResults = {RecvResult::Datagram(Hex(kReply3))};
    const auto answer = session->ask(18, &word);
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, 3u);
    EXPECT_EQ(session->ask(18, &word).error(), l2vfib::errc::fail);  // nothing came back
    EXPECT_EQ(session->alloc_ecid(18, &word).error(), l2vfib::errc::fail);
    // A list or block longer than the C call takes is refused, not cut.
    static const uint32_t members[0x10000] = {};
    static const std::byte block[0x10000] = {};
    P().ClearRecords();
    EXPECT_EQ(session->add_ebg_members(8, {42}, members), l2vfib::errc::fail);
    EXPECT_EQ(session->add_pw(8, kKey, block), l2vfib::errc::fail);
    EXPECT_TRUE(P().trace.empty());
    // An encoder's block is the part of the room it filled, or nothing.
    const L2VFIB_LpwEntry pw = {};
    std::byte room[512];
    EXPECT_EQ(l2vfib::encode(pw, room).size(), L2VFIB_EncLpwEntry(&pw, sizeof room, room));
    EXPECT_TRUE(l2vfib::encode(pw, std::span(room).first(8)).empty());
}

// A full batch and a refused flush for room: a reporting session says so
// and leaves the queue; a retrying one sends the queue with the waiting
// flush and queues the message, once, and reports a waiting flush that
// fails too.
TEST_F(Face, RetryingSessionFlushesAndCallsOnceMore) {
    const uint16_t kDelPw = 20;  // header, key item of 8 bytes
    struct Row {
        const char *name;
        bool retry;
        std::deque<long> sends;
        bool ok;
        std::vector<int> flags;  // of each send
        uint16_t used;           // queued after
    } const rows[] = {
        {"reporting", false, {-EAGAIN}, false, {MSG_DONTWAIT}, L2VFIB_BATCH_SIZE},
        {"retrying", true, {-EAGAIN}, true, {MSG_DONTWAIT, 0}, kDelPw},
        {"retrying, flush fails", true, {-EAGAIN, -EIO}, false, {MSG_DONTWAIT, 0}, L2VFIB_BATCH_SIZE},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        uint16_t used = 0;
        auto call = [&](auto &&session) {
            P().ClearRecords();
            l2vfib_Batch->used = L2VFIB_BATCH_SIZE;
            P().sendResults = row.sends;
            const std::error_code ec = session->del_pw(8, kKey);
            used = Used();
            return ec;
        };
        const std::error_code ec = row.retry ? call(l2vfib::RetryingSession::open())
                                             : call(l2vfib::Session::open());
        EXPECT_EQ(!ec, row.ok);
        std::vector<int> flags;
        for (const auto &s : P().sends) flags.push_back(s.flags & MSG_DONTWAIT);
        EXPECT_EQ(flags, row.flags);
        EXPECT_EQ(used, row.used);
        EXPECT_EQ(l2vfib_Batch, nullptr);  // closed with the session
    }
}

// After a restart: the session opens again once the service is back, with
// its notice callable, and returns what the daemon's programming returns;
// a service that does not come back in time leaves it closed, callable
// let go.
TEST_F(Face, SessionReopensAfterARestart) {
    struct Row {
        const char *name;
        int failures;  // opens refused before the service is back
        long patience;
        std::error_code ec;
        bool programmed;
    } const rows[] = {
        {"back at once", 0, 0, {}, true},
        {"back after two tries", 2, 1000, l2vfib::errc::no_data, true},
        {"not back in time", 3, 100, l2vfib::errc::fail, false},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        int alive = 0;
        uint32_t seen = 0;
        auto session = l2vfib::Session::open([a = Alive(&alive), &seen](uint32_t, uint32_t v) { seen = v; });
        ASSERT_TRUE(session);
        P().socketFailures = row.failures;
        bool programmed = false;
        const std::error_code ec = session->reopen(
            [&](l2vfib::Session &s) {
                programmed = s.is_open();
                return row.programmed && row.failures ? make_error_code(l2vfib::errc::no_data) : std::error_code{};
            },
            std::chrono::milliseconds(row.patience));
        EXPECT_EQ(ec, row.ec);
        EXPECT_EQ(programmed, row.programmed);
        EXPECT_EQ(session->is_open(), row.programmed);
        EXPECT_EQ(alive, row.programmed ? 1 : 0);
        if (row.programmed) {
            P().recvResults = {RecvResult::Datagram(Hex(kNotice7))};
            EXPECT_FALSE(session->handle_msg());
            EXPECT_EQ(seen, 7u);
        }
    }
}

// The event callable gets each item and its result becomes handle()'s; the
// channel closes once and takes its callable out of the library; a failed
// open leaves nothing.
TEST_F(Face, EventChannelDispatchesToItsCallable) {
    int alive = 0;
    uint32_t words = 0;
    {
        auto channel = l2vfib::EventChannel::open(5);
        ASSERT_TRUE(channel);
        EXPECT_FALSE(channel->reg(0x10, 0, [a = Alive(&alive), &words](uint32_t tag, const void *r) {
            words = tag << 8 | static_cast<const L2VFIB_EvtRecord3 *>(r)->word1;
            return l2vfib::errc::bad_msg;
        }));
        P().recvResults = {RecvResult::Datagram(Hex(kEvent))};
        EXPECT_EQ(channel->handle(), l2vfib::errc::bad_msg);
        EXPECT_EQ(words, 0x702u);
        EXPECT_EQ(channel->handle(), l2vfib::errc::no_data);
        EXPECT_EQ(alive, 1);
        P().ClearRecords();
    }
    EXPECT_EQ(P().closes.size(), 1u);
    EXPECT_EQ(alive, 0);
    // The library holds no callback of the closed channel's.
    const int32_t evt = L2VFIB_InitEvent(5);
    P().recvResults = {RecvResult::Datagram(Hex(kEvent))};
    EXPECT_EQ(L2VFIB_HandleEvtMsg(evt), L2VFIB_OK);
    L2VFIB_FiniEvent(evt);
    P().socketFailures = 1;
    EXPECT_EQ(l2vfib::EventChannel::open(5).error(), l2vfib::errc::fail);
}

}  // namespace
