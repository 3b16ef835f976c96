#include "server.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "capture.h"
#include "device.h"
#include "host_addr.h"
#include "trace.h"

namespace l2vfib::emu {

namespace {

constexpr uint16_t kServiceNode = 0x8000;
constexpr uint16_t kServicePort = 2670;
constexpr uint16_t kEventPort = 12566;
constexpr size_t kMaxDatagram = 65536;

volatile sig_atomic_t gStop = 0;

void OnSignal(int) { gStop = 1; }

// A listening socket's backlog. A packet connection's queue holds at most
// this many packets too, so it is set above what the sender's buffer
// holds (about 180 batches at the host's largest buffer).
constexpr int kBacklog = 1024;

// A socket bound at name in the device directory open at dir (named path
// in messages), the stale file of an earlier run removed first. -1 with a
// message when that fails.
int BindAt(int dir, const std::string &path, const char *name, int type) {
    sockaddr_un address{};
    socklen_t length = 0;
    if (!host::AddressAt(dir, name, &address, &length)) {
        fmt::print(stderr, "l2vfib-emu: socket name too long: {}\n", name);
        return -1;
    }
    unlinkat(dir, name, 0);
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The socket file is made 0600 whatever the caller's umask. The device
    // is one thread, so no other file is made while the mask is narrowed.
    const mode_t mask = umask(0177);
    const bool bound = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), length) == 0;
    umask(mask);
    if (!bound) {
        fmt::print(stderr, "l2vfib-emu: cannot bind {}/{}: {}\n", path, name, std::strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

// A steering connection, and who is at its other end.
int ConnectSteering(ucred *peer) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    socklen_t credLength = sizeof *peer;
    if (host::ConnectInDeviceDir(fd, "emu.sock") != 0 ||
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, peer, &credLength) != 0 || peer->uid != geteuid()) {
        close(fd);
        return -1;
    }
    return fd;
}

// The user at the other end of a connected socket.
std::optional<ucred> PeerOf(int fd) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return std::nullopt;
    return peer;
}

// The sender's credentials a datagram came with (SO_PASSCRED).
std::optional<ucred> SenderOf(msghdr &message) {
    for (cmsghdr *c = CMSG_FIRSTHDR(&message); c != nullptr; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_CREDENTIALS || c->cmsg_len != CMSG_LEN(sizeof(ucred)))
            continue;
        ucred sender{};
        std::memcpy(&sender, CMSG_DATA(c), sizeof sender);
        return sender;
    }
    return std::nullopt;
}

bool SendAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = send(fd, text.data() + done, text.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

std::string Now() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec,
                       now.tv_nsec / 1000000);
}

int64_t MonotonicUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000LL + now.tv_nsec / 1000;
}

// The peers refused whose uid is remembered, so that each is logged once.
constexpr size_t kMaxRefusedUids = 256;

// Connections a peer may hold open at once, over both services; more are
// refused so that nobody can take every descriptor.
constexpr size_t kMaxConnections = 1000;
// Datagrams read from one connection before the others get their turn.
constexpr unsigned kReadBurst = 64;
// A steering client's unsent output above which a streamed show waits.
constexpr size_t kOutputHigh = 256 * 1024;
// A steering request line may not grow past this.
constexpr size_t kMaxRequest = 64 * 1024;
constexpr size_t kStreamBlock = 512;
// A trace subscriber's unsent records above which new ones are dropped
// (and counted), unless it asked for another bound.
constexpr size_t kTraceBound = 4 * 1024 * 1024;
constexpr size_t kTraceBoundMax = 256 * 1024 * 1024;

enum Service { kForwarding = 0, kEvent = 1, kControl = 2, kSteering = 3 };

// A steering request as read: its JSON, or why it is not JSON.
struct Request {
    Json body;
    std::string fault;
};

struct Connection {
    Service service = kForwarding;
    Peer peer;
    bool fresh = true;
    std::string in, out;
    // A streamed show in progress.
    bool streaming = false;
    std::string table;
    bool json = false;
    MessageTable::Key from{};
    bool closeWhenSent = false;
    // Requests that asked to be answered only once every service
    // connection has been read to its end ("sync": true).
    std::vector<Request> waiting;
    // A trace subscriber: every datagram in and out is copied to out as a
    // record while out stays under traceBound; the others are counted.
    bool tracing = false;
    size_t traceBound = 0;
    uint64_t traceDropped = 0;
};

