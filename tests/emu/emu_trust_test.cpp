// The emulated device among neighbours it cannot trust: directories that
// others can enter, steering peers of another user, and bad input from
// several senders at full rate.
#include <fcntl.h>
#include <signal.h>
#include <pcap/pcap.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "emu_fixture.h"
#include "control_proto.h"
#include "host_addr.h"
#include "server.h"

namespace emut {
namespace {

// `l2vfib-emu ARGS` with the device directory dir (and env before it):
// its exit status and what it said.
std::pair<int, std::string> Emu(const std::string &dir, const std::string &args, const std::string &env = "") {
    const std::string out = dir + ".out";
    const std::string command =
        env + " L2VFIB_DEVICE_DIR='" + dir + "' " L2VFIB_EMU_PATH " " + args + " >'" + out + "' 2>&1";
    const int status = std::system(command.c_str());
    std::string said;
    if (std::FILE *f = std::fopen(out.c_str(), "r")) {
        char line[512];
        while (std::fgets(line, sizeof line, f)) said += line;
        std::fclose(f);
    }
    std::remove(out.c_str());
    return {WEXITSTATUS(status), said};
}

std::string Base() {
    char base[] = "/tmp/l2vfib-trust.XXXXXX";
    EXPECT_NE(mkdtemp(base), nullptr);
    return base;
}

mode_t Mode(const std::string &path) {
    struct stat seen{};
    return lstat(path.c_str(), &seen) == 0 ? seen.st_mode : 0;
}

// A process that is gone, or a zombie nobody reaps.
bool Ended(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    return !std::getline(stat, text) || text.substr(text.rfind(')') + 2, 1) == "Z";
}

std::vector<std::string> Sockets(const std::string &dir) {
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator(dir))
        if (entry.is_socket()) found.push_back(entry.path().filename());
    return found;
}

TEST(EmuTrust, StartsOnlyInADirectoryOfItsOwn) {
    const std::string base = Base();
    const struct {
        const char *name;
        mode_t mode, parentMode;
        bool otherOwner, viaSymlink;
        const char *fault;
    } rows[] = {
        {"readable by others", 0705, 0700, false, false, "open to group or others (mode 0705)"},
        {"writable by group", 0770, 0700, false, false, "open to group or others (mode 0770)"},
        {"another user's", 0700, 0700, true, false, "owned by uid 65534"},
        {"a symlink to a directory of ours", 0700, 0700, false, true, "a symlink"},
        {"in a parent writable by others", 0700, 0777, false, false, "parent writable by others"},
    };
    for (const auto &row : rows) {
        if (row.otherOwner && geteuid() != 0) continue;  // only root can give one away
        SCOPED_TRACE(row.name);
        const std::string parent = base + "/" + std::to_string(&row - rows), dir = parent + "/dev";
        ASSERT_EQ(mkdir(parent.c_str(), 0700), 0);
        ASSERT_EQ(mkdir(dir.c_str(), row.mode), 0);
        ASSERT_EQ(chmod(dir.c_str(), row.mode), 0);
        if (row.otherOwner) ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
        const std::string device = row.viaSymlink ? dir + "-link" : dir;
        if (row.viaSymlink) ASSERT_EQ(symlink(dir.c_str(), device.c_str()), 0);
        ASSERT_EQ(chmod(parent.c_str(), row.parentMode), 0);
        const auto [status, said] = Emu(device, "start");
        EXPECT_EQ(status, 1);
        EXPECT_NE(said.find("the device directory " + device + " is not trusted: " + row.fault),
                  std::string::npos) << said;
        EXPECT_FALSE(std::filesystem::exists(dir + "/emu.sock"));
        chmod(parent.c_str(), 0700);
    }
    // A missing one is made 0700 and, under umask 000, every file in it and
    // the capture 0600.
    const std::string fresh = base + "/fresh", capture = base + "/cap.pcap";
    ASSERT_EQ(Emu(fresh, "start --capture " + capture, "umask 000;").first, 0);
    EXPECT_EQ(Mode(fresh) & 07777, 0700u);
    std::vector<std::string> files = {"emu.pid", "emu.log", "../cap.pcap"};
    for (const std::string &socket : Sockets(fresh)) files.push_back(socket);
    EXPECT_EQ(files.size(), 7u);
    for (const std::string &file : files) EXPECT_EQ(Mode(fresh + "/" + file) & 07777, 0600u) << file;
    Emu(fresh, "stop");
    std::filesystem::remove_all(base);
}

// However the device ends, its pid file goes with it; a start over one left
// by a process that is gone works.
TEST(EmuTrust, ThePidFileGoesWithTheDevice) {
    const std::string base = Base(), dir = base + "/dev";
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    const pid_t gone = fork();
    if (gone == 0) _exit(0);
    waitpid(gone, nullptr, 0);
    std::ofstream(dir + "/emu.pid") << gone << "\n";
    const struct { const char *name; int signal; } rows[] = {
        {"stopped", 0}, {"sent SIGTERM", SIGTERM}, {"killed, then stop", SIGKILL}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ASSERT_EQ(Emu(dir, "start").first, 0);
        pid_t pid = 0;
        std::ifstream(dir + "/emu.pid") >> pid;
        ASSERT_GT(pid, 0);
        if (row.signal != 0) kill(pid, row.signal);
        for (int i = 0; i < 200 && row.signal != 0 && !Ended(pid); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const auto [status, said] = Emu(dir, "stop");
        EXPECT_EQ(status, 0);
        EXPECT_EQ(said.find("stale files removed") != std::string::npos, row.signal == SIGKILL) << said;
        if (row.signal == 0) EXPECT_NE(said.find("stopped (pid " + std::to_string(pid) + ")"), std::string::npos) << said;
        EXPECT_FALSE(std::filesystem::exists(dir + "/emu.pid"));
        EXPECT_EQ(Sockets(dir), std::vector<std::string>{});
    }
    std::filesystem::remove_all(base);
}

// The device keeps to the directory it opened: a log file turned into a
// symlink, or the whole directory renamed away and another planted in its
// place, with a symlink for its log and files named as the device's. The
// device logs past its bound (rotating), restarts its services and stops;
// the file the symlink names stays empty and the planted files stay.
TEST(EmuTrust, KeepsToTheDirectoryItOpened) {
    const std::string base = Base();
    const std::vector<std::string> decoys = {"emu.pid", "control", "emu.sock", "node-8000.port-2670"};
    for (const bool swapped : {false, true}) {
        SCOPED_TRACE(swapped ? "a directory swapped in" : "a symlink for the log");
        const std::string dir = base + (swapped ? "/swapped" : "/in-place"), moved = dir + ".old";
        const std::string victim = dir + ".victim";
        std::ofstream{victim};
        ASSERT_EQ(Emu(dir, "start", "L2VFIB_EMU_LOG_MAX=2K").first, 0);
        if (swapped) {
            ASSERT_EQ(rename(dir.c_str(), moved.c_str()), 0);
            ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
            for (const auto &decoy : decoys) std::ofstream(dir + "/" + decoy) << "planted\n";
        } else {
            ASSERT_EQ(unlink((dir + "/emu.log").c_str()), 0);
        }
        ASSERT_EQ(symlink(victim.c_str(), (dir + "/emu.log").c_str()), 0);
        ASSERT_EQ(mkdir((dir + "/emu.log.1").c_str(), 0700), 0);  // a rotation by name fails
        std::ofstream(dir + "/emu.log.1/kept") << "kept\n";
        const std::string device = swapped ? moved : dir;
        setenv("L2VFIB_DEVICE_DIR", device.c_str(), 1);
        std::string error;
        for (int i = 0; i < 40; ++i)
            ASSERT_TRUE(l2vfib::emu::Steer(Json{{"cmd", "fault"}, {"fault", i % 8 ? "slow" : "restart"}, {"us", i}},
                                           &error)) << error;
        EXPECT_EQ(Emu(device, "stop").first, 0);
        EXPECT_EQ(std::filesystem::file_size(victim), 0u);
        EXPECT_EQ(Sockets(dir), std::vector<std::string>{});
        for (const auto &decoy : decoys) EXPECT_EQ(swapped, std::filesystem::exists(dir + "/" + decoy)) << decoy;
        if (swapped) EXPECT_TRUE(std::filesystem::exists(moved + "/emu.log.1"));
        if (swapped) EXPECT_EQ(Sockets(moved), std::vector<std::string>{});
    }
    unsetenv("L2VFIB_DEVICE_DIR");
    std::filesystem::remove_all(base);
}

// Peers of another user on every socket: the steering peer is turned away
// as before; the services' are refused, counted, and logged once.
TEST_F(EmuTest, ServesOnlyItsOwnUserAndRoot) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can connect as another user (uid 65534)";
    ASSERT_EQ(chmod(dir_.c_str(), 0711), 0);
    for (const auto &file : Sockets(dir_)) ASSERT_EQ(chmod((dir_ + "/" + file).c_str(), 0777), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(100);
        const timeval patience{5, 0};
        Bytes request(64);
        request.resize(l2vfib::host::EncodeRequest({l2vfib::host::kOpIsNodeUp, 1, 1, 0, 0, nullptr, 0},
                                                   request.data(), request.size()));
        const char *names[] = {"emu.sock", "node-8000.port-2670", "node-0001.port-12566", "control"};
        const int types[] = {SOCK_STREAM, SOCK_SEQPACKET, SOCK_SEQPACKET, SOCK_DGRAM};
        int faults = 0;
        for (int i = 0; i < 4; ++i) {
            const int fd = socket(AF_UNIX, types[i], 0);
            sockaddr_un address{AF_UNIX, {}};
            (dir_ + "/" + names[i]).copy(address.sun_path, sizeof address.sun_path - 1);
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
            char answer[64];
            if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) faults |= 16;
            else if (types[i] == SOCK_DGRAM)  // twice, to be counted twice and logged once
                faults |= send(fd, request.data(), request.size(), 0) + send(fd, request.data(), request.size(), 0) < 0 ? 8 : 0;
            else if (recv(fd, answer, sizeof answer, 0) != 0 && errno != ECONNRESET)
                faults |= 1 << i;  // not closed without a word
            close(fd);
        }
        _exit(faults);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_EQ(chmod(dir_.c_str(), 0700), 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    Steer(Json{{"cmd", "status"}, {"sync", true}});
    EXPECT_EQ(Counter("steering-refused"), 1u);
    EXPECT_EQ(Counter("peers-refused"), 4u);  // forwarding, event, control twice
    EXPECT_EQ(Counter("controls"), 0u);
    const std::string log = Log();
    const size_t first = log.find("refused a peer of uid 65534");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("refused a peer of uid 65534", first + 1), std::string::npos) << log;
}

// A size as typed: digits and at most one of K, M, G, nothing else.
TEST(EmuTrust, SizesAreReadWhole) {
    const struct { const char *text; bool read; uint64_t bytes; } rows[] = {
        {"0", true, 0}, {"64K", true, 64 << 10}, {"3m", true, 3 << 20}, {"17179869183G", true, 17179869183ull << 30},
        {"18446744073709551615", true, UINT64_MAX}, {"18446744073709551616", false, 0}, {"17179869184G", false, 0},
        {"", false, 0}, {"-1", false, 0}, {" 1", false, 0}, {"1.5G", false, 0}, {"1KB", false, 0}, {"0x10", false, 0},
    };
    for (const auto &row : rows) {
        uint64_t bytes = 7;
        EXPECT_EQ(l2vfib::emu::ParseSize(row.text, &bytes), row.read) << row.text;
        EXPECT_EQ(bytes, row.read ? row.bytes : 7) << row.text;
    }
}

// A capture that cannot be had fails the start and leaves nothing behind:
// no device, no file in its directory, the file a symlink names untouched.
TEST(EmuTrust, AStartWithoutItsCaptureLeavesNoDevice) {
    const std::string base = Base(), dir = base + "/dev", victim = base + "/victim";
    std::ofstream(victim) << "mine\n";
    ASSERT_EQ(symlink(victim.c_str(), (base + "/link.pcap").c_str()), 0);
    ASSERT_EQ(mkdir((base + "/folder").c_str(), 0700), 0);
    const struct { const char *file, *options; int status; const char *said; } rows[] = {
        {"link.pcap", "", 1, "link.pcap: a symlink"},
        {"link.pcap", "--foreground", 1, "link.pcap: a symlink"},
        {"none/cap.pcap", "", 1, "/none: No such file or directory"},
        {"folder", "", 1, "folder: Is a directory"},
        {"cap.pcap", "--capture-max 1.5G", 2, "--capture-max: not a size: '1.5G'"},
    };
    for (const auto &row : rows) {
        const std::string file = base + "/" + row.file;
        SCOPED_TRACE(file + " " + row.options);
        const auto [status, said] = Emu(dir, std::string("start --capture ") + file + " " + row.options);
        EXPECT_EQ(status, row.status);
        EXPECT_NE(said.find(row.status == 1 ? "cannot capture to " + file : "--capture-max"), std::string::npos);
        EXPECT_NE(said.find(row.said), std::string::npos) << said;
        EXPECT_EQ(Emu(dir, "status").first, 1);
        EXPECT_TRUE(!std::filesystem::exists(dir) || std::filesystem::is_empty(dir));
    }
    std::ifstream kept(victim);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "mine\n");
    std::filesystem::remove_all(base);
}

