// The event channel: the bytes of its messages, the socket's set-up, and the
// dispatch of event datagrams to the callback.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <bit>
#include <cerrno>
#include <cstring>
#include <functional>

#include "event/event.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// The channel word travels in host order: 5 and 8 as this host stores them.
const bool kLittle = std::endian::native == std::endian::little;
const std::string kFive = kLittle ? "05 00 00 00" : "00 00 00 05";
const std::string kEight = kLittle ? "08 00 00 00" : "00 00 00 08";

// What the callback saw: the tag and the record's first g_sizes[i] bytes
// (the size of the record the test expects at call i).
using Events = std::vector<std::pair<uint32_t, Bytes>>;
Events g_events;
std::vector<size_t> g_sizes;
uint32_t OnEvent(uint32_t tag, const void *record) {
    const size_t n = g_events.size() < g_sizes.size() ? g_sizes[g_events.size()] : 0;
    g_events.emplace_back(tag, Bytes(static_cast<const uint8_t *>(record),
                                     static_cast<const uint8_t *>(record) + n));
    return 0xC0DE0000u + static_cast<uint32_t>(g_events.size());
}

template <typename Record>
Bytes Of(const Record &r) {
    return Bytes(reinterpret_cast<const uint8_t *>(&r), reinterpret_cast<const uint8_t *>(&r + 1));
}

struct Event : LibraryTest {
    void SetUp() override { LibraryTest::SetUp(); l2vfib_EventCallback = nullptr; }
    void TearDown() override { l2vfib_EventCallback = nullptr; LibraryTest::TearDown(); }
};

TEST_F(Event, EveryMessageOfTheChannel) {
    const uint32_t sel[3] = {0x01020304, 0x05060708, 0x090a0b0c};
    const auto reg = [&sel](uint16_t mask) {
        L2VFIB_RegEvent(7, mask, sel, 0xa1b2c3d4, &OnEvent, 0xeeff);
    };
    const std::string tlv1 = "00 01 00 10 01 02 03 04 05 06 07 08 09 0a 0b 0c ";
    const std::string reg20 = "00 14 00 14 00 00 05 00 " + tlv1;
    const std::string reg32 = "00 14 00 20 00 00 05 00 " + tlv1;
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[] { L2VFIB_RegEvent(7, 0x0010, nullptr, 9, nullptr, 0x0102); },
         "00 14 00 14 00 00 05 00 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 00 10 01 02"},
        {[&] { reg(0x3000); }, reg20 + "30 00 ee ff"},
        {[&] { reg(0x1010); }, reg32 + "10 10 ee ff 00 04 00 08 a1 b2 c3 d4 10 10 ee ff"},
        {[&] { reg(0x2010); }, reg32 + "20 10 ee ff 00 04 00 08 a1 b2 c3 d4 20 10 ee ff"},
        {[] { L2VFIB_DeregEvent(7, 0x3010, 0x11223344, 0x55667788); },
         "00 14 00 20 00 00 07 00 00 01 00 10 11 22 33 44 00 00 00 00 00 00 00 00 30 10 00 00"
         " 00 04 00 08 55 66 77 88 30 10 00 00"},
        {[] { L2VFIB_InitEvent(5); }, "00 14 00 08 00 00 05 00 00 00 00 04 " + kFive},
        {[] { L2VFIB_FiniEvent(7); }, "00 14 00 08 00 00 07 00 00 00 00 04 " + kEight},
    };
    for (const auto &[call, message] : cases) {
        P().ClearRecords();
        call();
        ASSERT_EQ(P().sends.size(), 1u) << message;
        EXPECT_EQ(ToHex(P().sends[0].data), ToHex(Hex(message)));
        EXPECT_EQ(P().sends[0].flags, 0);
    }
    // Each registration installs its callback; nothing else touches it.
    EXPECT_EQ(l2vfib_EventCallback, &OnEvent);
    L2VFIB_RegEvent(7, 0, nullptr, 0, nullptr, 0);
    EXPECT_EQ(l2vfib_EventCallback, nullptr);
}

TEST_F(Event, ChannelSetUpAndEveryFailureClosingTheSocket) {
    const struct {
        fake::Script script;
        int32_t result;
        Trace trace;
    } cases[] = {
        {{}, 40, {"socket 40", "setopt 40", "setopt 40", "connect 40", "send 40"}},
        {{.connectErrors = {EINTR, EISCONN}, .sendResults = {-EINTR, -EPIPE}}, 40,
         {"socket 40", "setopt 40", "setopt 40", "connect 40", "connect 40", "send 40", "send 40"}},
        {{.socketFailures = 1}, -1, {"socket failed"}},
        {{.optFailures = 1}, -1, {"socket 40", "setopt 40", "close 40"}},
        {{.optFailNames = {0x1006}}, -1, {"socket 40", "setopt 40", "setopt 40", "close 40"}},
        {{.connectErrors = {ECONNREFUSED}}, -1,
         {"socket 40", "setopt 40", "setopt 40", "connect 40", "close 40"}},
    };
    for (const auto &c : cases) {
        static_cast<fake::Script &>(P()) = c.script;
        P().ClearRecords();
        P().localLip = 0x0a0b8001;
        EXPECT_EQ(L2VFIB_InitEvent(3), c.result);
        EXPECT_EQ(P().trace, c.trace);
    }
    // The last call: both time-outs of 180 s, then the event service on the local node.
    const uint32_t timeout[2] = {180, 0};
    const Bytes value = Of(timeout);
    EXPECT_EQ(std::tuple(P().opts[0].name, P().opts[0].value, P().opts[1].name, P().opts[1].value),
              std::tuple(0x1005, value, 0x1006, value));
    EXPECT_EQ(P().lipQueries, std::vector<uint32_t>{0});
    EXPECT_EQ(ToHex(P().connects[0].address), "10 25 31 16 80 01 00 00 00 00 00 00 00 00 00 00");
    P().closeResult = -1;
    EXPECT_EQ(L2VFIB_FiniEvent(40), -1);
}