// The running device: its sockets and the one loop over them. Nothing in
// the loop waits: service sockets are read in bursts, answers that the
// peer cannot take are dropped and logged, steering output is queued and
// written as the client reads it.
class Server {
  public:
    // dir is the device directory, open; the server uses it, its caller
    // closes it.
    Server(const StartOptions &options, int dir)
        : device_([this](const std::string &line) { WriteLog(line); }),
          capture_([this](const std::string &line) { WriteLog(line); }),
          options_(options),
          dir_(dir),
          dirPath_(DeviceDirectory()) {}

    // The capture first, then every socket: false, after a message, when
    // any cannot be had (what was bound goes again with the server).
    bool Open() {
        std::string error;
        if (!options_.capture.empty() && !capture_.Open(options_.capture, options_.captureMax, &error)) {
            fmt::print(stderr, "l2vfib-emu: cannot capture to {}: {}\n", options_.capture, error);
            return false;
        }
        if (!OpenServices()) return false;
        control_ = Bind(host::kControlName, SOCK_DGRAM);
        steering_ = Bind("emu.sock", SOCK_STREAM);
        // Every control datagram comes with its sender's credentials.
        const int on = 1;
        return control_ >= 0 && steering_ >= 0 &&
               setsockopt(control_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) == 0;
    }

    // The stream and packet sockets listen. The kernel gives a connecting
    // peer the credentials of the process that listens, so the process
    // that serves calls this. False, after a message, when one cannot.
    bool Listen() {
        for (int fd : {forwarding_, event_, steering_}) {
            if (listen(fd, kBacklog) == 0) continue;
            std::fprintf(stderr, "%s l2vfib-emu: cannot listen: %s\n", Now().c_str(), std::strerror(errno));
            return false;
        }
        return true;
    }

    // This process no longer owns the device (its forked copy does): the
    // server's end closes its descriptors but leaves the files.
    void Disown() {
        files_.clear();
        for (auto &name : serviceNames_) name.clear();
    }

    ~Server() {
        CloseServices();
        for (int fd : {control_, steering_})
            if (fd >= 0) close(fd);
        for (const auto &[fd, connection] : connections_) close(fd);
        for (const auto &name : files_) unlinkat(dir_, name.c_str(), 0);
    }

    void Run() {
        std::fprintf(stderr, "%s l2vfib-emu: running in %s, pid %d\n", Now().c_str(),
                     DeviceDirectory().c_str(), getpid());
        std::fflush(stderr);
        std::vector<pollfd> fds;
        while (!gStop && !device_.StopAsked()) {
            const int64_t now = MonotonicUs();
            device_.Tick(now / 1000);
            if (device_.RestartAsked()) Restart();
            const Faults &faults = device_.Fault();
            const bool readForwarding = !faults.busy && now >= nextForwardUs_;
            fds.clear();
            fds.push_back({forwarding_, POLLIN, 0});
            fds.push_back({event_, POLLIN, 0});
            fds.push_back({control_, POLLIN, 0});
            fds.push_back({steering_, POLLIN, 0});
            bool waiting = false;
            for (auto &[fd, c] : connections_) {
                waiting = waiting || !c.waiting.empty();
                short events = 0;
                if (c.service != kForwarding || readForwarding) events |= POLLIN;
                if (c.service == kSteering) {
                    Produce(c);
                    if (!c.out.empty()) events |= POLLOUT;
                }
                fds.push_back({fd, events, 0});
            }
            int timeout = 500;
            if (faults.busy && faults.busyUntilMs != 0)
                timeout = static_cast<int>(std::clamp<int64_t>(faults.busyUntilMs - now / 1000, 0, 500));
            if (!readForwarding && !faults.busy)
                timeout = static_cast<int>(std::clamp<int64_t>((nextForwardUs_ - now + 999) / 1000, 0, 500));
            // A request waiting for the services to be read to their end
            // is answered as soon as a look finds nothing more to read.
            if (waiting) timeout = 0;
            const int ready = poll(fds.data(), fds.size(), timeout);
            bool drained = ready <= 0 || !(fds[2].revents & POLLIN);
            for (size_t i = 4; i < fds.size() && ready > 0; ++i)
                if ((fds[i].revents & POLLIN) && connections_[fds[i].fd].service != kSteering) drained = false;
            if (drained || faults.busy) AnswerWaiting();
            if (ready <= 0) continue;
            if (fds[0].revents & POLLIN) Accept(forwarding_, kForwarding);
            if (fds[1].revents & POLLIN) Accept(event_, kEvent);
            if (fds[2].revents & POLLIN) ControlDatagram();
            if (fds[3].revents & POLLIN) Accept(steering_, kSteering);
            for (size_t i = 4; i < fds.size(); ++i) {
                if (fds[i].revents == 0) continue;
                auto it = connections_.find(fds[i].fd);
                if (it == connections_.end()) continue;
                if (it->second.service == kSteering)
                    Converse(fds[i].fd, it->second, fds[i].revents);
                else
                    Receive(fds[i].fd, it->second, fds[i].revents);
            }
        }
        // What is left for the steering clients (the stop answer).
        for (auto &[fd, c] : connections_)
            if (c.service == kSteering && !c.out.empty()) SendAll(fd, c.out);
        std::fprintf(stderr, "%s l2vfib-emu: stopped\n", Now().c_str());
    }

