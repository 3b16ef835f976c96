// The bulk-load benchmark: daemons that load a million pseudowires through
// the library and the host platform into the emulated device, held against
// the transport's own limit measured in the same run.
//
//   l2vfib_load [ENTRIES]        (default 1000000)
//
// It prints one table: the transport's limit (a plain sender of the same
// number of datagrams, of the same size, over an AF_UNIX datagram socket to
// a reader that only reads), one daemon's load (every entry in the table,
// timed from its first call until the table holds them all), its busy
// refusals per datagram, whether an answered command right after the load
// is answered, four daemons at once, and the device's resident memory per
// row. Each figure is set beside its target.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "l2vfib.h"
#include "server.h"

namespace {

using Clock = std::chrono::steady_clock;
using l2vfib::emu::Json;

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The transport's limit: count datagrams of size bytes, sent with blocking
// sends to a reader that only reads. Seconds.
double TransportLimit(size_t count, size_t size) {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) return 0;
    std::thread reader([&] {
        std::vector<char> buffer(65536);
        for (size_t n = 0; n < count; ++n)
            if (recv(pair[1], buffer.data(), buffer.size(), 0) <= 0) break;
    });
    const std::vector<char> datagram(size, 1);
    const auto start = Clock::now();
    for (size_t n = 0; n < count; ++n)
        if (send(pair[0], datagram.data(), size, 0) != static_cast<ssize_t>(size)) break;
    reader.join();
    const double took = Since(start);
    close(pair[0]);
    close(pair[1]);
    return took;
}

struct Load {
    uint64_t refusals = 0;
    uint32_t answer = 0;  // the answered command's result
    int ok = 0;
};

// One daemon, in a process of its own: ids [first, first + count), the
// busy pattern of the daemon guide, then an answered command.
Load Daemon(uint32_t first, uint32_t count) {
    Load load;
    const int32_t fd = L2VFIB_Open(nullptr);
    if (fd < 0) return load;
    L2VFIB_LpwSubEntry sub{100, 200, 300, 1, 0, 0, 0, 0, 0};
    L2VFIB_LpwEntry pw{{1, 2}, 1500, {10, 20, 30}, 0, {&sub, nullptr}};
    uint8_t block[256];
    const auto length = static_cast<uint16_t>(L2VFIB_EncLpwEntry(&pw, sizeof block, block));
    bool ok = length != 0;
    for (uint32_t id = first; ok && id < first + count; ++id) {
        const L2VFIB_EntryKey key{id, 1};
        if (L2VFIB_AddPwEntry(fd, 8, &key, block, length) == L2VFIB_OK) continue;
        ++load.refusals;
        ok = L2VFIB_FlushEntry(fd) == L2VFIB_OK && L2VFIB_AddPwEntry(fd, 8, &key, block, length) == L2VFIB_OK;
    }
    ok = ok && L2VFIB_FlushEntry(fd) == L2VFIB_OK;
    uint32_t instance = 100;
    load.answer = L2VFIB_Send_Cfg(fd, 18, 0, &instance, nullptr);
    load.ok = ok ? 1 : 0;
    L2VFIB_Close(fd);
    return load;
}

// Runs daemons in child processes, each loading its share; returns their
// results once all have ended.
std::vector<Load> RunDaemons(uint32_t entries, int daemons) {
    std::vector<std::pair<pid_t, int>> children;
    for (int d = 0; d < daemons; ++d) {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) break;
        const uint32_t share = entries / daemons;
        const pid_t pid = fork();
        if (pid == 0) {
            close(pipeFds[0]);
            const Load load = Daemon(1 + static_cast<uint32_t>(d) * share, share);
            (void)!write(pipeFds[1], &load, sizeof load);
            _exit(0);
        }
        close(pipeFds[1]);
        children.emplace_back(pid, pipeFds[0]);
    }
    std::vector<Load> loads;
    for (auto [pid, fd] : children) {
        Load load;
        if (read(fd, &load, sizeof load) != sizeof load) load = {};
        close(fd);
        waitpid(pid, nullptr, 0);
        loads.push_back(load);
    }
    return loads;
}

uint64_t Counted(const char *table) {
    std::string error;
    const auto response = l2vfib::emu::Steer(Json{{"cmd", "count"}, {"table", table}}, &error);
    return response ? (*response)["rows"][0]["rows"].get<uint64_t>() : 0;
}

uint64_t Counter(const char *name) {
    std::string error;
    const auto response = l2vfib::emu::Steer(Json{{"cmd", "show"}, {"table", "counters"}}, &error);
    if (!response) return 0;
    for (const auto &row : (*response)["rows"])
        if (row["key"] == name) return row["value"].get<uint64_t>();
    return 0;
}