TEST_F(Event, DispatchOfEachDatagram) {
    const L2VFIB_EvtRecord3 short3 = {0x0a0b0c0d, 0x01020000, 0, {0, 0}};
    const L2VFIB_EvtRecord3 full3 = {0x01020304, 0x05060708, 0x090a, {0x0b, 0x0c}};
    const L2VFIB_EvtRecord2 kind93 = {1, 2, 93, 0xab, 0x0304, 5, 6, 7, 0x0809, {0xcd, 0xef},
                                      0x0a0b0c0d, 0x10111213, {0x14, 0x15, 0x16, 0x17},
                                      0x18191a1b, 0x1c1d1e1f};
    L2VFIB_EvtRecord2 kind92 = kind93;  // words 5 to 8 stay as received
    kind92.kind = 92;
    std::memcpy(&kind92.word5, Hex("0a 0b 0c 0d 10 11 12 13").data(), 8);
    std::memcpy(&kind92.word7, Hex("18 19 1a 1b 1c 1d 1e 1f").data(), 8);
    L2VFIB_EvtRecord6 long6 = {0x11121314, 0x21222324, {}};
    std::memset(long6.raw0, 0x33, sizeof long6.raw0);
    const std::string item2 =
        "00 02 00 30 00 00 00 01 00 00 00 02 5d ab 03 04 00 00 00 05 00 00 00 06 00 00 00 07"
        " 08 09 cd ef 0a 0b 0c 0d 10 11 12 13 14 15 16 17 18 19 1a 1b 1c 1d 1e 1f";
    std::string item2kind92 = item2;
    item2kind92[37] = 'c';
    std::string item6 = "00 06 00 2c 11 12 13 14 21 22 23 24";
    for (int i = 0; i < 36; ++i) item6 += i < 32 ? " 33" : " 44";  // 4 bytes too many
    const std::string short3hex = "00 03 00 06 0a 0b 0c 0d 01 02 ";
    const struct {
        std::string datagram;  // "none": nothing waiting
        bool callback;
        uint32_t result;
        Events events;
    } cases[] = {
        {"none", true, L2VFIB_ERR_NO_DATA, {}},
        {"", true, L2VFIB_ERR_NO_DATA, {}},
        {"00 14 00 08 00 00 00 00 00 07 00 04 00 00 00 01", true, L2VFIB_ERR_FAIL, {}},
        {"00 14 00 04 00 00 00 00 00 03 00 00 00 00 00 00", true, L2VFIB_ERR_FAIL, {}},
        {"00 14 00 0c 00 00 00 00 00 03 00 09 00 00 00 00 00 00 00 00", true, L2VFIB_ERR_FAIL,
         {}},
        {"00 14 00 0d 00 00 00 00 " + short3hex + "00 00", true, L2VFIB_ERR_BAD_MSG, {}},
        {"00 00 00 10", true, L2VFIB_ERR_BAD_MSG, {}},
        {"00 14 00 44 01 02 07 09 " + short3hex + "00 09 00 02 ff ff " + item2, true, 0xC0DE0002u,
         {{258, Of(short3)}, {258, Of(kind93)}}},
        {"00 14 00 34 00 00 00 00 " + item2kind92, true, 0xC0DE0001u, {{0, Of(kind92)}}},
        // The walk goes on behind the long value, not behind its record.
        {"ab cd 00 40 ff fe 00 00 " + item6 + " 00 03 00 0c 01 02 03 04 05 06 07 08 09 0a 0b 0c",
         true, 0xC0DE0002u, {{0xfffe, Of(long6)}, {0xfffe, Of(full3)}}},
        // Neither an item past payloadLen nor one cut short by it is read.
        {"00 14 00 0a 00 00 00 00 " + short3hex + "00 03 00 00", true, 0xC0DE0001u,
         {{0, Of(short3)}}},
        {"00 14 00 0d 00 00 00 00 " + short3hex + "00 03 00", false, L2VFIB_OK, {}},
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
        EXPECT_EQ(std::tuple(P().recvs.at(0).fd, P().recvs[0].room, P().recvs[0].flags),
                  std::tuple(6, size_t{1400}, MSG_DONTWAIT));
    }
}

}  // namespace