  private:
    // One log line on stderr. In the background stderr is emu.log, which
    // is bounded: past options_.logMax bytes it rotates.
    void WriteLog(const std::string &line) {
        const int n = std::fprintf(stderr, "%s %s\n", Now().c_str(), line.c_str());
        std::fflush(stderr);
        logged_ += n > 0 ? static_cast<size_t>(n) : 0;
        if (!options_.foreground && logged_ >= options_.logMax) RotateLog();
    }

    // emu.log becomes emu.log.1 (the one before goes) and a new emu.log
    // begins, both in the device directory as opened at the start, never
    // through a symlink. When that fails the log starts again where it is,
    // so that it stays bounded all the same.
    void RotateLog() {
        logged_ = 0;
        int log = -1;
        if (renameat(dir_, "emu.log", dir_, "emu.log.1") == 0)
            log = openat(dir_, "emu.log", O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (log >= 0) {
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
            close(log);
            return;
        }
        const int error = errno;
        if (ftruncate(STDERR_FILENO, 0) != 0) return;
        std::fprintf(stderr, "%s l2vfib-emu: the log did not rotate (%s); it starts again\n", Now().c_str(),
                     std::strerror(error));
    }

    // A socket bound in the device directory, removed again when the
    // server ends.
    int Bind(const char *name, int type) {
        const int fd = BindAt(dir_, dirPath_, name, type);
        if (fd >= 0) files_.emplace_back(name);
        return fd;
    }

    bool OpenServices() {
        const uint16_t local = static_cast<uint16_t>(device_.Setup().localNode);
        const uint16_t where[2][2] = {{kServiceNode, kServicePort}, {local, kEventPort}};
        int *fds[2] = {&forwarding_, &event_};
        for (int i = 0; i < 2; ++i) {
            char name[32];
            if (host::NodePortName(where[i][0], where[i][1], name, sizeof name) < 0) return false;
            *fds[i] = BindAt(dir_, dirPath_, name, SOCK_SEQPACKET);
            if (*fds[i] < 0) return false;
            serviceNames_[i] = name;
        }
        return true;
    }

    void CloseServices() {
        for (int *fd : {&forwarding_, &event_}) {
            if (*fd >= 0) close(*fd);
            *fd = -1;
        }
        for (auto &name : serviceNames_)
            if (!name.empty()) unlinkat(dir_, name.c_str(), 0);
    }

    // The services go away and come back, as a device's service does when
    // it restarts: every connection to them is closed.
    void Restart() {
        // The service files go first: a client that sees its connection
        // close and connects again at once must find no service, not the
        // old one about to close, until the new one is bound.
        CloseServices();
        for (auto it = connections_.begin(); it != connections_.end();) {
            if (it->second.service == kSteering) {
                ++it;
                continue;
            }
            close(it->first);
            peers_.erase(it->second.peer);
            it = connections_.erase(it);
        }
        device_.Restarted();
        if (!OpenServices() || !Listen()) {
            std::fprintf(stderr, "%s l2vfib-emu: the services did not come back\n", Now().c_str());
            gStop = 1;
        }
    }

    void Accept(int listener, Service service) {
        for (;;) {
            const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd < 0) return;
            if (service == kSteering) {
                // Only the device's own user steers it.
                ucred peer{};
                socklen_t length = sizeof peer;
                if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.uid != geteuid()) {
                    close(fd);
                    device_.CountRefused(peer.uid, peer.pid);
                    continue;
                }
            } else if (!Trusted(PeerOf(fd), service) || connections_.size() >= kMaxConnections) {
                close(fd);
                continue;
            }
            Connection c;
            c.service = service;
            c.peer = fmt::format("@{}", ++connectionCount_);
            if (service != kSteering) peers_[c.peer] = fd;
            connections_.emplace(fd, std::move(c));
        }
    }

    void Drop(int fd, Connection &c) {
        if (c.service == kForwarding) device_.DropClient(c.peer);
        peers_.erase(c.peer);
        close(fd);
        connections_.erase(fd);
    }

    // Reads a burst of datagrams from a service connection, with one
    // system call (recvmmsg), then hands each to the device in order.
    void Receive(int fd, Connection &c, short revents) {
        if (!(revents & POLLIN)) {
            if (revents & (POLLHUP | POLLERR)) Drop(fd, c);
            return;
        }
        const bool slow = c.service == kForwarding && device_.Fault().slowUs != 0;
        const unsigned want = slow ? 1 : kReadBurst;
        for (unsigned i = 0; i < want; ++i) {
            slots_[i] = iovec{burst_.data() + i * kMaxDatagram, kMaxDatagram};
            headers_[i] = mmsghdr{};
            headers_[i].msg_hdr.msg_iov = &slots_[i];
            headers_[i].msg_hdr.msg_iovlen = 1;
        }
        int got;
        do got = recvmmsg(fd, headers_.data(), want, MSG_DONTWAIT, nullptr);
        while (got < 0 && errno == EINTR);
        if (got < 0) return;
        for (int i = 0; i < got; ++i) {
            // A packet connection ends with a read of nothing.
            if (headers_[i].msg_len == 0) {
                Drop(fd, c);
                return;
            }
            const std::span<const uint8_t> datagram(burst_.data() + i * kMaxDatagram, headers_[i].msg_len);
            capture_.Record(false, c.service, datagram);
            Trace(false, c.service, c.peer, datagram);
            const bool fresh = c.fresh;
            c.fresh = false;
            if (c.service == kForwarding)
                Send(kForwarding, device_.Forwarding(c.peer, fresh, datagram));
            else
                device_.Event(c.peer, datagram);
        }
        if (got == 0) Drop(fd, c);
        if (slow) nextForwardUs_ = MonotonicUs() + device_.Fault().slowUs;
    }

    // A peer of a service is this device's user or root. Anyone else is
    // turned away: counted each time, logged once per uid.
    bool Trusted(const std::optional<ucred> &peer, Service service) {
        if (peer && (peer->uid == geteuid() || peer->uid == 0)) return true;
        const uint32_t uid = peer ? peer->uid : static_cast<uint32_t>(-1);
        std::string line;
        if (refusedUids_.size() < kMaxRefusedUids && refusedUids_.insert(uid).second) {
            static constexpr const char *kNames[] = {"forwarding", "event", "control", "steering"};
            line = fmt::format("{} service refused a peer of uid {} (pid {}): only uid {} and root are served; "
                               "more from uid {} are refused without a word",
                               kNames[service], uid, peer ? peer->pid : 0, geteuid(), uid);
        }
        device_.CountPeerRefused(line);
        return false;
    }

    void ControlDatagram() {
        sockaddr_un from{};
        iovec slot{buffer_.data(), buffer_.size()};
        alignas(cmsghdr) char credentials[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_name = &from;
        message.msg_namelen = sizeof from;
        message.msg_iov = &slot;
        message.msg_iovlen = 1;
        message.msg_control = credentials;
        message.msg_controllen = sizeof credentials;
        const ssize_t n = recvmsg(control_, &message, MSG_DONTWAIT);
        if (n < 0 || !Trusted(SenderOf(message), kControl)) return;
        const std::span<const uint8_t> request(buffer_.data(), static_cast<size_t>(n));
        capture_.Record(false, kControl, request);
        Trace(false, kControl, "control", request);
        const auto answer = device_.Control(request);
        if (!answer) return;
        capture_.Record(true, kControl, *answer);
        Trace(true, kControl, "control", *answer);
        sendto(control_, answer->data(), answer->size(), MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&from), message.msg_namelen);
    }

    // Answers, notices and events: sent without waiting; one that its peer
    // cannot take now is dropped and logged.
    void Send(Service service, const std::vector<Outgoing> &out) {
        for (const Outgoing &o : out) {
            const auto peer = peers_.find(o.to);
            if (peer == peers_.end()) continue;
            capture_.Record(true, service, o.bytes);
            Trace(true, service, o.to, o.bytes);
            if (send(peer->second, o.bytes.data(), o.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) continue;
            std::fprintf(stderr, "%s send to %s: %s, dropped\n", Now().c_str(), PeerText(o.to).c_str(),
                         std::strerror(errno));
        }
    }

    // Copies a datagram to every trace subscriber that has room for it; one
    // that has none loses it, and is told how many it lost before the next
    // record that fits.
    void Trace(bool fromDevice, Service service, const Peer &peer, std::span<const uint8_t> datagram) {
        if (tracers_.empty()) return;
        int64_t timeUs = 0;
        const size_t size = TraceRecordSize(peer, datagram.size());
        for (int fd : tracers_) {
            Connection &c = connections_[fd];
            const size_t marker = c.traceDropped != 0 ? kDroppedRecordSize : 0;
            if (c.out.size() + marker + size > c.traceBound) {
                ++c.traceDropped;
                continue;
            }
            if (timeUs == 0) {
                timespec now{};
                clock_gettime(CLOCK_REALTIME, &now);
                timeUs = now.tv_sec * 1000000LL + now.tv_nsec / 1000;
            }
            if (c.traceDropped != 0) AppendDroppedRecord(c.out, c.traceDropped, timeUs);
            c.traceDropped = 0;
            AppendTraceRecord(c.out, fromDevice, service, peer, timeUs, datagram);
        }
    }

    void CloseSteering(int fd, Connection &c) {
        if (c.tracing) tracers_.erase(fd);
        close(fd);
        connections_.erase(fd);
    }

    // Reads what a steering client sent and answers each whole line.
    void Converse(int fd, Connection &c, short revents) {
        if (revents & POLLOUT) {
            const ssize_t n = send(fd, c.out.data(), c.out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n > 0) c.out.erase(0, static_cast<size_t>(n));
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                CloseSteering(fd, c);
                return;
            }
            if (c.out.empty() && c.closeWhenSent && !c.streaming) {
                CloseSteering(fd, c);
                return;
            }
        }
        if (!(revents & (POLLIN | POLLHUP | POLLERR))) return;
        char chunk[4096];
        const ssize_t n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n <= 0 || c.in.size() + static_cast<size_t>(n) > kMaxRequest) {
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
            CloseSteering(fd, c);
            return;
        }
        if (c.tracing) return;  // a subscriber says nothing more
        c.in.append(chunk, static_cast<size_t>(n));
        for (size_t end; !c.streaming && !c.tracing && (end = c.in.find('\n')) != std::string::npos;) {
            const std::string line = c.in.substr(0, end);
            c.in.erase(0, end + 1);
            Request request;
            try {
                request.body = Json::parse(line);
            } catch (const Json::exception &e) {
                request.fault = std::string("not JSON: ") + e.what();
            }
            // Requests are answered in order: behind one that waits, all do.
            if (!c.waiting.empty() || (request.body.is_object() && request.body.value("sync", false))) {
                c.waiting.push_back(std::move(request));
                continue;
            }
            c.out += Answer(fd, c, request);
        }
    }

    // Answers every waiting request: the services have been read to their
    // end (or the forwarding service is not read at all, while busy).
    void AnswerWaiting() {
        for (auto &[fd, c] : connections_) {
            for (const Request &request : c.waiting) c.out += Answer(fd, c, request);
            c.waiting.clear();
        }
    }

    // One steering request's answer line. A show that streams starts its
    // stream on c instead; a trace request makes c (on fd) a subscriber.
    std::string Answer(int fd, Connection &c, const Request &read) {
        Json response;
        std::vector<Outgoing> toClients, toChannels;
        const Json &request = read.body;
        try {
            if (!read.fault.empty()) {
                response = Json{{"ok", false}, {"error", read.fault}};
            } else if (request.value("cmd", "") == "show" && request.value("stream", false) &&
                !request.contains("key") && device_.IsStreamed(request.value("table", ""))) {
                c.streaming = true;
                c.closeWhenSent = true;
                c.table = request.value("table", "");
                c.json = request.value("json", false);
                c.from = {};
                response = Json{{"ok", true}, {"stream", true}, {"table", c.table}};
            } else if (request.value("cmd", "") == "trace") {
                // From here on the connection carries trace records.
                const uint64_t bound = request.value("buffer", uint64_t{0});
                c.traceBound = bound == 0 ? kTraceBound : std::clamp<size_t>(bound, 1024, kTraceBoundMax);
                c.tracing = true;
                tracers_.insert(fd);
                response = Json{{"ok", true}, {"trace", true}, {"buffer", c.traceBound}};
            } else {
                response = device_.Steer(request, &toClients, &toChannels);
            }
        } catch (const Json::exception &e) {
            response = Json{{"ok", false}, {"error", std::string("bad request: ") + e.what()}};
        }
        Send(kForwarding, toClients);
        Send(kEvent, toChannels);
        return response.dump() + "\n";
    }

    // Renders the next block of a streamed show while the client keeps up.
    void Produce(Connection &c) {
        while (c.streaming && c.out.size() < kOutputHigh)
            c.streaming = device_.StreamRows(c.table, &c.from, kStreamBlock, c.json, &c.out);
    }

    Device device_;
    Capture capture_;
    StartOptions options_;
    int dir_;              // the device directory, open
    std::string dirPath_;  // its path, for messages
    size_t logged_ = 0;
    std::set<uint32_t> refusedUids_;  // peers refused and logged, by uid
    int forwarding_ = -1, event_ = -1, control_ = -1, steering_ = -1;
    std::string serviceNames_[2];
    std::map<int, Connection> connections_;
    std::map<Peer, int> peers_;
    uint64_t connectionCount_ = 0;
    std::set<int> tracers_;  // the trace subscribers' connections
    int64_t nextForwardUs_ = 0;
    std::vector<uint8_t> buffer_ = std::vector<uint8_t>(kMaxDatagram);
    // The burst's room: kReadBurst datagrams of any size a packet may have.
    std::vector<uint8_t> burst_ = std::vector<uint8_t>(kReadBurst * kMaxDatagram);
    std::array<iovec, kReadBurst> slots_{};
    std::array<mmsghdr, kReadBurst> headers_{};
    std::vector<std::string> files_;
};

