// The event channel: the bytes of its messages, the socket's set-up, and the
// dispatch of event datagrams to the callback.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <functional>

#include "event/event.h"
#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// The channel word travels in host order: 5 and 8 as this host stores them.
const bool kLittle = std::endian::native == std::endian::little;
const char *const kFive = kLittle ? "05 00 00 00" : "00 00 00 05";
const char *const kEight = kLittle ? "08 00 00 00" : "00 00 00 08";

// What the callback saw: the tag and the record's bytes, as many as the
// test expects for that call (the record's own size).
std::vector<std::pair<uint32_t, Bytes>> g_events;
std::vector<size_t> g_sizes;
uint32_t OnEvent(uint32_t tag, const void *record) {
    const size_t n = g_events.size() < g_sizes.size() ? g_sizes[g_events.size()] : 0;
    const auto *p = static_cast<const uint8_t *>(record);
    g_events.emplace_back(tag, Bytes(p, p + n));
    return 0xC0DE0000u + static_cast<uint32_t>(g_events.size());
}

Trace Cat(Trace a, const Trace &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

template <typename Record>
Bytes Of(const Record &r) {
    const auto *p = reinterpret_cast<const uint8_t *>(&r);
    return Bytes(p, p + sizeof r);
}

// A field that stays as received, as it lies in memory.
uint32_t Raw(const char *hex) {
    uint32_t v;
    std::memcpy(&v, Hex(hex).data(), sizeof v);
    return v;
}

class Event : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        l2vfib_EventCallback = nullptr;
        g_events.clear();
    }
    void TearDown() override {
        l2vfib_EventCallback = nullptr;
        LibraryTest::TearDown();
    }
};

TEST_F(Event, EveryMessageOfTheChannel) {
    const uint32_t selector[3] = {0x01020304, 0x05060708, 0x090a0b0c};
    const auto reg = [&](uint16_t mask) {
        return [&, mask] { L2VFIB_RegEvent(7, mask, selector, 0xa1b2c3d4, &OnEvent, 0xeeff); };
    };
    const std::string tlv1 = " | 00 01 00 10 01 02 03 04 05 06 07 08 09 0a 0b 0c";
    const std::string head = "00 14 00 14 00 00 05 00" + tlv1;
    const std::string param = "00 14 00 20 00 00 05 00" + tlv1;
    const struct {
        std::function<void()> call;
        std::string message;
    } cases[] = {
        {[] { L2VFIB_InitEvent(5); },
         std::string("00 14 00 08 00 00 05 00 | 00 00 00 04 ") + kFive},
        {[] { L2VFIB_FiniEvent(7); },
         std::string("00 14 00 08 00 00 07 00 | 00 00 00 04 ") + kEight},
        {[] { L2VFIB_RegEvent(7, 0x0010, nullptr, 9, nullptr, 0x0102); },
         "00 14 00 14 00 00 05 00 | 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 00 10 01 02"},
        {reg(0x0000), head + " 00 00 ee ff"},
        {reg(0x3000), head + " 30 00 ee ff"},
        {reg(0x1010), param + " 10 10 ee ff | 00 04 00 08 a1 b2 c3 d4 10 10 ee ff"},
        {reg(0x2010), param + " 20 10 ee ff | 00 04 00 08 a1 b2 c3 d4 20 10 ee ff"},
        {reg(0xffff), param + " ff ff ee ff | 00 04 00 08 a1 b2 c3 d4 ff ff ee ff"},
        {[] { L2VFIB_DeregEvent(7, 0x1010, 0x11223344, 0x55667788); },
         "00 14 00 20 00 00 07 00 | 00 01 00 10 11 22 33 44 00 00 00 00 00 00 00 00 10 10 00 00"
         " | 00 04 00 08 55 66 77 88 10 10 00 00"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.message);
        P().ClearRecords();
        c.call();
        ASSERT_EQ(P().sends.size(), 1u);
        EXPECT_EQ(ToHex(P().sends[0].data), ToHex(Hex(c.message)));
        EXPECT_EQ(P().sends[0].flags, 0);
    }
}

