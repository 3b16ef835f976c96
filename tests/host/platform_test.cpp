// The host platform on its own: the control protocol codec, the mapping of
// the device's sockets onto AF_UNIX, and the device services.
#include <sys/time.h>

#include <cerrno>
#include <memory>

#include "l2vfib_platform.h"
#include "peers.h"

using namespace l2vfib::host;

// Decoded from a heap block of exactly the datagram's size: a read past its
// end is caught by the sanitizer build.
static bool DecodesAsAnswer(const Bytes &datagram) {
    auto exact = std::make_unique<uint8_t[]>(datagram.size());
    if (!datagram.empty()) std::memcpy(exact.get(), datagram.data(), datagram.size());
    ControlAnswer answer{};
    return DecodeAnswer(exact.get(), datagram.size(), &answer);
}

TEST(ControlProto, RequestLayoutAndRoomCheck) {
    const uint8_t input[] = {0xAA, 0xBB};
    const ControlRequest request{kOpIoctl, 7, 0x8000, 0x440002, 512, input, 2};
    const Bytes expected = {1, 1,    0, 0, 0, 0, 0, 7, 0, 0, 0x80, 0, 0,    0x44,
                            0, 2, 0, 0, 2, 0, 0, 0, 0, 2, 0xAA, 0xBB};
    Bytes out(27, 0xEE);
    ASSERT_EQ(EncodeRequest(request, out.data(), out.size()), 26u);
    EXPECT_EQ(out, [&] { Bytes e = expected; e.push_back(0xEE); return e; }());
    Bytes small(25, 0xEE);  // one byte short: refused, nothing written
    EXPECT_EQ(EncodeRequest(request, small.data(), small.size()), 0u);
    EXPECT_EQ(small, Bytes(25, 0xEE));
    EXPECT_FALSE(DecodesAsAnswer(expected));  // a request is not an answer
}

TEST(ControlProto, MalformedAnswersAreRejected) {
    // Tunnel mode answer: op 6, sequence 9, result 0, data = mode 24.
    const Bytes good = {1, 0x86, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 24};
    ControlAnswer answer{};
    ASSERT_TRUE(DecodeAnswer(good.data(), good.size(), &answer));
    EXPECT_EQ(answer.op, kOpTunnelGetMode);
    EXPECT_EQ(answer.sequence, 9u);
    EXPECT_EQ(GetWord(answer.data), 24u);
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(DecodesAsAnswer(Bytes(good.begin(), good.begin() + n))) << n;
    // version, no answer bit, unknown op, reserved byte, data length off.
    const std::pair<size_t, uint8_t> corruptions[] = {{0, 2}, {1, 0x06}, {1, 0x87}, {3, 1},
                                                      {15, 5}, {15, 3}, {12, 1}};
    for (const auto &[at, value] : corruptions) {
        Bytes bad = good;
        bad[at] = value;
        EXPECT_FALSE(DecodesAsAnswer(bad)) << "byte " << at;
    }
    Bytes longer = good;
    longer.push_back(0);
    EXPECT_FALSE(DecodesAsAnswer(longer));
}

using HostSocket = DeviceDirTest;

