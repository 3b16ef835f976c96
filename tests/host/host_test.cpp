// The host platform, and the real library over it, on real sockets: each
// test has a fresh device directory, and peers bound in it stand in for the
// forwarding service and the control endpoint.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "control_proto.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/state.h"

namespace {

using namespace l2vfib::host;
using Bytes = std::vector<uint8_t>;

class DeviceDir : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/l2vfib-host-test-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        setenv("L2VFIB_DEVICE_DIR", name, 1);
        setenv("L2VFIB_CONTROL_TIMEOUT_MS", "2000", 1);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string dir_;
};

// A socket bound at path. Its thread records every datagram and answers it
// with what the handler returns (nothing when that is empty); it ends with
// Stop, or by itself after 1000 waits of at most 20 ms.
class Peer {
  public:
    using Handler = std::function<Bytes(const Bytes &)>;
    Peer(const std::string &path, Handler handler) : handler_(std::move(handler)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const timeval tick{0, 20000};
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick), 0);
        thread_ = std::thread([this] { for (int i = 0; i < 1000 && !stop_; ++i) Serve(); });
    }
    ~Peer() { Stop(); close(fd_); }
    // Ends the thread and returns every datagram that arrived, in order.
    std::vector<Bytes> Stop() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
        while (Serve()) continue;
        return received_;
    }

  private:
    // Waits up to 20 ms for a datagram and answers it; false when none came.
    bool Serve() {
        uint8_t buffer[8192];
        sockaddr_un from{};
        socklen_t length = sizeof from;
        const ssize_t n = recvfrom(fd_, buffer, sizeof buffer, 0,
                                   reinterpret_cast<sockaddr *>(&from), &length);
        if (n < 0) return false;
        const Bytes answer = handler_(received_.emplace_back(buffer, buffer + n));
        if (!answer.empty())
            sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from),
                   length);
        return true;
    }
    int fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    Handler handler_;
    std::atomic<bool> stop_{false};
    std::vector<Bytes> received_;
    std::thread thread_;
};

// The emulated device at the control endpoint: answers each request but
// CIOCTL_Async's with the device's result and data, its sequence number off
// by skew.
struct Answer { uint32_t result; Bytes data; };
Peer::Handler ControlDevice(std::function<Answer(const ControlRequest &)> device,
                            uint32_t skew = 0) {
    return [device, skew](const Bytes &datagram) {
        ControlRequest r{};
        if (!DecodeRequest(datagram.data(), datagram.size(), &r) || r.op == kOpIoctlAsync)
            return Bytes{};
        const Answer a = device(r);
        Bytes out(kMaxDatagram);
        out.resize(EncodeAnswer({r.op, r.sequence + skew, a.result, a.data.data(),
                                 uint32_t(a.data.size())},
                                out.data(), out.size()));
        return out;
    };
}

// Every Bytes is a heap block of its exact size, so the sanitizer build
// catches a read past a datagram's end.
TEST(HostProto, MalformedAnswersAreRejected) {
    const auto decodes = [](const Bytes &datagram) {
        ControlAnswer answer{};
        return DecodeAnswer(datagram.data(), datagram.size(), &answer);
    };
    // Tunnel mode answer: op 6, sequence 9, result 0, data = mode 24.
    const Bytes good = {1, 0x86, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 24};
    ControlAnswer answer{};
    ASSERT_TRUE(DecodeAnswer(good.data(), good.size(), &answer));
    EXPECT_EQ(std::tuple(answer.op, answer.sequence, GetWord(answer.data)),
              std::tuple(kOpTunnelGetMode, 9u, 24u));
    for (size_t n = 0; n < good.size(); ++n)
        EXPECT_FALSE(decodes(Bytes(good.begin(), good.begin() + n))) << n;
    // version, no answer bit, unknown op, reserved byte, data length off.
    const std::pair<size_t, uint8_t> corruptions[] = {{0, 2}, {1, 0x06}, {1, 0x87}, {3, 1},
                                                      {15, 5}, {15, 3}, {12, 1}};
    for (const auto &[at, value] : corruptions) {
        Bytes bad = good;
        bad[at] = value;
        EXPECT_FALSE(decodes(bad)) << "byte " << at;
    }
}

using HostSocket = DeviceDir;

