// The real library over the host platform: real sockets, a peer standing in
// for the forwarding service and one for the control endpoint.
#include "l2vfib.h"
#include "msg/state.h"
#include "peers.h"

using l2vfib::host::ControlRequest;

namespace {

// A service message: header (object type 1, payload 8, opcode 1, byte 7 8)
// and one item holding a big-endian 32-bit value.
Bytes Message(uint8_t item, uint32_t value) {
    return {0, 1, 0, 8, 0, 0, 1, 8, 0, item, 0, 4,
            uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}

uint32_t gNotices, gKind, gValue;
uint32_t OnNotice(uint32_t kind, uint32_t *value) {
    ++gNotices, gKind = kind, gValue = *value;
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
    Peer device(ControlPath(), ControlHandler([](const ControlRequest &) {
        Answer caps{true, 0, Bytes(512, 0)};
        caps.data[8] = 2, caps.data[9] = 3, caps.data[10] = 4, caps.data[11] = 5;
        caps.data[40] = 6;
        return caps;
    }));
    Peer service(ServicePath());
    fd_ = L2VFIB_Open(nullptr);
    ASSERT_GE(fd_, 0);
    const std::vector<Seen> query = Requests(device.WaitFor(1));
    ASSERT_EQ(query.size(), 1u);
    EXPECT_EQ(query[0].arg0, 0x8000u);
    EXPECT_EQ(query[0].arg1, 0x440002u);
    EXPECT_EQ(query[0].arg2, 512u);
    EXPECT_TRUE(query[0].input.empty());
    const L2VFIB_DevCaps &caps = l2vfib_Caps;
    EXPECT_EQ(Bytes({caps.fillWords22, caps.fillWords13, caps.fillWords21, caps.fillWords33,
                     caps.fillWords39}),
              Bytes({2, 3, 4, 5, 6}));

    const uint32_t first = 0x11223344, second = 5;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 20, 0, &first, nullptr), L2VFIB_OK);  // batched by its code
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 1, &second, nullptr), L2VFIB_OK);  // batched on request
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    EXPECT_EQ(service.WaitFor(1),
              std::vector<Bytes>({{0x00, 0x02, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,  // code 20
                                   0x00, 0x64, 0x00, 0x04, 0x11, 0x22, 0x33, 0x44,  // TLV 100
                                   0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,  // code 18
                                   0x00, 0x64, 0x00, 0x04, 0x00, 0x00, 0x00, 0x05}}));
}

TEST_F(Library, AnsweredRequestsReturnWhatTheServiceAnswers) {
    uint8_t item = 37;  // result; 184 for an identifier
    // The answer is the request's TLV 100 value plus 0x100.
    Peer service(ServicePath(), [&item](const Bytes &request) {
        if (request.size() != 16) return Bytes{};
        return Message(item, (uint32_t(request[14]) << 8 | request[15]) + 0x100);
    });
    fd_ = L2VFIB_Open(nullptr);  // no control endpoint: open succeeds all the same
    ASSERT_GE(fd_, 0);
    const uint32_t value = 0x42;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &value, nullptr), 0x142u);
    EXPECT_EQ(service.WaitFor(1), std::vector<Bytes>({{0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01,
                                                       0x08, 0x00, 0x64, 0x00, 0x04, 0x00, 0x00,
                                                       0x00, 0x42}}));
    item = 184;
    EXPECT_EQ(L2VFIB_AllocECID(18, &value, nullptr), 0x142);
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &value, nullptr), L2VFIB_ERR_FAIL);
}

TEST_F(Library, NoticesReachTheCallback) {
    Peer service(ServicePath());
    fd_ = L2VFIB_Open(OnNotice);
    ASSERT_GE(fd_, 0);
    gNotices = 0;
    pollfd readable{fd_, POLLIN, 0};
    ASSERT_TRUE(service.SendTo(fd_, Message(36, 0xCAFE0001)));
    ASSERT_EQ(poll(&readable, 1, 2000), 1);  // HandleMsg waits without limit
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    EXPECT_EQ(gNotices, 1u);
    EXPECT_EQ(gKind, 1u);
    EXPECT_EQ(gValue, 0xCAFE0001u);
    ASSERT_TRUE(service.SendTo(fd_, Message(37, 7)));  // not a notice
    ASSERT_EQ(poll(&readable, 1, 2000), 1);
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_ERR_BAD_MSG);
    EXPECT_EQ(gNotices, 1u);
}

TEST_F(Library, ControlCallsReachTheNamedNode) {
    Peer device(ControlPath(), ControlHandler([](const ControlRequest &) {
        return Answer{true, 0x77, {}};
    }));
    EXPECT_EQ(L2VFIB_Start(0x0102, 5), 0x77u);
    EXPECT_EQ(L2VFIB_Stop(0x0102), 0u);
    const uint8_t range[] = {0x00, 0x0a, 0x00, 0x14};
    EXPECT_EQ(L2VFIB_CheckVlanRange(3, sizeof range, range), 0x77u);
    const std::vector<Seen> seen = Requests(device.WaitFor(3));
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(std::tie(seen[0].op, seen[0].arg0, seen[0].arg1), std::tuple(1, 0x0102, 0x440005));
    EXPECT_EQ(seen[0].input, Bytes({0, 0, 0, 5}));
    EXPECT_EQ(std::tie(seen[1].op, seen[1].arg0, seen[1].arg1), std::tuple(2, 0x0102, 0x440006));
    EXPECT_EQ(seen[1].input, Bytes({0, 0, 0, 0}));
    EXPECT_EQ(std::tie(seen[2].op, seen[2].arg0, seen[2].arg1), std::tuple(1, 3, 0x44000c));
    EXPECT_EQ(seen[2].input, Bytes({0x00, 0x0a, 0x00, 0x14}));
}

TEST_F(Library, WithoutADeviceOpenAndControlCallsFail) {
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);  // no service socket file
    EXPECT_NE(L2VFIB_Start(0x8000, 1), 0u);
    EXPECT_NE(L2VFIB_Stop(0x8000), 0u);
}

}  // namespace