TEST_F(HostSocket, BadAddressesAndMissingServicesSetErrno) {
    EXPECT_EQ(SKT_Socket(2, SOCK_DGRAM, 1), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    const int fd = SKT_Socket(37, SOCK_DGRAM, 1);
    ASSERT_GE(fd, 0);
    const uint8_t good[16] = {16, 37, 0x0a, 0x6e, 0x80, 0x00};
    const struct { size_t at; uint8_t value; int error; } cases[] = {
        {0, 15, EINVAL}, {1, 2, EAFNOSUPPORT}, {6, 1, EINVAL}, {15, 0x80, EINVAL}};
    for (const auto &c : cases) {
        uint8_t address[16];
        std::memcpy(address, good, sizeof address);
        address[c.at] = c.value;
        EXPECT_EQ(SKT_Connect(fd, address, 16), -1);
        EXPECT_EQ(errno, c.error) << "byte " << c.at;
    }
    EXPECT_EQ(SKT_Connect(fd, good, 15), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(SKT_Connect(fd, good, 16), -1);  // nothing at node-8000.port-2670
    EXPECT_EQ(errno, ENOENT);
    setenv("L2VFIB_DEVICE_DIR", (dir_ + "/" + std::string(100, 'x')).c_str(), 1);
    EXPECT_EQ(SKT_Connect(fd, good, 16), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(SKT_Close(fd), 0);
}

TEST_F(HostSocket, TimeOutOptionsBecomeTimevals) {
    const int fd = SKT_Socket(37, SOCK_DGRAM, 1);
    const uint32_t receive[2] = {3, 500000};  // whole jiffies at any HZ
    const uint32_t send[2] = {180, 0};
    ASSERT_EQ(SKT_SetOpt(fd, 1, 0x1006, receive, 8), 0);
    ASSERT_EQ(SKT_SetOpt(fd, 1, 0x1005, send, 8), 0);
    timeval limit{};
    socklen_t length = sizeof limit;
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec * 1000000 + limit.tv_usec, 3500000);
    ASSERT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec, 180);
    EXPECT_EQ(SKT_SetOpt(fd, 1, 0x1006, receive, 4), -1);
    EXPECT_EQ(errno, EINVAL);
    SKT_Close(fd);
}

using HostDevice = DeviceDirTest;

TEST_F(HostDevice, ServicesAreAnsweredByTheControlEndpoint) {
    Peer device(ControlPath(), ControlHandler([](const ControlRequest &r) -> Answer {
        switch (r.op) {
            case kOpGetAllNodes: return {true, 0, {0x00, 0x01, 0x80, 0x00}};
            case kOpIsNodeUp: return {true, r.arg0 == 0x8000 ? 1u : 0u, {}};
            case kOpGetLocalLip: return {true, 0x0a000005, {}};
            case kOpTunnelGetMode: return r.arg0 == 7 ? Answer{true, 0, {0, 0, 0, 24}} : Answer{true, 9, {}};
            default: return {true, 0x1234, Bytes(64, 0x5A)};
        }
    }));
    uint32_t count = 0;
    uint16_t *nodes = DEV_GetAllNodes(&count);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(nodes[1], 0x8000);
    std::free(nodes);
    EXPECT_EQ(IF_IsNodeUp(0x8000), 1u);
    EXPECT_EQ(IF_IsNodeUp(0x0002), 0u);
    EXPECT_EQ(LIP_GetLocalLip(0), 0x0a000005u);
    uint32_t mode = 37;
    EXPECT_EQ(TUNNEL_GetMode(7, &mode), 0u);
    EXPECT_EQ(mode, 24u);
    EXPECT_EQ(TUNNEL_GetMode(8, &mode), 9u);
    EXPECT_EQ(mode, 24u);  // untouched on failure
    Bytes answer(24, 0xEE);  // 64 bytes offered, room for 16
    uint32_t answerLength = 99;
    EXPECT_EQ(CIOCTL(3, 0x44000c, 0, nullptr, 16, answer.data(), &answerLength), 0x1234u);
    EXPECT_EQ(answerLength, 16u);
    EXPECT_EQ(answer, [] { Bytes e(16, 0x5A); e.resize(24, 0xEE); return e; }());
}

TEST_F(HostDevice, WithoutADeviceCallsFailAsADeviceWould) {
    uint8_t answer[8];
    uint32_t answerLength = 99, count = 5, mode = 37;
    EXPECT_NE(CIOCTL(0x8000, 0x440002, 0, nullptr, 8, answer, &answerLength), 0u);
    EXPECT_EQ(answerLength, 0u);
    EXPECT_NE(CIOCTL_Async(1, 0x440006, 0, nullptr), 0u);
    EXPECT_EQ(DEV_GetAllNodes(&count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(IF_IsNodeUp(1), 0u);
    EXPECT_EQ(LIP_GetLocalLip(0), 0x0001u);
    EXPECT_NE(TUNNEL_GetMode(7, &mode), 0u);
    EXPECT_EQ(mode, 37u);
    // An endpoint whose answers never match the request: a bounded wait.
    setenv("L2VFIB_CONTROL_TIMEOUT_MS", "200", 1);
    Peer stale(ControlPath(), [](const Bytes &datagram) {
        ControlRequest request{};
        if (!DecodeRequest(datagram.data(), datagram.size(), &request)) return Bytes{};
        Bytes out(kAnswerHead);
        EncodeAnswer({request.op, request.sequence + 1, 0, nullptr, 0}, out.data(), out.size());
        return out;
    });
    EXPECT_NE(CIOCTL(0x8000, 0x440002, 0, nullptr, 8, answer, &answerLength), 0u);
    EXPECT_EQ(stale.WaitFor(1).size(), 1u);
}
