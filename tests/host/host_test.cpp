// The host platform on real sockets: each test has a fresh device
// directory, and peers bound in it stand in for the control endpoint. (The
// library over this platform is the emulated device's tests' to check.)
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "control_proto.h"
#include "host_addr.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"

namespace {

using namespace l2vfib::host;
using Bytes = std::vector<uint8_t>;

// The forwarding service: port 2670 on node 0x8000.
const Bytes kForwarding = {16, 37, 0x0a, 0x6e, 0x80, 0x00, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

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

// The forwarding service's socket file: a listening packet socket, as the
// emulated device binds it.
int Listening(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
    EXPECT_EQ(listen(fd, 4), 0);
    return fd;
}

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
    const Bytes &good = kForwarding;
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

// The node list, the tunnel mode and a control call with its answer cut to
// the room. (Node states and the local node are the emulated device's.)
TEST_F(HostDevice, ServicesAreAnsweredByTheControlEndpoint) {
    Peer device(dir_ + "/control", ControlDevice([](const ControlRequest &r) -> Answer {
        switch (r.op) {
            case kOpGetAllNodes: return {0, {0x00, 0x01, 0x80, 0x00}};
            case kOpTunnelGetMode: return r.arg0 == 7 ? Answer{0, {0, 0, 0, 24}} : Answer{9, {}};
            default: return {0x1234, Bytes(64, 0x5A)};
        }
    }));
    uint32_t count = 0, mode = 37, answerLength = 99;
    uint16_t *nodes = DEV_GetAllNodes(&count);
    ASSERT_EQ(count, 2u);
    EXPECT_EQ(nodes[1], 0x8000);
    std::free(nodes);
    EXPECT_EQ(TUNNEL_GetMode(7, &mode), 0u);
    EXPECT_EQ(TUNNEL_GetMode(8, &mode), 9u);
    EXPECT_EQ(mode, 24u);  // from the first call, untouched by the second
    Bytes answer(24, 0xEE);  // 64 bytes offered, room for 16
    const uint8_t input[2] = {0x0a, 0x0b};
    EXPECT_EQ(CIOCTL(3, 0x44000c, 2, input, 16, answer.data(), &answerLength), 0x1234u);
    EXPECT_EQ(answerLength, 16u);
    EXPECT_EQ(answer, [] { Bytes e(16, 0x5A); e.resize(24, 0xEE); return e; }());
    // The last request as sent, its sequence number zeroed.
    Bytes request = device.Stop().back();
    std::fill_n(request.begin() + 4, 4, 0);
    EXPECT_EQ(request, Bytes({1, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0x44, 0, 0x0c, 0, 0, 0, 16,
                              0, 0, 0, 2, 0x0a, 0x0b}));
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

// Each directory has the forwarding service and a control endpoint bound in
// it, so only the check stands between a daemon and whoever can write there.
TEST_F(HostDevice, OnlyADirectoryOfOurOwnIsTrusted) {
    enum Via { kItself, kSymlink, kMissing, kFile };
    const struct { const char *name; mode_t mode, parentMode; bool otherOwner; Via via; int error;
                   const char *reason; } rows[] = {
        {"own, 0700", 0700, 0700, false, kItself, 0, ""},
        {"own, in a sticky parent open to all", 0700, 01777, false, kItself, 0, ""},
        {"a symlink to our own", 0700, 0700, false, kSymlink, EACCES, "a symlink"},
        {"readable by others", 0704, 0700, false, kItself, EACCES, "open to group or others (mode 0704)"},
        {"writable by group", 0730, 0700, false, kItself, EACCES, "open to group or others (mode 0730)"},
        {"in a parent writable by others", 0700, 0777, false, kItself, EACCES, "parent writable by others"},
        {"another user's", 0700, 0700, true, kItself, EACCES, "owned by uid 65534"},
        {"a file", 0700, 0700, false, kFile, EACCES, "not a directory"},
        {"missing", 0700, 0700, false, kMissing, ENOENT, "missing"},
    };
    std::string skipped;
    for (const auto &row : rows) {
        if (row.otherOwner && geteuid() != 0) {
            skipped += std::string(skipped.empty() ? "" : "; ") + row.name;
            continue;
        }
        const std::string parent = dir_ + "/" + std::to_string(&row - rows), dev = parent + "/dev";
        ASSERT_EQ(mkdir(parent.c_str(), 0700), 0);
        ASSERT_EQ(mkdir(dev.c_str(), 0700), 0);
        const int service = Listening(dev + "/node-8000.port-2670");
        Peer control(dev + "/control", ControlDevice([](const ControlRequest &) {
            return Answer{7, {}};
        }));
        ASSERT_EQ(chmod(dev.c_str(), row.mode), 0);
        ASSERT_EQ(chmod(parent.c_str(), row.parentMode), 0);
        if (row.otherOwner) ASSERT_EQ(chown(dev.c_str(), 65534, 65534), 0);
        const std::string device = row.via == kItself ? dev : row.via == kFile ? dev + "/control" : dev + "-elsewhere";
        if (row.via == kSymlink) ASSERT_EQ(symlink(dev.c_str(), device.c_str()), 0);
        setenv("L2VFIB_DEVICE_DIR", device.c_str(), 1);

        char reason[48] = "";
        const int opened = OpenDeviceDir(reason, sizeof reason);
        EXPECT_STREQ(reason, row.reason) << row.name;
        if (opened >= 0) close(opened);
        const int fd = SKT_Socket(37, SOCK_DGRAM, 1);
        EXPECT_EQ(SKT_Connect(fd, kForwarding.data(), 16), row.error != 0 ? -1 : 0) << row.name;
        if (row.error != 0) EXPECT_EQ(errno, row.error) << row.name;
        SKT_Close(fd);
        if (row.error != 0) EXPECT_EQ(std::pair(L2VFIB_Open(nullptr), errno), std::pair(-1, row.error)) << row.name;
        close(service);
        uint32_t answerLength = 99;
        EXPECT_EQ(CIOCTL(1, 2, 0, nullptr, 0, nullptr, &answerLength),
                  row.error != 0 ? kNoDevice : 7u) << row.name;
        chmod(parent.c_str(), 0700);
    }
    if (!skipped.empty())
        GTEST_SKIP() << "only root can give a directory to uid 65534: " << skipped;
}

// Once the directory is open, renaming it away and planting another with a
// service of its own under the same name changes nothing: the connect goes
// through the descriptor to the directory that was checked.
TEST_F(HostDevice, ASwappedDirectoryIsNotReached) {
    const std::string dev = dir_ + "/dev", moved = dir_ + "/moved";
    ASSERT_EQ(mkdir(dev.c_str(), 0700), 0);
    const int ours = Listening(dev + "/node-8000.port-2670");
    setenv("L2VFIB_DEVICE_DIR", dev.c_str(), 1);
    const int opened = OpenDeviceDir(nullptr, 0);
    ASSERT_GE(opened, 0);
    ASSERT_EQ(rename(dev.c_str(), moved.c_str()), 0);
    ASSERT_EQ(mkdir(dev.c_str(), 0700), 0);
    const int planted = Listening(dev + "/node-8000.port-2670");
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    EXPECT_EQ(ConnectAt(opened, fd, "node-8000.port-2670"), 0);
    for (const int listener : {ours, planted}) {
        pollfd waiting{listener, POLLIN, 0};
        const int accepted = poll(&waiting, 1, 0) == 1 ? accept(listener, nullptr, nullptr) : -1;
        EXPECT_EQ(accepted >= 0, listener == ours);
        if (accepted >= 0) close(accepted);
    }
    for (const int open : {opened, fd, ours, planted}) close(open);
}

// The device directory's name, absolute whatever the variable gave.
TEST(HostAddr, DeviceDirIsNamedAbsolute) {
    char cwd[512], named[1024];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::pair<const char *, std::string> rows[] = {
        {"relative/dev", std::string(cwd) + "/relative/dev"}, {"/run/dev//", "/run/dev"}, {"", "/run/user/7/l2vfib"}};
    setenv("XDG_RUNTIME_DIR", "/run/user/7", 1);
    for (const auto &[variable, dir] : rows) {
        setenv("L2VFIB_DEVICE_DIR", variable, 1);
        EXPECT_EQ(l2vfib::host::DeviceDir(named, sizeof named), static_cast<int>(dir.size())) << dir;
        EXPECT_EQ(named, dir);
    }
    unsetenv("XDG_RUNTIME_DIR");
}

std::atomic<int> gSignals{0};

// The answer at its edges: a datagram of the largest size the protocol
// allows, and one that comes after a signal interrupted the wait.
TEST_F(HostDevice, ControlAnswersAtTheEdges) {
    struct sigaction counting{}, old{};
    counting.sa_handler = [](int) { ++gSignals; };  // no SA_RESTART: poll fails with EINTR
    sigemptyset(&counting.sa_mask);
    ASSERT_EQ(sigaction(SIGUSR1, &counting, &old), 0);
    const pthread_t waiter = pthread_self();
    const struct { const char *name; uint32_t room; bool interrupted; } rows[] = {
        {"an answer of exactly 4096 bytes", kMaxDatagram - kAnswerHead, false},
        {"a wait interrupted by a signal", 8, true},
    };
    for (const auto &row : rows) {
        Bytes data(row.room);
        for (size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + 1);
        unlink((dir_ + "/control").c_str());  // the last row's endpoint
        Peer device(dir_ + "/control", ControlDevice([&](const ControlRequest &) {
            if (row.interrupted) {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                pthread_kill(waiter, SIGUSR1);
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            return Answer{0x1234, data};
        }));
        Bytes answer(row.room);
        uint32_t answerLength = 0;
        const int signals = gSignals;
        EXPECT_EQ(CIOCTL(1, 2, 0, nullptr, row.room, answer.data(), &answerLength), 0x1234u)
            << row.name;
        EXPECT_EQ(answerLength, row.room) << row.name;
        EXPECT_EQ(answer, data) << row.name;
        EXPECT_EQ(gSignals - signals, row.interrupted ? 1 : 0) << row.name;
    }
    sigaction(SIGUSR1, &old, nullptr);
}

}  // namespace