TEST_F(HostSocket, AddressesErrnoAndTimeOuts) {
    EXPECT_EQ(SKT_Socket(2, SOCK_DGRAM, 1), -1);
    EXPECT_EQ(errno, EAFNOSUPPORT);
    const int fd = SKT_Socket(37, SOCK_DGRAM, 1);
    ASSERT_GE(fd, 0);
    const Bytes good = {16, 37, 0x0a, 0x6e, 0x80, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    // Bad addresses, then a good one with nothing at node-8000.port-2670.
    const struct { size_t at; uint8_t value; uint32_t length; int error; } cases[] = {
        {0, 15, 16, EINVAL}, {1, 2, 16, EAFNOSUPPORT}, {6, 1, 16, EINVAL},
        {15, 0x80, 16, EINVAL}, {0, 16, 15, EINVAL}, {0, 16, 16, ENOENT}};
    for (const auto &[at, value, length, error] : cases) {
        Bytes address = good;
        address[at] = value;
        EXPECT_EQ(SKT_Connect(fd, address.data(), length), -1);
        EXPECT_EQ(errno, error) << "byte " << at << ", length " << length;
    }
    const uint32_t receive[2] = {3, 500000};  // whole jiffies at any HZ
    const uint32_t send[2] = {180, 0};
    EXPECT_EQ(SKT_SetOpt(fd, 1, 0x1006, receive, 8), 0);
    EXPECT_EQ(SKT_SetOpt(fd, 1, 0x1005, send, 8), 0);
    timeval limit{};
    socklen_t length = sizeof limit;
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec * 1000000 + limit.tv_usec, 3500000);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, &length), 0);
    EXPECT_EQ(limit.tv_sec * 1000000 + limit.tv_usec, 180000000);
    EXPECT_EQ(SKT_Close(fd), 0);
}

using HostDevice = DeviceDir;

TEST_F(HostDevice, ServicesAreAnsweredByTheControlEndpoint) {
    Peer device(dir_ + "/control", ControlDevice([](const ControlRequest &r) -> Answer {
        switch (r.op) {
            case kOpGetAllNodes: return {0, {0x00, 0x01, 0x80, 0x00}};
            case kOpIsNodeUp: return {r.arg0 == 0x8000, {}};
            case kOpGetLocalLip: return {0x0a000005, {}};
            case kOpTunnelGetMode: return r.arg0 == 7 ? Answer{0, {0, 0, 0, 24}} : Answer{9, {}};
            default: return {0x1234, Bytes(64, 0x5A)};
        }
    }));
    uint32_t count = 0, mode = 37, answerLength = 99;
    uint16_t *nodes = DEV_GetAllNodes(&count);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(nodes[1], 0x8000);
    std::free(nodes);
    EXPECT_EQ(std::tuple(IF_IsNodeUp(0x8000), IF_IsNodeUp(2), LIP_GetLocalLip(0)),
              std::tuple(1u, 0u, 0x0a000005u));
    EXPECT_EQ(TUNNEL_GetMode(7, &mode), 0u);
    EXPECT_EQ(TUNNEL_GetMode(8, &mode), 9u);
    EXPECT_EQ(mode, 24u);  // from the first call, untouched by the second
    Bytes answer(24, 0xEE);  // 64 bytes offered, room for 16
    EXPECT_EQ(CIOCTL(3, 0x44000c, 0, nullptr, 16, answer.data(), &answerLength), 0x1234u);
    EXPECT_EQ(answerLength, 16u);
    EXPECT_EQ(answer, [] { Bytes e(16, 0x5A); e.resize(24, 0xEE); return e; }());
}

TEST_F(HostDevice, WithoutADeviceCallsFailAsADeviceWould) {
    EXPECT_EQ(L2VFIB_Open(nullptr), -1);  // no service socket file
    uint8_t answer[8];
    uint32_t answerLength = 99, count = 5, mode = 37;
    EXPECT_NE(CIOCTL(0x8000, 0x440002, 0, nullptr, 8, answer, &answerLength), 0u);
    EXPECT_EQ(answerLength, 0u);
    EXPECT_NE(CIOCTL_Async(1, 0x440006, 0, nullptr), 0u);
    EXPECT_EQ(DEV_GetAllNodes(&count), nullptr);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(std::tuple(IF_IsNodeUp(1), LIP_GetLocalLip(0)), std::tuple(0u, 0x0001u));
    EXPECT_NE(TUNNEL_GetMode(7, &mode), 0u);
    EXPECT_EQ(mode, 37u);
    // An endpoint whose answers never carry the request's sequence: a bounded wait.
    setenv("L2VFIB_CONTROL_TIMEOUT_MS", "200", 1);
    Peer stale(dir_ + "/control",
               ControlDevice([](const ControlRequest &) { return Answer{}; }, 1));
    EXPECT_NE(CIOCTL(0x8000, 0x440002, 0, nullptr, 8, answer, &answerLength), 0u);
    EXPECT_EQ(stale.Stop().size(), 1u);
}