class EmuCaptureBound : public EmuTest {
  protected:
    EmuCaptureBound() : base_(Base()) { startOptions_ = {"--capture", base_ + "/cap.pcap", "--capture-max", "64K"}; }
    ~EmuCaptureBound() override { std::filesystem::remove_all(base_); }
    std::string base_;
};

// Past its bound the capture rotates: four files are kept, each within the
// bound and a whole capture, the newest ending with the last datagram.
TEST_F(EmuCaptureBound, RotatesWithinItsBound) {
    for (int i = 0; i < 60; ++i) SendRaw(Bytes(6000, static_cast<uint8_t>(i)));
    const std::string capture = base_ + "/cap.pcap";
    EXPECT_FALSE(std::filesystem::exists(capture + ".4"));
    for (const std::string &file : {capture, capture + ".1", capture + ".2", capture + ".3"}) {
        SCOPED_TRACE(file);
        EXPECT_LE(std::filesystem::file_size(file), 64u << 10);
        EXPECT_EQ(Mode(file) & 07777, 0600u);
        char error[PCAP_ERRBUF_SIZE];
        pcap_t *pcap = pcap_open_offline(file.c_str(), error);
        ASSERT_NE(pcap, nullptr) << error;
        pcap_pkthdr *head = nullptr;
        const u_char *bytes = nullptr;
        int records = 0, read;
        Bytes last;
        while ((read = pcap_next_ex(pcap, &head, &bytes)) == 1) {
            ++records;
            last.assign(bytes + 8, bytes + head->caplen);
        }
        EXPECT_EQ(read, PCAP_ERROR_BREAK) << pcap_geterr(pcap);
        EXPECT_GT(records, 0);
        if (file == capture) EXPECT_EQ(last, Bytes(6000, 59));
        pcap_close(pcap);
    }
}

