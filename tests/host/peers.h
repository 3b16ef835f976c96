// A fresh device directory per test, and datagram peers bound in it that
// stand in for the forwarding service and the control endpoint.
#ifndef L2VFIB_TESTS_HOST_PEERS_H
#define L2VFIB_TESTS_HOST_PEERS_H

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control_proto.h"

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

class DeviceDirTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char name[] = "/tmp/l2vfib-host-test-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        setenv("L2VFIB_DEVICE_DIR", name, 1);
        setenv("L2VFIB_CONTROL_TIMEOUT_MS", "2000", 1);
    }
    void TearDown() override {
        if (DIR *d = opendir(dir_.c_str())) {
            while (dirent *e = readdir(d)) unlink((dir_ + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(dir_.c_str());
    }
    std::string ServicePath() const { return dir_ + "/node-8000.port-2670"; }
    std::string ControlPath() const { return dir_ + "/control"; }
    std::string dir_;
};

// A socket bound at path. Its thread records every datagram, then sends the
// handler's answer (when not empty) back to the sender. It ends with the
// peer, or by itself after 20 s.
class Peer {
  public:
    using Handler = std::function<Bytes(const Bytes &)>;
    explicit Peer(const std::string &path, Handler handler = nullptr)
        : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)), handler_(std::move(handler)) {
        sockaddr_un address{AF_UNIX, {}};
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        thread_ = std::thread([this] { Run(); });
    }
    ~Peer() {
        stop_ = true;
        thread_.join();
        close(fd_);
    }
    // What arrived, after waiting up to 2 s for n datagrams.
    std::vector<Bytes> WaitFor(size_t n) {
        for (int i = 0; i < 200 && Received().size() < n; ++i) std::this_thread::sleep_for(10ms);
        return Received();
    }
    std::vector<Bytes> Received() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_;
    }
    // Sends from this peer's socket to the address client is bound to.
    bool SendTo(int client, const Bytes &data) {
        sockaddr_un to{};
        socklen_t length = sizeof to;
        return getsockname(client, reinterpret_cast<sockaddr *>(&to), &length) == 0 &&
               sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&to),
                      length) == ssize_t(data.size());
    }

  private:
    void Run() {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (!stop_ && std::chrono::steady_clock::now() < end) {
            pollfd readable{fd_, POLLIN, 0};
            uint8_t buffer[8192];
            sockaddr_un from{};
            socklen_t fromLength = sizeof from;
            if (poll(&readable, 1, 20) <= 0) continue;
            const ssize_t n = recvfrom(fd_, buffer, sizeof buffer, MSG_DONTWAIT,
                                       reinterpret_cast<sockaddr *>(&from), &fromLength);
            if (n < 0) continue;
            {
                std::lock_guard<std::mutex> lock(mutex_);
                received_.emplace_back(buffer, buffer + n);
            }
            const Bytes answer = handler_ ? handler_(Bytes(buffer, buffer + n)) : Bytes{};
            if (!answer.empty())
                sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from),
                       fromLength);
        }
    }
    int fd_;
    Handler handler_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::vector<Bytes> received_;
    std::thread thread_;
};

// The emulated device at the control endpoint: decodes each request and
// answers with result and data (no answer when send is false).
struct Answer {
    bool send = true;
    uint32_t result = 0;
    Bytes data;
};
using Device = std::function<Answer(const l2vfib::host::ControlRequest &)>;

inline Peer::Handler ControlHandler(Device device) {
    return [device](const Bytes &datagram) {
        l2vfib::host::ControlRequest request{};
        if (!DecodeRequest(datagram.data(), datagram.size(), &request)) return Bytes{};
        const Answer a = device(request);
        const l2vfib::host::ControlAnswer reply{request.op, request.sequence, a.result,
                                                a.data.data(), uint32_t(a.data.size())};
        Bytes out(l2vfib::host::kMaxDatagram);
        out.resize(a.send ? EncodeAnswer(reply, out.data(), out.size()) : 0);
        return out;
    };
}

// The requests among datagrams, with their input copied out.
struct Seen {
    uint8_t op;
    uint32_t arg0, arg1, arg2;
    Bytes input;
};
inline std::vector<Seen> Requests(const std::vector<Bytes> &datagrams) {
    std::vector<Seen> seen;
    for (const Bytes &d : datagrams) {
        l2vfib::host::ControlRequest r{};
        if (DecodeRequest(d.data(), d.size(), &r))
            seen.push_back({r.op, r.arg0, r.arg1, r.arg2, Bytes(r.input, r.input + r.inputLength)});
    }
    return seen;
}

#endif