// A service message: header (object type 1, payload 8, opcode 1, byte 7 8)
// and one item holding a big-endian 32-bit value.
Bytes Message(uint8_t item, uint32_t value) {
    return {0, 1, 0, 8, 0, 0, 1, 8, 0, item, 0, 4,
            uint8_t(value >> 24), uint8_t(value >> 16), uint8_t(value >> 8), uint8_t(value)};
}

using HostLibrary = DeviceDir;

TEST_F(HostLibrary, ADaemonsSessionOverRealSockets) {
    // The device reports five capability counts, and answers 0x77 to any other call.
    Peer device(dir_ + "/control", ControlDevice([](const ControlRequest &r) {
        Answer caps{0, Bytes(512, 0)};
        caps.data[8] = 2, caps.data[9] = 3, caps.data[10] = 4, caps.data[11] = 5, caps.data[40] = 6;
        return r.arg1 == 0x440002 ? caps : Answer{0x77, {}};
    }));
    // The service answers a single-item request with its value plus 0x100,
    // and a batch with a notice.
    std::atomic<uint8_t> item{37};  // a result; 184 for an identifier
    Peer service(dir_ + "/node-8000.port-2670", [&item](const Bytes &request) {
        if (request.size() != 16) return Message(36, 0xCAFE0001);
        return Message(item, (uint32_t(request[14]) << 8 | request[15]) + 0x100);
    });
    static std::vector<std::pair<uint32_t, uint32_t>> notices;  // kind, value
    notices.clear();
    const int32_t fd = L2VFIB_Open([](uint32_t kind, uint32_t *value) {
        notices.emplace_back(kind, *value);
        return 0u;
    });
    ASSERT_GE(fd, 0);
    const L2VFIB_DevCaps &c = l2vfib_Caps;
    EXPECT_EQ(std::tuple(c.fillWords22, c.fillWords13, c.fillWords21, c.fillWords33, c.fillWords39),
              std::tuple(2, 3, 4, 5, 6));
    const uint32_t first = 0x11223344, second = 5, asked = 0x42;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd, 20, 0, &first, nullptr), L2VFIB_OK);   // batched by its code
    EXPECT_EQ(L2VFIB_Send_Cfg(fd, 18, 1, &second, nullptr), L2VFIB_OK);  // batched on request
    EXPECT_EQ(L2VFIB_FlushEntry(fd), L2VFIB_OK);
    // The notice needs the client autobound; without it, stop here rather than
    // wait minutes for the answers below. (HandleMsg itself waits without limit.)
    pollfd readable{fd, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 2000), 1);
    EXPECT_EQ(L2VFIB_HandleMsg(fd), L2VFIB_OK);
    EXPECT_EQ(notices, (std::vector<std::pair<uint32_t, uint32_t>>{{1, 0xCAFE0001}}));
    EXPECT_EQ(L2VFIB_Send_Cfg(fd, 18, 0, &asked, nullptr), 0x142u);  // answered at once
    item = 184;
    EXPECT_EQ(L2VFIB_AllocECID(18, &asked, nullptr), 0x142);
    L2VFIB_Close(fd);
    const Bytes request = {0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,   // code 18
                           0x00, 0x64, 0x00, 0x04, 0x00, 0x00, 0x00, 0x42};  // TLV 100
    EXPECT_EQ(service.Stop(), std::vector<Bytes>({{0x00, 0x02, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,
                                                   0x00, 0x64, 0x00, 0x04, 0x11, 0x22, 0x33, 0x44,
                                                   0x00, 0x01, 0x00, 0x08, 0x00, 0x00, 0x01, 0x08,
                                                   0x00, 0x64, 0x00, 0x04, 0x00, 0x00, 0x00, 0x05},
                                                  request, request}));

    // The control requests, sequence numbers zeroed: the query at open, then the calls.
    EXPECT_EQ(L2VFIB_Start(0x0102, 5), 0x77u);
    EXPECT_EQ(L2VFIB_Stop(0x0102), 0u);
    const uint8_t range[] = {0x00, 0x0a, 0x00, 0x14};
    EXPECT_EQ(L2VFIB_CheckVlanRange(3, sizeof range, range), 0x77u);
    std::vector<Bytes> requests = device.Stop();
    for (Bytes &r : requests) std::fill_n(r.begin() + 4, r.size() >= 8 ? 4 : 0, 0);
    EXPECT_EQ(requests, std::vector<Bytes>({
        {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0x44, 0, 2, 0, 0, 2, 0, 0, 0, 0, 0},  // caps
        {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0x44, 0, 5, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 5},
        {1, 2, 0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 0, 0x44, 0, 6, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0},
        {1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0x44, 0, 0x0c, 0, 0, 0, 0, 0, 0, 0, 4,
         0x00, 0x0a, 0x00, 0x14}}));
}