TEST_F(Event, ChannelSetUpAndEveryFailureClosingTheSocket) {
    const Trace opened = {"socket 40", "setopt 40", "setopt 40", "connect 40"};
    const struct {
        fake::Script script;
        int32_t result;
        Trace trace;
    } cases[] = {
        {{}, 40, Cat(opened, {"send 40"})},
        {{.connectErrors = {EINTR, EISCONN}}, 40, Cat(opened, {"connect 40", "send 40"})},
        {{.sendResults = {-EINTR, -EPIPE}}, 40, Cat(opened, {"send 40", "send 40"})},
        {{.socketFailures = 1}, -1, {"socket failed"}},
        {{.optFailures = 1}, -1, {"socket 40", "setopt 40", "close 40"}},
        {{.optFailNames = {0x1006}}, -1, {"socket 40", "setopt 40", "setopt 40", "close 40"}},
        {{.connectErrors = {ECONNREFUSED}}, -1, Cat(opened, {"close 40"})},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.trace));
        fake::Reset();
        static_cast<fake::Script &>(P()) = c.script;
        P().localLip = 0x0a0b8001;
        EXPECT_EQ(L2VFIB_InitEvent(3), c.result);
        EXPECT_EQ(P().trace, c.trace);
    }
    // From the first row: both time-outs, then the event service on the local node.
    fake::Reset();
    P().localLip = 0x0a0b8001;
    ASSERT_EQ(L2VFIB_InitEvent(3), 40);
    EXPECT_EQ(std::tuple(P().sockets[0].family, P().sockets[0].type, P().sockets[0].protocol),
              std::tuple(37, SOCK_DGRAM, 1));
    const uint32_t timeout[2] = {180, 0};
    const Bytes value(reinterpret_cast<const uint8_t *>(timeout),
                      reinterpret_cast<const uint8_t *>(timeout) + sizeof timeout);
    ASSERT_EQ(P().opts.size(), 2u);
    EXPECT_EQ(std::tuple(P().opts[0].level, P().opts[0].name, P().opts[0].value),
              std::tuple(1, 0x1005, value));
    EXPECT_EQ(std::tuple(P().opts[1].level, P().opts[1].name, P().opts[1].value),
              std::tuple(1, 0x1006, value));
    EXPECT_EQ(P().lipQueries, std::vector<uint32_t>{0});
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 31 16 80 01 00 00 00 00 00 00 00 00 00 00");
    P().closeResult = -1;
    EXPECT_EQ(L2VFIB_FiniEvent(40), -1);
    EXPECT_EQ(P().closes, std::vector<int>{40});
}

