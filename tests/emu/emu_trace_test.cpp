// Following the device (trace) and reproducing a session (replay): what a
// trace client prints and what it is told it missed, and what a replay
// finds in the device's tables.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <sstream>

#include "emu_fixture.h"
#include "host_addr.h"
#include "server.h"
#include "trace.h"

namespace emut {
namespace {


// Everything fd gives within ms milliseconds of quiet.
std::string ReadFor(int fd, int ms) {
    std::string out;
    char chunk[65536];
    pollfd readable{fd, POLLIN, 0};
    while (poll(&readable, 1, ms) == 1) {
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        out.append(chunk, static_cast<size_t>(n));
    }
    return out;
}

// `l2vfib-emu trace ARGS` with its output on pipes, ended with SIGINT.
class TraceClient {
  public:
    explicit TraceClient(const std::vector<std::string> &args) {
        int out[2], err[2];
        EXPECT_EQ(pipe(out), 0);
        EXPECT_EQ(pipe(err), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(out[1], STDOUT_FILENO);
            dup2(err[1], STDERR_FILENO);
            std::vector<const char *> argv{"l2vfib-emu", "trace"};
            for (const auto &arg : args) argv.push_back(arg.c_str());
            argv.push_back(nullptr);
            execv(L2VFIB_EMU_PATH, const_cast<char *const *>(argv.data()));
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        out_ = out[0];
        err_ = err[0];
        // Subscribed once it says so.
        for (int i = 0; i < 100 && said_.find("Ctrl-C") == std::string::npos; ++i) said_ += ReadFor(err_, 20);
        EXPECT_NE(said_.find("tracing the device"), std::string::npos) << said_;
    }
    ~TraceClient() {
        close(out_);
        close(err_);
    }
    // The lines printed, once count have come or a second passed; then
    // ends the client and checks that it left cleanly.
    std::vector<std::string> Lines(size_t count) {
        std::string text;
        for (int i = 0; i < 50 && static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) < count; ++i)
            text += ReadFor(out_, 20);
        kill(pid_, SIGINT);
        int status = -1;
        waitpid(pid_, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        said_ += ReadFor(err_, 0);
        EXPECT_NE(said_.find("trace ended"), std::string::npos) << said_;
        std::vector<std::string> lines;
        std::istringstream in(text + ReadFor(out_, 0));
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

  private:
    pid_t pid_ = -1;
    int out_ = -1, err_ = -1;
    std::string said_;
};

// Each line of a trace as the log prints it, and only those its filters
// let through: what follows the time and the connection.
TEST_F(EmuTest, TracesEachMessageAsTheLogPrintsIt) {
    const std::string pw = "> pw add id 7 subId 1 byte7 8 | 13 attr64.0 72623859790382856 attr64.1 42 attr32 1500"
                           " attr16.0 10 attr16.1 20 attr16.2 30 attr8 1 fill 2";
    const std::string ebg = "> ebg-member add ebgId 42 byte7 8 | 156 member 1 | 156 member 2";
    const std::string alloc = "> cfg 54 | 184 word0 1 word1 2 word2 3";
    const std::string reply = "< reply id | 184 id 1";
    const struct {
        std::vector<std::string> args;
        std::vector<std::string> lines;
    } rows[] = {
        {{}, {pw, ebg, alloc, reply}},
        {{"--table", "ebg"}, {ebg}},
        {{"--table", "cfg", "--key", "29:1/2/3"}, {alloc}},
        {{"--key", "7/1"}, {pw}},
        {{"--table", "reply"}, {reply}},
        {{"--json", "--key", "42"},
         {R"(> {"channel":"to-service","direction":"in","key":"42","message":{"byte7":8,"items":[)"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.args));
        Steer(Json{{"cmd", "ident"}, {"next", 1}});
        TraceClient trace(row.args);
        SendRaw(Hex(kPwAdd));
        SendRaw(Hex(kEbgAdd));
        SendRaw(Hex(kAlloc), true);
        std::vector<std::string> lines = trace.Lines(row.lines.size());
        ASSERT_EQ(lines.size(), row.lines.size()) << ::testing::PrintToString(lines);
        for (size_t i = 0; i < lines.size(); ++i) {
            // "11:32:30.633 @12 > pw add ...", or a JSON object.
            const size_t at = lines[i][0] == '{' ? 0 : lines[i].find(' ', 13) + 1;
            const std::string shown = lines[i][0] == '{' ? "> " + lines[i] : lines[i].substr(at);
            EXPECT_EQ(shown.substr(0, row.lines[i].size()), row.lines[i]);
        }
    }
}

// A subscriber that does not read loses records, not the device's time,
// and the first record it gets after that says how many it lost.
TEST_F(EmuTest, TraceThatFallsBehindIsToldWhatItMissed) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    (dir_ + "/emu.sock").copy(address.sun_path, sizeof address.sun_path - 1);
    const int trace = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(connect(trace, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    const std::string request = R"({"cmd":"trace","buffer":4096})" "\n";
    ASSERT_EQ(write(trace, request.data(), request.size()), static_cast<ssize_t>(request.size()));
    std::string answer;
    for (char c = 0; c != '\n' && read(trace, &c, 1) == 1;) answer += c;
    ASSERT_EQ(Json::parse(answer)["buffer"], 4096);

    // A thousand batches of 20 pseudowires (1.2 MB) while nobody reads.
    const Bytes one = Hex(kPwAdd);
    const int sent = 1000;
    SendRaw(one);
    for (int n = 1; n < sent; ++n) {
        Bytes batch;
        for (uint32_t i = 0; i < 20; ++i) {
            Bytes message = one;
            message[12] = static_cast<uint8_t>(n >> 8);
            message[13] = static_cast<uint8_t>(n);
            message[15] = static_cast<uint8_t>(i);
            batch.insert(batch.end(), message.begin(), message.end());
        }
        ASSERT_EQ(send(raw_, batch.data(), batch.size(), 0), static_cast<ssize_t>(batch.size()));
    }
    Steer(Json{{"cmd", "status"}, {"sync", true}});
    EXPECT_EQ(Steer(Json{{"cmd", "count"}, {"table", "pw"}})["rows"][0]["rows"], 1 + 20 * (sent - 1));

    std::string stream = ReadFor(trace, 200);
    SendRaw(Hex(kEbgAdd));
    stream += ReadFor(trace, 200);
    uint64_t records = 0, dropped = 0;
    bool bad = false;
    std::optional<l2vfib::emu::TraceRecord> last;
    while (auto record = l2vfib::emu::TakeTraceRecord(stream, &bad)) {
        if (record->dropped) {
            EXPECT_FALSE(last && last->dropped) << "a count comes before a record that fit";
            dropped += record->count;
        } else {
            ++records;
        }
        last = record;
    }
    EXPECT_FALSE(bad);
    EXPECT_TRUE(stream.empty());
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(records + dropped, sent + 1u);
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(last->datagram, Hex(kEbgAdd));
    close(trace);
}

// A device in a directory of its own, started in the background and
// stopped again; its commands run with their output kept.
class Device {
  public:
    explicit Device(const std::string &options = "") {
        char dir[] = "/tmp/l2vfib-replay-test.XXXXXX";
        EXPECT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
        setenv("L2VFIB_DEVICE_DIR", dir, 1);
        EXPECT_EQ(Run("start " + options).first, 0);
    }
    ~Device() {
        Run("stop");
        std::filesystem::remove_all(dir_);
    }
    std::pair<int, std::string> Run(const std::string &args) {
        std::FILE *out = popen((L2VFIB_EMU_PATH " " + args + " 2>&1").c_str(), "r");
        std::string said;
        char line[4096];
        while (out != nullptr && std::fgets(line, sizeof line, out)) said += line;
        const int status = out == nullptr ? -1 : pclose(out);
        return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, said};
    }
    Json Tables() { return Json::parse(Run("show all --json").second); }
    void Send(const Bytes &datagram) {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(l2vfib::host::ConnectInDeviceDir(fd, "node-8000.port-2670"), 0);
        ASSERT_EQ(send(fd, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
        std::string error;
        ASSERT_TRUE(l2vfib::emu::Steer(Json{{"cmd", "status"}, {"sync", true}}, &error)) << error;
        close(fd);
    }
    std::string dir_;
};

// The example daemon's session, recorded once, replayed into devices: a
// fresh one ends with the session's own tables; one that held more before
// is told where it differs; a capture with a broken record sends nothing.
TEST(EmuReplay, RebuildsTheSessionsTablesAndNamesWhatDiffers) {
#ifndef L2VFIB_FIB_DAEMON
    GTEST_SKIP() << "the example daemon is not built";
#else
    char work[] = "/tmp/l2vfib-replay-capture.XXXXXX";
    ASSERT_NE(mkdtemp(work), nullptr);
    const std::string capture = std::string(work) + "/session.pcap";
    Json session;
    {
        Device recording("--capture " + capture);
        ASSERT_EQ(std::system(L2VFIB_FIB_DAEMON " 0 >/dev/null"), 0);
        session = recording.Tables();
    }
    ASSERT_GT(session["pw"].size(), 0u);
    const struct {
        const char *name;
        std::string capture;
        const char *before;  // a datagram the device reads before the replay
        int status;
        std::vector<std::string> said;
    } rows[] = {
        {"a fresh device", capture, nullptr, 0, {"replay: the device's tables agree with the capture's"}},
        {"one more pseudowire", capture, kPwAdd, 1, {"pw 7/1: theirs only\n", "differ from the capture's (ours) in 1 rows"}},
        {"one more EBG member",
         capture,
         "00 20 00 10 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 05",
         1,
         {"ebg 42 count: theirs 3 vs ours 2\n", "ebg 42 members: theirs 5,1,2 vs ours 1,2\n"}},
        {"a capture with a record cut short", L2VFIB_SOURCE_DIR "/tests/decode/emu-capture.pcap", kPwAdd, 2,
         {"record 6 is cut short or has no pseudo-header"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        Device device;
        if (row.before != nullptr) device.Send(Hex(row.before));
        const auto [status, said] = device.Run("replay --as-fast-as-possible " + row.capture);
        EXPECT_EQ(status, row.status) << said;
        for (const std::string &text : row.said) EXPECT_NE(said.find(text), std::string::npos) << said;
        if (row.status == 0) EXPECT_EQ(device.Tables(), session);
        if (row.status == 2) EXPECT_EQ(device.Tables()["pw"].size(), 1u) << "nothing of it sent";
    }
    std::filesystem::remove_all(work);
#endif
}

}  // namespace
}  // namespace emut