// Waits until the pseudowire table holds want rows (or 120 s pass).
bool AwaitRows(uint64_t want) {
    const auto start = Clock::now();
    while (Counted("pw") < want) {
        if (Since(start) > 120) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}

void Row(const char *what, const std::string &figure, const char *target, bool met) {
    std::printf("| %-40s | %-26s | %-18s | %-4s |\n", what, figure.c_str(), target, met ? "met" : "MISS");
}

std::string Format(const char *format, double value) {
    char text[64];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

}  // namespace

int main(int argc, char **argv) {
    const uint32_t entries = argc > 1 ? static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10)) : 1000000;
    char dir[] = "/tmp/l2vfib-load.XXXXXX";
    if (mkdtemp(dir) == nullptr) return 1;
    setenv("L2VFIB_DEVICE_DIR", dir, 1);
    const pid_t emu = fork();
    if (emu == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        execl(L2VFIB_EMU_PATH, "l2vfib-emu", "start", "--foreground", static_cast<char *>(nullptr));
        _exit(127);
    }
    std::string error;
    for (int i = 0; i < 200 && !l2vfib::emu::Steer(Json{{"cmd", "status"}}, &error); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    const long rssBefore = ResidentKiB(emu);

    // One daemon.
    auto start = Clock::now();
    const Load one = RunDaemons(entries, 1).front();
    const bool loaded = AwaitRows(entries);
    const double took = Since(start);
    const long rssAfter = ResidentKiB(emu);
    const uint64_t datagrams = Counter("datagrams");

    // The transport's limit for the same datagrams: as many, as large.
    L2VFIB_LpwSubEntry sub{100, 200, 300, 1, 0, 0, 0, 0, 0};
    L2VFIB_LpwEntry pw{{1, 2}, 1500, {10, 20, 30}, 0, {&sub, nullptr}};
    uint8_t block[256];
    const size_t message = 20 + L2VFIB_EncLpwEntry(&pw, sizeof block, block);
    const size_t perDatagram = 1400 / message;
    const size_t limitCount = (entries + perDatagram - 1) / perDatagram;
    const double limit = TransportLimit(limitCount, perDatagram * message);

    // Four daemons at once, into an empty device.
    l2vfib::emu::Steer(Json{{"cmd", "clear"}}, &error);
    start = Clock::now();
    const auto four = RunDaemons(entries, 4);
    const bool fourLoaded = AwaitRows(entries / 4 * 4);
    const double fourTook = Since(start);
    bool fourOk = fourLoaded;
    for (const Load &load : four) fourOk = fourOk && load.ok;

    l2vfib::emu::Steer(Json{{"cmd", "stop"}}, &error);
    waitpid(emu, nullptr, 0);
    rmdir(dir);

    const double rate = entries / took;
    const double limitRate = entries / limit;
    const double refusals = datagrams ? 100.0 * static_cast<double>(one.refusals) / static_cast<double>(datagrams) : 100;
    const double perRow = 1024.0 * static_cast<double>(rssAfter - rssBefore) / entries;
    std::printf("%u pseudowires, %zu-byte messages, %zu a datagram, %llu datagrams\n\n", entries, message,
                perDatagram, static_cast<unsigned long long>(datagrams));
    std::printf("| %-40s | %-26s | %-18s | %-4s |\n|%s|%s|%s|%s|\n", "figure", "measured", "target", "",
                std::string(42, '-').c_str(), std::string(28, '-').c_str(), std::string(20, '-').c_str(),
                std::string(6, '-').c_str());
    Row("transport limit (plain sender, reader)", Format("%.0f entries/s", limitRate), "-", true);
    Row("one daemon, every entry in the table", Format("%.0f entries/s", rate), ">= 1000000/s",
        loaded && one.ok && rate >= 1e6);
    Row("one daemon against the limit", Format("%.2f", rate / limitRate), ">= 0.25", rate / limitRate >= 0.25);
    Row("busy refusals per datagram", Format("%.2f %%", refusals), "< 1 %", refusals < 1);
    Row("answered command right after the load", one.answer == L2VFIB_ERR_FAIL ? "failed" : "answered",
        "answered", one.answer != L2VFIB_ERR_FAIL);
    Row("four daemons at once, every entry", Format("%.0f entries/s", entries / fourTook), "nothing lost", fourOk);
    Row("device memory per pseudowire row", Format("%.0f bytes", perRow), "<= 300 bytes", perRow <= 300);
    return 0;
}