// Random and mutated datagrams from several senders to every service: the
// device stays up, counts the faults, and a daemon still gets its way.
TEST_F(EmuTest, OutlastsAFloodOfBadInput) {
    const auto seconds = std::chrono::milliseconds(std::getenv("L2VFIB_SOAK_SECONDS")
                                                       ? 1000 * std::atol(std::getenv("L2VFIB_SOAK_SECONDS"))
                                                       : 1000);
    const Bytes seeds[] = {
        Hex(kPwAdd), Hex(kEbgAdd), Hex(kCfg20),
        Hex("00 14 00 08 00 00 05 00 | 00 00 00 04 00 00 00 05"),
    };
    auto flood = [&](unsigned seed, int type, const char *path) {
        std::mt19937 random(seed);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(path).copy(address.sun_path, sizeof address.sun_path - 1);
        const auto end = std::chrono::steady_clock::now() + seconds;
        int fd = -1;
        while (std::chrono::steady_clock::now() < end) {
            if (fd < 0) {
                fd = socket(AF_UNIX, type | SOCK_NONBLOCK, 0);
                if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
                    close(fd);
                    fd = -1;
                    continue;
                }
            }
            Bytes datagram = seeds[random() % std::size(seeds)];
            if (random() % 4 == 0) datagram.resize(random() % 1400);
            for (int flips = 1 + random() % 4; flips > 0 && !datagram.empty(); --flips)
                datagram[random() % datagram.size()] = static_cast<uint8_t>(random());
            if (send(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL) < 0 && errno != EAGAIN) {
                close(fd);
                fd = -1;
            }
        }
        if (fd >= 0) close(fd);
    };
    const std::string forwarding = dir_ + "/node-8000.port-2670", event = dir_ + "/node-0001.port-12566",
                      control = dir_ + "/control";
    std::vector<std::thread> senders;
    senders.emplace_back(flood, 1, SOCK_SEQPACKET, forwarding.c_str());
    senders.emplace_back(flood, 2, SOCK_SEQPACKET, forwarding.c_str());
    senders.emplace_back(flood, 3, SOCK_SEQPACKET, event.c_str());
    senders.emplace_back(flood, 4, SOCK_DGRAM, control.c_str());
    for (auto &sender : senders) sender.join();
    Steer(Json{{"cmd", "status"}, {"sync", true}});
    EXPECT_GT(Counter("errors"), 0u);
    // A daemon after the flood: programmed, and answered.
    const int32_t fd = L2VFIB_Open(nullptr);
    ASSERT_GE(fd, 0);
    const L2VFIB_EntryKey key = {424242, 9};
    EXPECT_EQ(L2VFIB_DelPwEntry(fd, 8, &key), L2VFIB_OK);
    uint32_t instance = 100;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd, 18, 0, &instance, nullptr), 0u);
    EXPECT_EQ(L2VFIB_Close(fd), 0);
}

}  // namespace
}  // namespace emut