TEST_F(HostLibrary, AnEventReachesTheDaemonsPollLoop) {
    // No control endpoint: the local node is 0x0001. The event service answers
    // a registration with one event: tag 0x0102, an item of type 3.
    const Bytes event = {0, 20, 0, 16, 1, 2, 0, 0, 0, 3, 0, 12, 0, 0, 0, 1, 0, 0, 0, 2, 3, 4, 5, 6};
    Peer service(dir_ + "/node-0001.port-12566", [&event](const Bytes &request) {
        return request.size() == 40 ? event : Bytes{};
    });
    static std::tuple<uint32_t, uint32_t, uint32_t, uint16_t> seen;
    const int32_t fd = L2VFIB_InitEvent(5);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(fd), L2VFIB_ERR_NO_DATA);  // nothing yet, and no wait
    L2VFIB_RegEvent(fd, 0x1010, nullptr, 9, [](uint32_t tag, const void *record) {
        const auto *r = static_cast<const L2VFIB_EvtRecord3 *>(record);
        seen = {tag, r->word0, r->word1, r->half0};
        return 0x77u;
    }, 3);
    pollfd readable{fd, POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 2000), 1);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(fd), 0x77u);
    EXPECT_EQ(seen, std::tuple(0x0102u, 1u, 2u, uint16_t{0x0304}));
    EXPECT_EQ(L2VFIB_FiniEvent(fd), 0);
    const std::vector<Bytes> received = service.Stop();  // open, register, close
    ASSERT_EQ(received.size(), 3u);
    EXPECT_EQ(std::tuple(received[0].size(), received[0][6], received[1][6], received[2][6]),
              std::tuple(16u, 5, 5, 7));
}

// The AC flag message goes alone; the AC data query is answered on the
// caller's own socket. (Both messages byte for byte, and every field of the
// answer, are the unit tests' to check.)
TEST_F(HostLibrary, AcFlagAndAcDataQueryOnTheCallersSocket) {
    Peer service(dir_ + "/node-8000.port-2670", [](const Bytes &request) {
        if (request.size() != 20) return Bytes{};
        return Bytes{0, 0, 0, 0x24, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x1c, 0, 0, 0, 0,  // heads
                     0, 1, 0, 4, 0, 0, 0, 1, 0, 2, 0, 0x10,  // one entry of 16 bytes
                     0x8a, 0x8b, 0x8c, 0x8d, 0, 0, 0, 0, 0, 0, 0, 0, 0x96, 0x97, 0x98, 0x99};
    });
    const int32_t fd = l2vfib_ConnectService();  // the library need not be open
    ASSERT_GE(fd, 0);
    const uint32_t wait[2] = {5, 0};  // a peer that never answers fails the query
    ASSERT_EQ(SKT_SetOpt(fd, 1, 0x1006, wait, sizeof wait), 0);
    EXPECT_EQ(L2VFIB_SetAcFlagClear(fd, 1), L2VFIB_OK);
    L2VFIB_AcData slots[L2VFIB_AC_DATA_MAX] = {};
    L2VFIB_AcDataList list = {0, slots};
    EXPECT_EQ(L2VFIB_GetAcData(fd, &list), L2VFIB_OK);
    EXPECT_EQ(std::tuple(list.count, slots[0].word0, slots[0].word1),
              std::tuple(1u, 0x8a8b8c8du, 0x96979899u));
    SKT_Close(fd);
    const std::vector<Bytes> received = service.Stop();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(std::pair(received[0].size(), received[0][6]), std::pair(size_t{16}, uint8_t{0x11}));
}

}  // namespace
