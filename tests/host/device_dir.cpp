#include "device_dir.h"

#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "control_proto.h"

using namespace std::chrono_literals;
using namespace l2vfib::host;

void DeviceDirTest::SetUp() {
    char name[] = "/tmp/l2vfib-host-test-XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    dir_ = name;
    setenv("L2VFIB_DEVICE_DIR", dir_.c_str(), 1);
    setenv("L2VFIB_CONTROL_TIMEOUT_MS", "2000", 1);
}

void DeviceDirTest::TearDown() {
    if (DIR *d = opendir(dir_.c_str())) {
        while (dirent *e = readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                unlink((dir_ + "/" + e->d_name).c_str());
        closedir(d);
    }
    rmdir(dir_.c_str());
    unsetenv("L2VFIB_DEVICE_DIR");
    unsetenv("L2VFIB_CONTROL_TIMEOUT_MS");
}

Peer::Peer(const std::string &path, Handler handler) : handler_(std::move(handler)) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0) << path;
    thread_ = std::thread([this] { Run(); });
}

Peer::~Peer() {
    stop_ = true;
    thread_.join();
    close(fd_);
}

void Peer::Run() {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!stop_ && std::chrono::steady_clock::now() < end) {
        pollfd readable{fd_, POLLIN, 0};
        if (poll(&readable, 1, 20) <= 0) continue;
        uint8_t buffer[8192];
        sockaddr_un from{};
        socklen_t fromLength = sizeof from;
        const ssize_t n = recvfrom(fd_, buffer, sizeof buffer, MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&from), &fromLength);
        if (n < 0) continue;
        const Bytes datagram(buffer, buffer + n);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            received_.push_back(datagram);
        }
        arrived_.notify_all();
        if (!handler_) continue;
        const Bytes answer = handler_(datagram);
        if (!answer.empty())
            sendto(fd_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from),
                   fromLength);
    }
}

std::vector<Bytes> Peer::WaitFor(size_t n) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait_for(lock, 2s, [&] { return received_.size() >= n; });
    return received_;
}

bool Peer::SendTo(int client, const Bytes &data) {
    sockaddr_un address{};
    socklen_t length = sizeof address;
    if (getsockname(client, reinterpret_cast<sockaddr *>(&address), &length) != 0) return false;
    return sendto(fd_, data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&address),
                  length) == static_cast<ssize_t>(data.size());
}

namespace {

bool Decode(const Bytes &datagram, ControlRequest *request) {
    return DecodeRequest(datagram.data(), datagram.size(), request);
}

SeenRequest Seen(const ControlRequest &r) {
    return {r.op, r.arg0, r.arg1, r.arg2, Bytes(r.input, r.input + r.inputLength)};
}

}  // namespace

ControlPeer::ControlPeer(const std::string &path, std::function<Answer(const SeenRequest &)> device)
    : peer_(path, [device](const Bytes &datagram) {
          ControlRequest request{};
          if (!Decode(datagram, &request)) return Bytes{};
          const Answer answer = device(Seen(request));
          if (!answer.send) return Bytes{};
          const ControlAnswer reply{request.op, request.sequence, answer.result,
                                    answer.data.data(),
                                    static_cast<uint32_t>(answer.data.size())};
          Bytes out(kMaxDatagram);
          out.resize(EncodeAnswer(reply, out.data(), out.size()));
          return out;
      }) {}

std::vector<SeenRequest> ControlPeer::WaitFor(size_t n) {
    std::vector<SeenRequest> seen;
    for (const Bytes &datagram : peer_.WaitFor(n)) {
        ControlRequest request{};
        if (Decode(datagram, &request)) seen.push_back(Seen(request));
    }
    return seen;
}
