#include "server.h"

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
#include <map>
#include <thread>

#include "capture.h"
#include "device.h"
#include "host_addr.h"

namespace l2vfib::emu {

namespace {

constexpr uint16_t kServiceNode = 0x8000;
constexpr uint16_t kServicePort = 2670;
constexpr uint16_t kEventPort = 12566;
constexpr size_t kMaxDatagram = 65536;

volatile sig_atomic_t gStop = 0;

void OnSignal(int) { gStop = 1; }

std::string InDir(const std::string &name) { return DeviceDirectory() + "/" + name; }

bool FillPath(const std::string &path, sockaddr_un *address, socklen_t *length) {
    if (path.size() > host::kMaxSocketPath) return false;
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
    *length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
    return true;
}

// A socket bound at path (removed first), or -1 with a message.
int BindAt(const std::string &path, int type) {
    sockaddr_un address{};
    socklen_t length = 0;
    if (!FillPath(path, &address, &length)) {
        fmt::print(stderr, "l2vfib-emu: socket path too long: {}\n", path);
        return -1;
    }
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
        (type == SOCK_STREAM && listen(fd, 16) != 0)) {
        fmt::print(stderr, "l2vfib-emu: cannot bind {}: {}\n", path, std::strerror(errno));
        if (fd >= 0) close(fd);
        return -1;
    }
    return fd;
}

int ConnectSteering() {
    sockaddr_un address{};
    socklen_t length = 0;
    if (!FillPath(InDir("emu.sock"), &address, &length)) return -1;
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), length) != 0) {
        close(fd);
        return -1;
    }
    return fd;
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

void RemoveFiles(const std::vector<std::string> &paths) {
    for (const auto &path : paths) unlink(path.c_str());
}

// The running device: its sockets and the loop over them.
class Server {
  public:
    explicit Server(const StartOptions &options)
        : device_([](const std::string &line) {
              std::fprintf(stderr, "%s %s\n", Now().c_str(), line.c_str());
              std::fflush(stderr);
          }),
          capture_(options.capture) {}

    bool Open() {
        const uint16_t local = static_cast<uint16_t>(device_.Setup().localNode);
        char path[sizeof(sockaddr_un::sun_path)];
        if (host::NodePortPath(kServiceNode, kServicePort, path, sizeof path) < 0) return false;
        forwarding_ = BindAt(path, SOCK_DGRAM);
        files_.push_back(path);
        if (host::NodePortPath(local, kEventPort, path, sizeof path) < 0) return false;
        event_ = BindAt(path, SOCK_DGRAM);
        files_.push_back(path);
        if (host::ControlPath(path, sizeof path) < 0) return false;
        control_ = BindAt(path, SOCK_DGRAM);
        files_.push_back(path);
        steering_ = BindAt(InDir("emu.sock"), SOCK_STREAM);
        files_.push_back(InDir("emu.sock"));
        return forwarding_ >= 0 && event_ >= 0 && control_ >= 0 && steering_ >= 0;
    }

    ~Server() {
        for (int fd : {forwarding_, event_, control_, steering_})
            if (fd >= 0) close(fd);
        for (const auto &[fd, buffer] : connections_) close(fd);
        RemoveFiles(files_);
    }

