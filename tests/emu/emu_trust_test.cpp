// The emulated device among neighbours it cannot trust: directories that
// others can enter, steering peers of another user, and bad input from
// several senders at full rate.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <random>
#include <thread>

#include "emu_fixture.h"
#include "host_addr.h"

namespace emut {
namespace {

// `l2vfib-emu start` in a directory: its exit status and what it said.
std::pair<int, std::string> StartIn(const std::string &dir) {
    const std::string out = dir + ".out";
    const std::string command = "L2VFIB_DEVICE_DIR='" + dir + "' " L2VFIB_EMU_PATH " start >'" + out + "' 2>&1";
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

TEST(EmuTrust, StartsOnlyInADirectoryOfItsOwn) {
    char base[] = "/tmp/l2vfib-trust.XXXXXX";
    ASSERT_NE(mkdtemp(base), nullptr);
    const struct {
        const char *name;
        mode_t mode;
        bool otherOwner, viaSymlink;
        const char *fault;
    } rows[] = {
        {"world-writable", 0777, false, false, "writable by others"},
        {"group-writable", 0770, false, false, "writable by group"},
        {"another user's", 0700, true, false, "owned by uid 65534"},
        {"a symlink to another user's world-writable directory", 01777, true, true, "owned by uid 65534"},
    };
    for (const auto &row : rows) {
        if (row.otherOwner && geteuid() != 0) continue;  // only root can give one away
        SCOPED_TRACE(row.name);
        const std::string dir = std::string(base) + "/" + std::to_string(&row - rows);
        ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
        ASSERT_EQ(chmod(dir.c_str(), row.mode), 0);
        if (row.otherOwner) ASSERT_EQ(chown(dir.c_str(), 65534, 65534), 0);
        const std::string device = row.viaSymlink ? dir + "-link" : dir;
        if (row.viaSymlink) ASSERT_EQ(symlink(dir.c_str(), device.c_str()), 0);
        const auto [status, said] = StartIn(device);
        EXPECT_EQ(status, 1);
        EXPECT_NE(said.find("the device directory " + device + " is not trusted: " + row.fault),
                  std::string::npos) << said;
        EXPECT_FALSE(std::filesystem::exists(dir + "/emu.sock"));
    }
    // A missing one is made, closed to others.
    const std::string fresh = std::string(base) + "/fresh";
    ASSERT_EQ(StartIn(fresh).first, 0);
    struct stat made {};
    ASSERT_EQ(stat(fresh.c_str(), &made), 0);
    EXPECT_EQ(made.st_mode & 07777, 0700u);
    std::system(("L2VFIB_DEVICE_DIR='" + fresh + "' " L2VFIB_EMU_PATH " stop >/dev/null").c_str());
    std::filesystem::remove_all(base);
}

// A steering peer of another user is turned away and counted.
TEST_F(EmuTest, SteersOnlyForItsOwnUser) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can connect as another user";
    ASSERT_EQ(chmod(dir_.c_str(), 0711), 0);
    ASSERT_EQ(chmod((dir_ + "/emu.sock").c_str(), 0777), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (dir_ + "/emu.sock").copy(address.sun_path, sizeof address.sun_path - 1);
        if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) _exit(3);
        const char request[] = "{\"cmd\":\"stop\"}\n";
        (void)!write(fd, request, sizeof request - 1);
        char answer[64];
        _exit(read(fd, answer, sizeof answer) > 0 ? 4 : 0);  // closed without a word
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(Counter("steering-refused"), 1u);
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
    char forwarding[108], event[108], control[108];
    l2vfib::host::NodePortPath(0x8000, 2670, forwarding, sizeof forwarding);
    l2vfib::host::NodePortPath(0x0001, 12566, event, sizeof event);
    l2vfib::host::ControlPath(control, sizeof control);
    std::vector<std::thread> senders;
    senders.emplace_back(flood, 1, SOCK_SEQPACKET, forwarding);
    senders.emplace_back(flood, 2, SOCK_SEQPACKET, forwarding);
    senders.emplace_back(flood, 3, SOCK_SEQPACKET, event);
    senders.emplace_back(flood, 4, SOCK_DGRAM, control);
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
