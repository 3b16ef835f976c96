// The real library over the host platform: real sockets, a peer standing in
// for the forwarding service and one for the control endpoint.
#include <poll.h>

#include "device_dir.h"
#include "l2vfib.h"
#include "msg/state.h"

namespace {

// A service message: header (object type 1, opcode 1, byte 7 8) and one
// item of a big-endian 32-bit value.
Bytes Message(uint16_t item, uint32_t value) {
    return {0, 1, 0, 8, 0, 0, 1, 8, uint8_t(item >> 8), uint8_t(item), 0, 4,
            uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}

uint32_t gNoticeCalls;
uint32_t gNoticeKind;
uint32_t gNoticeValue;

uint32_t OnNotice(uint32_t kind, uint32_t *value) {
    ++gNoticeCalls;
    gNoticeKind = kind;
    gNoticeValue = *value;
    return 0;
}

class Library : public DeviceDirTest {
  protected:
    void TearDown() override {
        if (fd_ >= 0) L2VFIB_Close(fd_);
        DeviceDirTest::TearDown();
    }
    int32_t fd_ = -1;
};

TEST_F(Library, OpenLearnsCapabilitiesAndFlushSendsOneDatagram) {
    ControlPeer device(ControlPath(), [](const SeenRequest &) {
        Answer caps{true, 0, Bytes(512, 0)};
        caps.data[8] = 2, caps.data[9] = 3, caps.data[10] = 4, caps.data[11] = 5;
        caps.data[40] = 6;
        return caps;
    });
    Peer service(ServicePath());
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_GE(fd_, 0);
    const std::vector<SeenRequest> query = device.WaitFor(1);
    ASSERT_EQ(query.size(), 1u);
    EXPECT_EQ(query[0].arg0, 0x8000u);
    EXPECT_EQ(query[0].arg1, 0x440002u);
    EXPECT_EQ(query[0].arg2, 512u);
    EXPECT_TRUE(query[0].input.empty());
    EXPECT_EQ(l2vfib_Caps.fillWords22, 2);
    EXPECT_EQ(l2vfib_Caps.fillWords13, 3);
    EXPECT_EQ(l2vfib_Caps.fillWords21, 4);
    EXPECT_EQ(l2vfib_Caps.fillWords33, 5);
    EXPECT_EQ(l2vfib_Caps.fillWords39, 6);

    const uint32_t first = 0x11223344;
    const uint32_t second = 5;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 20, 0, &first, nullptr), L2VFIB_OK);  // batched by its code
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 1, &second, nullptr), L2VFIB_OK);  // batched on request
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    const std::vector<Bytes> got = service.WaitFor(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], Bytes({0x00, 0x02, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,  // code 20 header
                             0x00, 0x64, 0x00, 0x04, 0x11, 0x22, 0x33, 0x44,  // TLV 100
                             0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,  // code 18 header
                             0x00, 0x64, 0x00, 0x04, 0x00, 0x00, 0x00, 0x05}));
}

TEST_F(Library, AnsweredRequestsReturnTheServicesAnswer) {
    bool identifier = false;
    // The service answers the request's TLV 100 value plus 0x100, as a
    // result (item 37) or as an identifier (item 184).
    Peer service(ServicePath(), [&identifier](const Bytes &request) {
        if (request.size() != 16) return Bytes{};
        const uint32_t value = uint32_t(request[12]) << 24 | uint32_t(request[13]) << 16 |
                               uint32_t(request[14]) << 8 | request[15];
        return Message(identifier ? 184 : 37, value + 0x100);
    });
    fd_ = L2VFIB_Open(nullptr);  // no control endpoint: open succeeds all the same
    ASSERT_GE(fd_, 0);
    const uint32_t value = 0x42;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &value, nullptr), 0x142u);
    const std::vector<Bytes> got = service.WaitFor(1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], Bytes({0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08, 0x00, 0x64, 0x00,
                             0x04, 0x00, 0x00, 0x00, 0x42}));
    identifier = true;
    EXPECT_EQ(L2VFIB_AllocECID(18, &value, nullptr), 0x142);
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &value, nullptr), L2VFIB_ERR_FAIL);
}

TEST_F(Library, NoticesReachTheCallback) {
    Peer service(ServicePath());
    fd_ = L2VFIB_Open(OnNotice);
    ASSERT_GE(fd_, 0);
    gNoticeCalls = 0;
    pollfd readable{fd_, POLLIN, 0};
    ASSERT_TRUE(service.SendTo(fd_, Message(36, 0xCAFE0001)));
    ASSERT_EQ(poll(&readable, 1, 2000), 1);
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    EXPECT_EQ(gNoticeCalls, 1u);
    EXPECT_EQ(gNoticeKind, 1u);
    EXPECT_EQ(gNoticeValue, 0xCAFE0001u);
    ASSERT_TRUE(service.SendTo(fd_, Message(37, 7)));  // not a notice
    ASSERT_EQ(poll(&readable, 1, 2000), 1);
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_ERR_BAD_MSG);
    EXPECT_EQ(gNoticeCalls, 1u);
}

TEST_F(Library, ControlCallsReachTheNamedNode) {
    ControlPeer device(ControlPath(), [](const SeenRequest &) { return Answer{true, 0x77, {}}; });
    EXPECT_EQ(L2VFIB_Start(0x0102, 5), 0x77u);
    EXPECT_EQ(L2VFIB_Stop(0x0102), 0u);
    const uint8_t range[] = {0x00, 0x0a, 0x00, 0x14};
    EXPECT_EQ(L2VFIB_CheckVlanRange(3, sizeof range, range), 0x77u);
    const std::vector<SeenRequest> seen = device.WaitFor(3);
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].op, 1);
    EXPECT_EQ(seen[0].arg0, 0x0102u);
    EXPECT_EQ(seen[0].arg1, 0x440005u);
    EXPECT_EQ(seen[0].input, Bytes({0, 0, 0, 5}));
    EXPECT_EQ(seen[1].op, 2);  // one way
    EXPECT_EQ(seen[1].arg0, 0x0102u);
    EXPECT_EQ(seen[1].arg1, 0x440006u);
    EXPECT_EQ(seen[1].input, Bytes({0, 0, 0, 0}));
    EXPECT_EQ(seen[2].arg0, 3u);
    EXPECT_EQ(seen[2].arg1, 0x44000cu);
    EXPECT_EQ(seen[2].input, Bytes({0x00, 0x0a, 0x00, 0x14}));
}

TEST_F(Library, WithoutADeviceOpenAndControlCallsFail) {
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);
    EXPECT_NE(L2VFIB_Start(0x8000, 1), 0u);
    EXPECT_NE(L2VFIB_Stop(0x8000), 0u);
    const uint32_t value = 1;
    EXPECT_EQ(L2VFIB_AllocECID(18, &value, nullptr), -1);
}

}  // namespace