    void Run() {
        std::fprintf(stderr, "%s l2vfib-emu: running in %s, pid %d\n", Now().c_str(),
                     DeviceDirectory().c_str(), getpid());
        std::fflush(stderr);
        while (!gStop && !device_.StopAsked()) {
            std::vector<pollfd> fds{{forwarding_, POLLIN, 0}, {event_, POLLIN, 0},
                                    {control_, POLLIN, 0}, {steering_, POLLIN, 0}};
            for (const auto &[fd, buffer] : connections_) fds.push_back({fd, POLLIN, 0});
            const int ready = poll(fds.data(), fds.size(), 500);
            if (ready <= 0) continue;
            if (fds[0].revents & POLLIN) Datagram(forwarding_, 0);
            if (fds[1].revents & POLLIN) Datagram(event_, 1);
            if (fds[2].revents & POLLIN) Datagram(control_, 2);
            if (fds[3].revents & POLLIN) Accept();
            for (size_t i = 4; i < fds.size(); ++i)
                if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) Converse(fds[i].fd);
        }
        std::fprintf(stderr, "%s l2vfib-emu: stopped\n", Now().c_str());
    }

  private:
    void Datagram(int fd, int service) {
        std::vector<uint8_t> buffer(kMaxDatagram);
        sockaddr_un from{};
        socklen_t fromLength = sizeof from;
        const ssize_t n = recvfrom(fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&from), &fromLength);
        if (n < 0) return;
        buffer.resize(static_cast<size_t>(n));
        const Peer peer(reinterpret_cast<const char *>(&from), fromLength);
        capture_.Record(false, service, buffer);
        if (service == 0) {
            Send(forwarding_, 0, device_.Forwarding(peer, buffer));
        } else if (service == 1) {
            device_.Event(peer, buffer);
        } else if (auto answer = device_.Control(buffer)) {
            Send(control_, 2, {Outgoing{peer, *answer}});
        }
    }

    void Send(int fd, int service, const std::vector<Outgoing> &out) {
        for (const Outgoing &o : out) {
            capture_.Record(true, service, o.bytes);
            const ssize_t n = sendto(fd, o.bytes.data(), o.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                     reinterpret_cast<const sockaddr *>(o.to.data()),
                                     static_cast<socklen_t>(o.to.size()));
            if (n >= 0) continue;
            if (service == 0 && (errno == ECONNREFUSED || errno == ENOENT))
                device_.DropClient(o.to);
            else
                std::fprintf(stderr, "%s send to %s: %s\n", Now().c_str(), PeerText(o.to).c_str(),
                             std::strerror(errno));
        }
    }

    void Accept() {
        const int fd = accept4(steering_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) connections_[fd] = {};
    }

    // Reads what a steering client sent and answers each whole line.
    void Converse(int fd) {
        char chunk[4096];
        const ssize_t n = recv(fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n <= 0) {
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
            close(fd);
            connections_.erase(fd);
            return;
        }
        std::string &buffer = connections_[fd];
        buffer.append(chunk, static_cast<size_t>(n));
        for (size_t end; (end = buffer.find('\n')) != std::string::npos;) {
            const std::string line = buffer.substr(0, end);
            buffer.erase(0, end + 1);
            Json response;
            std::vector<Outgoing> toClients, toChannels;
            try {
                response = device_.Steer(Json::parse(line), &toClients, &toChannels);
            } catch (const Json::exception &e) {
                response = Json{{"ok", false}, {"error", std::string("not JSON: ") + e.what()}};
            }
            if (device_.StopAsked()) response["pid"] = getpid();
            Send(forwarding_, 0, toClients);
            Send(event_, 1, toChannels);
            SendAll(fd, response.dump() + "\n");
        }
    }

    Device device_;
    Capture capture_;
    int forwarding_ = -1, event_ = -1, control_ = -1, steering_ = -1;
    std::map<int, std::string> connections_;
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

int RunHere(const StartOptions &options) {
    signal(SIGPIPE, SIG_IGN);
    signal(SIGTERM, OnSignal);
    signal(SIGINT, OnSignal);
    Server server(options);
    if (!server.Open()) return 1;
    server.Run();
    return 0;
}

}  // namespace

std::string DeviceDirectory() {
    char dir[sizeof(sockaddr_un::sun_path)];
    if (host::DeviceDir(dir, sizeof dir) < 0) {
        fmt::print(stderr, "l2vfib-emu: the device directory's name is too long\n");
        return {};
    }
    return dir;
}

std::optional<Json> Steer(const Json &request, std::string *error) {
    const int fd = ConnectSteering();
    if (fd < 0) {
        *error = fmt::format("no emulated device runs in {}", DeviceDirectory());
        return std::nullopt;
    }
    std::string line;
    if (SendAll(fd, request.dump() + "\n")) {
        char chunk[4096];
        for (;;) {
            const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            line.append(chunk, static_cast<size_t>(n));
            if (line.back() == '\n') break;
        }
    }
    close(fd);
    try {
        return Json::parse(line);
    } catch (const Json::exception &) {
        *error = "the emulated device gave no answer";
        return std::nullopt;
    }
}

int Start(const StartOptions &options) {
    const std::string dir = DeviceDirectory();
    if (dir.empty()) return 1;
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        fmt::print(stderr, "l2vfib-emu: cannot create {}: {}\n", dir, std::strerror(errno));
        return 1;
    }
    if (Running()) {
        fmt::print(stderr, "l2vfib-emu: already running in {}\n", dir);
        return 1;
    }
    if (options.foreground) return RunHere(options);

    const std::string logPath = InDir("emu.log");
    const pid_t child = fork();
    if (child < 0) {
        fmt::print(stderr, "l2vfib-emu: fork: {}\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        setsid();
        const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
        const int log = open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (null >= 0) dup2(null, STDIN_FILENO);
        if (log >= 0) {
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
        }
        // Nothing of the caller's stays open (a pipe held here would keep
        // the caller's reader waiting).
        closefrom(3);
        std::ofstream(InDir("emu.pid")) << getpid() << "\n";
        const int status = RunHere(options);
        unlink(InDir("emu.pid").c_str());
        _exit(status);
    }
    // Wait until the device answers, or its process ends.
    for (int waited = 0; waited < 100; ++waited) {
        if (Running()) {
            fmt::print("l2vfib-emu: started, pid {}, device directory {}, log {}\n", child, dir, logPath);
            return 0;
        }
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    fmt::print(stderr, "l2vfib-emu: the device did not start; see {}\n", logPath);
    kill(child, SIGTERM);
    return 1;
}

int Stop() {
    const std::string dir = DeviceDirectory();
    if (dir.empty()) return 1;
    std::string error;
    const auto response = Steer(Json{{"cmd", "stop"}}, &error);
    if (!response) {
        fmt::print("l2vfib-emu: not running in {}\n", dir);
        return 0;
    }
    const pid_t pid = response->value("pid", 0);
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
