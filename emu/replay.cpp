// Replay: the datagrams a capture holds towards the device, sent again in
// order to a running device, one connection per service (the capture does
// not say which of a daemon's sockets sent what), at the capture's pace or
// faster. The tables that the capture's own session ended with are learnt
// by replaying it into a fresh device of the replay's own; the two
// devices' tables are then compared row by row.
#include <fmt/format.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <thread>

#include "host_addr.h"
#include "server.h"
#include "trace.h"

namespace l2vfib::emu {

namespace {

using Clock = std::chrono::steady_clock;

// One datagram the capture holds towards the device.
struct Captured {
    int64_t timeUs = 0;
    int service = 0;  // 0 forwarding, 1 event, 2 control
    uint16_t node = 0, port = 0;
    std::vector<uint8_t> bytes;
};

// The records of a capture with direction 0; nothing, with *error set,
// for a file that is not a whole capture of the emulated device.
std::optional<std::vector<Captured>> ReadCapture(const std::string &path, std::string *error) {
    char text[PCAP_ERRBUF_SIZE] = {};
    pcap_t *pcap = pcap_open_offline(path.c_str(), text);
    if (pcap == nullptr) {
        *error = text;
        return std::nullopt;
    }
    std::vector<Captured> out;
    if (pcap_datalink(pcap) != DLT_USER0) {
        *error = fmt::format("{}: link type {}, not a capture of the emulated device (USER0, {})", path,
                             pcap_datalink(pcap), DLT_USER0);
        pcap_close(pcap);
        return std::nullopt;
    }
    pcap_pkthdr *head = nullptr;
    const u_char *data = nullptr;
    int got = 0;
    for (size_t n = 1; (got = pcap_next_ex(pcap, &head, &data)) == 1; ++n) {
        if (head->caplen != head->len || head->caplen < 8 || data[0] > 1 || data[1] > 2) {
            *error = fmt::format("{}: record {} is cut short or has no pseudo-header", path, n);
            pcap_close(pcap);
            return std::nullopt;
        }
        if (data[0] != 0) continue;
        out.push_back(Captured{head->ts.tv_sec * 1000000LL + head->ts.tv_usec, data[1],
                               static_cast<uint16_t>(data[2] << 8 | data[3]),
                               static_cast<uint16_t>(data[4] << 8 | data[5]),
                               std::vector<uint8_t>(data + 8, data + head->caplen)});
    }
    if (got == PCAP_ERROR) {
        *error = fmt::format("{}: {}", path, pcap_geterr(pcap));
        pcap_close(pcap);
        return std::nullopt;
    }
    pcap_close(pcap);
    return out;
}

// Reads and drops whatever the device sent back (answers, notices), so
// that the connection never fills.
void Drain(int fd) {
    char buffer[65536];
    while (recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) > 0) {
    }
}

// The sockets the replay sends on: one packet connection per service
// (node and port as the capture names them) and one datagram socket for
// the control endpoint, opened at first use.
class Sender {
  public:
    ~Sender() {
        for (const auto &[where, fd] : fds_) close(fd);
    }