// True once pid has ended (a zombie that nobody reaps counts as ended).
bool Gone(pid_t pid) {
    std::ifstream stat(fmt::format("/proc/{}/stat", pid));
    std::string text;
    if (!std::getline(stat, text)) return true;
    const size_t paren = text.rfind(')');
    return paren == std::string::npos || paren + 2 >= text.size() || text[paren + 2] == 'Z';
}

bool Running() {
    std::string error;
    return Steer(Json{{"cmd", "status"}}, &error).has_value();
}

// Runs the opened server until it is stopped. An error that escapes the
// loop ends it as a stop does (its files go with the server). Returns the
// exit status.
int RunHere(Server &server) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGTERM, OnSignal);
    signal(SIGINT, OnSignal);
    try {
        server.Run();
        return 0;
    } catch (const std::exception &e) {
        std::fprintf(stderr, "%s l2vfib-emu: stopped by an error: %s\n", Now().c_str(), e.what());
        return 1;
    }
}

// The device directory at path, made 0700 when missing, checked and
// opened: its descriptor, or -1 after a message.
int OpenDirectory(const std::string &path) {
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        fmt::print(stderr, "l2vfib-emu: cannot create {}: {}\n", path, std::strerror(errno));
        return -1;
    }
    char why[64];
    const int dir = host::OpenTrustedDir(path.c_str(), why, sizeof why);
    if (dir < 0) fmt::print(stderr, "l2vfib-emu: the device directory {} is not trusted: {}\n", path, why);
    return dir;
}