TEST_F(Event, DispatchOfEachDatagram) {
    const L2VFIB_EvtRecord3 short3 = {0x0a0b0c0d, 0x01020000, 0, {0, 0}};
    const L2VFIB_EvtRecord3 full3 = {0x01020304, 0x05060708, 0x090a, {0x0b, 0x0c}};
    const L2VFIB_EvtRecord2 numbers = {1, 2, 93, 0xab, 0x0304, 5, 6, 7, 0x0809, {0xcd, 0xef},
                                       0x0a0b0c0d, 0x10111213, {0x14, 0x15, 0x16, 0x17},
                                       0x18191a1b, 0x1c1d1e1f};
    L2VFIB_EvtRecord2 raw = numbers;
    raw.kind = 92;
    raw.word5 = Raw("0a 0b 0c 0d"), raw.word6 = Raw("10 11 12 13");
    raw.word7 = Raw("18 19 1a 1b"), raw.word8 = Raw("1c 1d 1e 1f");
    L2VFIB_EvtRecord6 long6 = {0x11121314, 0x21222324, {}};
    std::memset(long6.raw0, 0x33, sizeof long6.raw0);
    const std::string item2 =
        "00 02 00 30 00 00 00 01 00 00 00 02 5d ab 03 04 00 00 00 05 00 00 00 06 00 00 00 07"
        " 08 09 cd ef 0a 0b 0c 0d 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f";
    std::string item2raw = item2;
    item2raw[37] = 'c';  // kind 0x5c
    std::string item6 = "00 06 00 2c 11 12 13 14 21 22 23 24";
    for (int i = 0; i < 36; ++i) item6 += i < 32 ? " 33" : " 44";
    const std::string short3hex = "00 03 00 06 0a 0b 0c 0d 01 02";
    const std::string full3hex = "01 02 03 04 05 06 07 08 09 0a 0b 0c";
    using Events = std::vector<std::pair<uint32_t, Bytes>>;
    const struct {
        std::string datagram;  // "none": nothing waiting
        bool callback;
        uint32_t result;
        Events events;
    } cases[] = {
        {"none", true, L2VFIB_ERR_NO_DATA, {}},
        {"", true, L2VFIB_ERR_NO_DATA, {}},
        {"00 14 00 08 00 00 00 00 | 00 07 00 04 00 00 00 01", true, L2VFIB_ERR_FAIL, {}},
        {"00 14 00 04 00 00 00 00 | 00 03 00 00 00 00 00 00", true, L2VFIB_ERR_FAIL, {}},
        {"00 14 00 0c 00 00 00 00 | 00 03 00 09 00 00 00 00 00 00 00 00", true, L2VFIB_ERR_FAIL,
         {}},
        {"00 14 00 0d 00 00 00 00 | " + short3hex + " 00 00", true, L2VFIB_ERR_BAD_MSG, {}},
        {"00 00 00 10", true, L2VFIB_ERR_BAD_MSG, {}},
        {"00 14 00", true, L2VFIB_ERR_FAIL, {}},
        {"00 14 00 44 01 02 07 09 | " + short3hex + " | 00 09 00 02 ff ff | " + item2, true,
         0xC0DE0002u, {{258, Of(short3)}, {258, Of(numbers)}}},
        {"00 14 00 34 00 00 00 00 | " + item2raw, true, 0xC0DE0001u, {{0, Of(raw)}}},
        // A long value is cut; the walk goes on behind it, not behind the record.
        {"ab cd 00 40 ff fe 00 00 | " + item6 + " | 00 03 00 0c " + full3hex, true,
         0xC0DE0002u, {{0xfffe, Of(long6)}, {0xfffe, Of(full3)}}},
        // Items past payloadLen, and an item cut short, are not read.
        {"00 14 00 0a 00 00 00 00 | " + short3hex + " | 00 03 00 00", true, 0xC0DE0001u,
         {{0, Of(short3)}}},
        {"00 14 00 0d 00 00 00 00 | " + short3hex + " | 00 03 00", true, 0xC0DE0001u,
         {{0, Of(short3)}}},
        {"00 14 00 0a 00 00 00 00 | " + short3hex + " | 00 03 00 00", false, L2VFIB_OK, {}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.datagram);
        P().ClearRecords();
        P().recvResults.clear();
        if (c.datagram != "none")
            P().recvResults.push_back(fake::RecvResult::Datagram(Hex(c.datagram)));
        l2vfib_EventCallback = c.callback ? &OnEvent : nullptr;
        g_events.clear();
        g_sizes.clear();
        for (const auto &e : c.events) g_sizes.push_back(e.second.size());
        EXPECT_EQ(L2VFIB_HandleEvtMsg(6), c.result);
        EXPECT_EQ(g_events, c.events);
        ASSERT_EQ(P().recvs.size(), 1u);
        EXPECT_EQ(std::tuple(P().recvs[0].fd, P().recvs[0].room, P().recvs[0].flags),
                  std::tuple(6, size_t{1400}, MSG_DONTWAIT));
    }
}

// Registration installs the callback, null included; nothing else touches it.
TEST_F(Event, CallbackLivesFromRegistrationToTheNext) {
    const Bytes event = Hex("00 14 00 08 00 00 00 00 | 00 03 00 04 00 00 00 01");
    L2VFIB_RegEvent(7, 0, nullptr, 0, &OnEvent, 0);
    L2VFIB_DeregEvent(7, 0, 0, 0);
    L2VFIB_FiniEvent(7);
    P().recvResults = {fake::RecvResult::Datagram(event), fake::RecvResult::Datagram(event)};
    EXPECT_EQ(L2VFIB_HandleEvtMsg(7), 0xC0DE0001u);
    L2VFIB_RegEvent(7, 0, nullptr, 0, nullptr, 0);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(7), L2VFIB_OK);
    EXPECT_EQ(g_events.size(), 1u);
}

}  // namespace