    // Sends one datagram, waiting while the device's queue is full (at
    // most a minute); false with *error set when it cannot.
    bool Send(const Captured &c, std::string *error) {
        const int fd = Socket(c, error);
        if (fd < 0) return false;
        const auto end = Clock::now() + std::chrono::minutes(1);
        for (;;) {
            const ssize_t n = send(fd, c.bytes.data(), c.bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            Drain(fd);
            if (n >= 0) return true;
            if (errno != EAGAIN && errno != EINTR) {
                *error = fmt::format("sending to the {} service: {}", Name(c.service), std::strerror(errno));
                return false;
            }
            if (Clock::now() > end) {
                *error = fmt::format("the device has not read its {} service for a minute", Name(c.service));
                return false;
            }
            pollfd ready{fd, POLLOUT | POLLIN, 0};
            poll(&ready, 1, 100);
        }
    }

    void DrainAll() {
        for (const auto &[where, fd] : fds_) Drain(fd);
    }

  private:
    static const char *Name(int service) { return service == 0 ? "forwarding" : service == 1 ? "event" : "control"; }

    int Socket(const Captured &c, std::string *error) {
        const uint32_t where = c.service == 2 ? 0xFFFFFFFFu : static_cast<uint32_t>(c.node) << 16 | c.port;
        if (auto it = fds_.find(where); it != fds_.end()) return it->second;
        const int fd = socket(AF_UNIX, (c.service == 2 ? SOCK_DGRAM : SOCK_SEQPACKET) | SOCK_CLOEXEC, 0);
        // Each socket is connected through the device directory, checked.
        char service[32];
        const char *name = c.service == 2 ? host::kControlName : service;
        bool ok = fd >= 0;
        if (ok && c.service == 2) ok = host::BindIfUnbound(fd);
        else if (ok) ok = host::NodePortName(c.node, c.port, service, sizeof service) >= 0;
        ok = ok && host::ConnectInDeviceDir(fd, name) == 0;
        if (!ok) {
            *error = fmt::format("cannot reach the {} service (node {:#06x}, port {}): {}", Name(c.service), c.node,
                                 c.port, std::strerror(errno));
            if (fd >= 0) close(fd);
            return -1;
        }
        fds_[where] = fd;
        return fd;
    }

    std::map<uint32_t, int> fds_;
};

// Waits until the device has read every service to its end.
bool Synced(std::string *error) { return Steer(Json{{"cmd", "status"}, {"sync", true}}, error).has_value(); }

// Sends the capture to the device of the current device directory, at
// speed times the capture's pace (0: as fast as it goes), and waits until
// the device has read it all. The device reads its services in an order of
// its own, so before a datagram to another service than the last one it
// waits until the device has read what went before: each datagram is read
// in the capture's order, as the capturing device read it.
bool Send(const std::vector<Captured> &capture, double speed, std::string *error) {
    Sender sender;
    const auto start = Clock::now();
    int last = -1;
    for (const Captured &c : capture) {
        if (last != -1 && c.service != last && !Synced(error)) return false;
        last = c.service;
        if (speed > 0) {
            const auto due = start + std::chrono::microseconds(
                                         static_cast<int64_t>((c.timeUs - capture.front().timeUs) / speed));
            while (Clock::now() < due) {
                sender.DrainAll();
                std::this_thread::sleep_for(std::min<Clock::duration>(due - Clock::now(),
                                                                      std::chrono::milliseconds(10)));
            }
        }
        if (!sender.Send(c, error)) return false;
    }
    const bool done = Synced(error);
    sender.DrainAll();
    return done;
}

// Sets the device directory for the steering and service calls made while
// it lives, and puts the one before back.
class DeviceDirScope {
  public:
    explicit DeviceDirScope(const std::string &dir) {
        if (const char *old = std::getenv("L2VFIB_DEVICE_DIR")) old_ = old;
        setenv("L2VFIB_DEVICE_DIR", dir.c_str(), 1);
    }
    ~DeviceDirScope() {
        if (old_) setenv("L2VFIB_DEVICE_DIR", old_->c_str(), 1);
        else unsetenv("L2VFIB_DEVICE_DIR");
    }