void WritePid(int dir) {
    const int fd = openat(dir, "emu.pid", O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
    const std::string text = fmt::format("{}\n", getpid());
    if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        std::fprintf(stderr, "%s l2vfib-emu: cannot write emu.pid: %s\n", Now().c_str(), std::strerror(errno));
    if (fd >= 0) close(fd);
}

// The opened server runs on in a process of its own: stdin /dev/null,
// stdout and stderr emu.log, its pid in emu.pid (removed again however it
// ends but killed). Returns in this process once that one listens.
int Detach(std::unique_ptr<Server> server, int dir, const std::string &path) {
    const int log = openat(dir, "emu.log", O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0600);
    int ready[2] = {-1, -1};
    if (log < 0 || pipe2(ready, O_CLOEXEC) != 0) {
        fmt::print(stderr, "l2vfib-emu: cannot open {}/emu.log: {}\n", path, std::strerror(errno));
        return 1;
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ready[0]);
        setsid();
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (null >= 0) dup2(null, STDIN_FILENO);
        dup2(log, STDOUT_FILENO);
        dup2(log, STDERR_FILENO);
        // Everything is reached through the descriptors opened already, so
        // the device holds no directory but its own.
        if (chdir("/") != 0) std::fprintf(stderr, "l2vfib-emu: chdir /: %s\n", std::strerror(errno));
        WritePid(dir);
        const bool listening = server->Listen();
        if (listening) (void)!write(ready[1], "+", 1);
        close(ready[1]);
        const int status = listening ? RunHere(*server) : 1;
        server.reset();
        unlinkat(dir, "emu.pid", 0);
        _exit(status);
    }
    close(log);
    close(ready[1]);
    // One byte once the device listens; none when it ended first.
    char byte = 0;
    ssize_t got;
    do got = child > 0 ? read(ready[0], &byte, 1) : 0;
    while (got < 0 && errno == EINTR);
    close(ready[0]);
    server->Disown();
    if (got != 1) {
        fmt::print(stderr, "l2vfib-emu: the device did not start; see {}/emu.log\n", path);
        return 1;
    }
    fmt::print("l2vfib-emu: started, pid {}, device directory {}, log {}/emu.log\n", child, path, path);
    return 0;
}