  private:
    std::optional<std::string> old_;
};

// The tables ("show all") of the device of the current device directory.
std::optional<Json> Tables(std::string *error) {
    const auto response = Steer(Json{{"cmd", "show"}, {"table", "all"}}, error);
    if (!response) return std::nullopt;
    if (!response->value("ok", false) || !response->contains("tables")) {
        *error = response->value("error", "the device gave no tables");
        return std::nullopt;
    }
    return (*response)["tables"];
}

// The tables a fresh device ends with once it has read the capture: a
// private device in a directory of its own, stopped again before this
// returns.
std::optional<Json> FreshTables(const std::vector<Captured> &capture, std::string *error) {
    std::error_code ec;
    const std::string base = std::filesystem::temp_directory_path(ec).string();
    std::string dir = (ec ? std::string("/tmp") : base) + "/l2vfib-replay.XXXXXX";
    if (mkdtemp(dir.data()) == nullptr) {
        *error = fmt::format("cannot make a directory for a fresh device: {}", std::strerror(errno));
        return std::nullopt;
    }
    const pid_t child = fork();
    if (child == 0) {
        setenv("L2VFIB_DEVICE_DIR", dir.c_str(), 1);
        if (std::freopen((dir + "/emu.log").c_str(), "w", stderr) == nullptr) _exit(127);
        execl("/proc/self/exe", "l2vfib-emu", "start", "--foreground", static_cast<char *>(nullptr));
        _exit(127);
    }
    std::optional<Json> tables;
    bool up = false;
    {
        DeviceDirScope scope(dir);
        std::string ignored;
        for (int i = 0; i < 200 && child > 0 && !up; ++i) {
            up = Steer(Json{{"cmd", "status"}}, &ignored).has_value();
            int status = 0;
            if (!up && waitpid(child, &status, WNOHANG) == child) break;
            if (!up) std::this_thread::sleep_for(std::chrono::milliseconds(25));
        }
        if (!up) *error = fmt::format("the fresh device did not start (see {}/emu.log)", dir);
        else if (Send(capture, 0, error)) tables = Tables(error);
        if (up) Steer(Json{{"cmd", "stop"}}, &ignored);
    }
    bool gone = child <= 0;
    for (int i = 0; i < 200 && !gone; ++i) {
        int status = 0;
        gone = waitpid(child, &status, WNOHANG) == child;
        if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!gone) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    // A device that did not start leaves its log for the message above.
    if (up) std::filesystem::remove_all(dir, ec);
    return tables;
}

// The rows of one table by key, "key" left out. The keys of the tables
// kept per connection ("@12", "@12/3") name connections, which differ
// from device to device: they are numbered in their order instead (#1, #2).
std::map<std::string, Json> ByKey(const std::string &table, const Json &rows) {
    std::map<std::string, Json> out;
    const bool perConnection = table == "channel" || table == "reg";
    std::map<uint64_t, std::string> connections;
    if (perConnection)
        for (const Json &row : rows) {
            const std::string key = row.value("key", "");
            connections[std::strtoull(key.c_str() + 1, nullptr, 10)] = "";
        }
    size_t n = 0;
    for (auto &[number, name] : connections) name = fmt::format("#{}", ++n);
    for (const Json &row : rows) {
        std::string key = row.value("key", "");
        if (perConnection && !key.empty() && key[0] == '@') {
            const size_t end = std::min(key.find('/'), key.size());
            key = connections[std::strtoull(key.c_str() + 1, nullptr, 10)] + key.substr(end);
        }
        Json fields = row;
        fields.erase("key");
        out[key] = std::move(fields);
    }
    return out;
}

std::string Cell(const Json *fields, const std::string &name) {
    if (fields == nullptr || !fields->contains(name)) return "-";
    return FieldText((*fields)[name]);
}

// Prints each row in which the tables differ; returns how many.
size_t Compare(const Json &theirs, const Json &ours) {
    std::vector<std::string> names;
    for (const auto &[name, rows] : ours.items()) names.push_back(name);
    for (const auto &[name, rows] : theirs.items())
        if (!ours.contains(name)) names.push_back(name);
    size_t differences = 0;
    const Json none = Json::array();
    for (const std::string &name : names) {
        const auto a = ByKey(name, theirs.contains(name) ? theirs[name] : none);
        const auto b = ByKey(name, ours.contains(name) ? ours[name] : none);
        std::set<std::string> keys;
        for (const auto &[key, row] : a) keys.insert(key);
        for (const auto &[key, row] : b) keys.insert(key);
        for (const std::string &key : keys) {
            const auto x = a.find(key), y = b.find(key);
            if (x == a.end() || y == b.end()) {
                fmt::print("{} {}: {} only\n", name, key, x == a.end() ? "ours" : "theirs");
                ++differences;
                continue;
            }
            if (x->second == y->second) continue;
            ++differences;
            std::vector<std::string> fields;
            for (const auto &[field, value] : x->second.items()) fields.push_back(field);
            for (const auto &[field, value] : y->second.items())
                if (!x->second.contains(field)) fields.push_back(field);
            for (const std::string &field : fields) {
                const std::string t = Cell(&x->second, field), o = Cell(&y->second, field);
                if (!x->second.contains(field) || !y->second.contains(field) || x->second[field] != y->second[field])
                    fmt::print("{} {} {}: theirs {} vs ours {}\n", name, key, field, t, o);
            }
        }
    }
    return differences;
}

}  // namespace

int RunReplay(const ReplayOptions &options) {
    std::string error;
    const auto capture = ReadCapture(options.capture, &error);
    if (!capture) {
        fmt::print(stderr, "l2vfib-emu: {}\n", error);
        return 2;
    }
    if (!Steer(Json{{"cmd", "status"}}, &error)) {
        fmt::print(stderr, "l2vfib-emu: {}\n", error);
        return 2;
    }
    size_t perService[3] = {};
    for (const Captured &c : *capture) ++perService[c.service];
    const auto start = Clock::now();
    std::optional<Json> theirs;
    if (!Send(*capture, options.speed, &error) || !(theirs = Tables(&error))) {
        fmt::print(stderr, "l2vfib-emu: replay: {}\n", error);
        return 2;
    }
    fmt::print("replay: sent {} datagrams ({} forwarding, {} event, {} control) in {:.3f} s\n", capture->size(),
               perService[0], perService[1], perService[2],
               std::chrono::duration<double>(Clock::now() - start).count());
    const auto ours = FreshTables(*capture, &error);
    if (!ours) {
        fmt::print(stderr, "l2vfib-emu: replay: {}\n", error);
        return 2;
    }
    const size_t differences = Compare(*theirs, *ours);
    if (differences != 0) {
        fmt::print("replay: the device's tables (theirs) differ from the capture's (ours) in {} rows\n",
                   differences);
        return 1;
    }
    size_t rows = 0, tables = 0;
    for (const auto &[name, table] : ours->items()) {
        rows += table.size();
        tables += table.empty() ? 0 : 1;
    }
    fmt::print("replay: the device's tables agree with the capture's: {} rows in {} tables\n", rows, tables);
    return 0;
}

}  // namespace l2vfib::emu