// A device that ended without its cleanup (killed) leaves emu.pid naming a
// process that is gone, and its socket files: they are removed. True when
// there were some.
bool RemoveStale() {
    const int dir = host::OpenDeviceDir(nullptr, 0);
    if (dir < 0) return false;
    char text[24] = {};
    const int fd = openat(dir, "emu.pid", O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    const ssize_t n = fd >= 0 ? read(fd, text, sizeof text - 1) : -1;
    if (fd >= 0) close(fd);
    uint64_t pid = 0;
    const bool stale = n > 1 && text[n - 1] == '\n' && ParseNumber(std::string(text, n - 1), &pid) &&
                       pid > 0 && pid < (1u << 31) && Gone(static_cast<pid_t>(pid));
    DIR *entries = stale ? fdopendir(openat(dir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) : nullptr;
    while (dirent *entry = entries ? readdir(entries) : nullptr) {
        const std::string name = entry->d_name;
        struct stat seen{};
        if ((name == "emu.sock" || name == host::kControlName || name.starts_with("node-")) &&
            fstatat(dir, entry->d_name, &seen, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(seen.st_mode))
            unlinkat(dir, entry->d_name, 0);
    }
    if (entries != nullptr) closedir(entries);
    if (stale) unlinkat(dir, "emu.pid", 0);
    close(dir);
    return stale;
}

}  // namespace

std::string DeviceDirectory() {
    char dir[host::kMaxDirPath + 1];
    if (host::DeviceDir(dir, sizeof dir) < 0) {
        fmt::print(stderr, "l2vfib-emu: the device directory cannot be named: {}\n", std::strerror(errno));
        return {};
    }
    return dir;
}

namespace {

// Sends one request and reads the first line of the answer; the rest of a
// streamed answer stays in *rest and on the connection, whose descriptor
// *fd keeps (-1 when it was closed).
std::optional<Json> Ask(const Json &request, std::string *error, pid_t *pid, int *fd, std::string *rest) {
    ucred peer{};
    *fd = ConnectSteering(&peer);
    if (*fd < 0) {
        *error = fmt::format("no emulated device of this user runs in {}", DeviceDirectory());
        return std::nullopt;
    }
    if (pid != nullptr) *pid = peer.pid;
    std::string line;
    if (SendAll(*fd, request.dump() + "\n")) {
        char chunk[4096];
        for (;;) {
            const ssize_t n = recv(*fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            line.append(chunk, static_cast<size_t>(n));
            if (line.find('\n') != std::string::npos) break;
        }
    }
    const size_t end = line.find('\n');
    if (end != std::string::npos && rest != nullptr) *rest = line.substr(end + 1);
    try {
        return Json::parse(line.substr(0, end));
    } catch (const Json::exception &) {
        *error = "the emulated device gave no answer";
        return std::nullopt;
    }
}

}  // namespace

std::optional<Json> Steer(const Json &request, std::string *error) {
    int fd = -1;
    auto response = Ask(request, error, nullptr, &fd, nullptr);
    if (fd >= 0) close(fd);
    return response;
}

int SteerConnection(const Json &request, std::string *error, Json *response, std::string *rest) {
    int fd = -1;
    auto answer = Ask(request, error, nullptr, &fd, rest);
    if (!answer) {
        if (fd >= 0) close(fd);
        return -1;
    }
    *response = std::move(*answer);
    return fd;
}

std::optional<Json> SteerStreamed(const Json &request, std::string *error, std::FILE *out) {
    int fd = -1;
    std::string rest;
    auto response = Ask(request, error, nullptr, &fd, &rest);
    if (response && response->value("stream", false)) {
        const bool json = request.value("json", false);
        // JSON rows come one object a line; they print as one array.
        bool first = true;
        std::string pending = rest;
        auto emit = [&](bool last) {
            if (!json) {
                std::fwrite(pending.data(), 1, pending.size(), out);
                pending.clear();
                return;
            }
            for (size_t end; (end = pending.find('\n')) != std::string::npos;) {
                std::fprintf(out, "%s%s", first ? "[\n  " : ",\n  ", pending.substr(0, end).c_str());
                first = false;
                pending.erase(0, end + 1);
            }
            if (last) std::fprintf(out, "%s", first ? "[]\n" : "\n]\n");
        };
        emit(false);
        char chunk[65536];
        for (;;) {
            const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            pending.append(chunk, static_cast<size_t>(n));
            emit(false);
        }
        emit(true);
    }
    if (fd >= 0) close(fd);
    return response;
}

int Start(const StartOptions &options) {
    StartOptions run = options;
    const char *logMax = std::getenv("L2VFIB_EMU_LOG_MAX");
    if (logMax != nullptr && logMax[0] != '\0' && (!ParseSize(logMax, &run.logMax) || run.logMax == 0)) {
        fmt::print(stderr, "l2vfib-emu: L2VFIB_EMU_LOG_MAX: not a size: '{}'\n", logMax);
        return 2;
    }
    // A device in the background keeps nothing of its caller's open (a
    // pipe held would keep the caller's reader waiting): what this process
    // was given past stderr is closed before the device opens its own.
    if (!options.foreground) closefrom(3);
    const std::string path = DeviceDirectory();
    if (path.empty()) return 1;
    const int dir = OpenDirectory(path);
    if (dir < 0) return 1;
    int status = 1;
    if (Running()) {
        fmt::print(stderr, "l2vfib-emu: already running in {}\n", path);
    } else {
        auto server = std::make_unique<Server>(run, dir);
        if (server->Open())
            status = !options.foreground ? Detach(std::move(server), dir, path) : server->Listen() ? RunHere(*server) : 1;
    }
    close(dir);
    return status;
}

int Stop() {
    const std::string dir = DeviceDirectory();
    if (dir.empty()) return 1;
    std::string error;
    // The pid to wait for is the one the kernel reports for the steering
    // socket's other end, never one taken from what it answers.
    pid_t pid = 0;
    int fd = -1;
    const auto response = Ask(Json{{"cmd", "stop"}}, &error, &pid, &fd, nullptr);
    if (fd >= 0) close(fd);
    if (!response) {
        fmt::print("l2vfib-emu: not running in {}{}\n", dir, RemoveStale() ? " (its stale files removed)" : "");
        return 0;
    }
    for (int waited = 0; waited < 100 && pid > 0 && !Gone(pid); ++waited)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (pid > 0 && !Gone(pid)) {
        fmt::print(stderr, "l2vfib-emu: pid {} did not stop; sending SIGKILL\n", pid);
        kill(pid, SIGKILL);
    }
    fmt::print("l2vfib-emu: stopped (pid {})\n", pid);
    return 0;
}

}  // namespace l2vfib::emu
