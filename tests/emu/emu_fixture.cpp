#include "emu_fixture.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "host_addr.h"
#include "l2vfib_decode.h"
#include "server.h"

namespace emut {

Bytes Hex(const std::string &text) {
    auto bytes = l2vfib::decode::ParseHex(text);
    EXPECT_TRUE(bytes.has_value()) << text;
    return bytes.value_or(Bytes{});
}

void EmuTest::SetUp() {
    char dir[] = "/tmp/l2vfib-emu-test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    setenv("L2VFIB_DEVICE_DIR", dir, 1);
    // With L2VFIB_TEST_CAPTURE_DIR set, each test's device writes its
    // capture there, named after the test (the dissector's test reads
    // them), unless the test captures for itself.
    const char *captures = std::getenv("L2VFIB_TEST_CAPTURE_DIR");
    if (captures != nullptr && std::find(startOptions_.begin(), startOptions_.end(), "--capture") == startOptions_.end()) {
        const auto *test = ::testing::UnitTest::GetInstance()->current_test_info();
        startOptions_.push_back("--capture");
        startOptions_.push_back(std::string(captures) + "/" + test->test_suite_name() + "." + test->name() + ".pcap");
    }
    const std::string log = dir_ + "/emu.log";
    pid_ = fork();
    ASSERT_GE(pid_, 0);
    if (pid_ == 0) {
        freopen(log.c_str(), "w", stderr);
        std::vector<const char *> argv{"l2vfib-emu", "start", "--foreground"};
        for (const auto &option : startOptions_) argv.push_back(option.c_str());
        argv.push_back(nullptr);
        execv(L2VFIB_EMU_PATH, const_cast<char *const *>(argv.data()));
        _exit(127);
    }
    std::string error;
    for (int i = 0; i < 200; ++i) {
        if (l2vfib::emu::Steer(Json{{"cmd", "status"}}, &error)) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(25));
    }
    FAIL() << "the emulated device did not start: " << Log();
}

void EmuTest::TearDown() {
    if (raw_ >= 0) close(raw_);
    if (pid_ > 0) {
        std::string error;
        l2vfib::emu::Steer(Json{{"cmd", "stop"}}, &error);
        int status = 0;
        bool gone = false;
        for (int i = 0; i < 200 && !gone; ++i) {
            gone = waitpid(pid_, &status, WNOHANG) == pid_;
            if (!gone) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (!gone) {
            kill(pid_, SIGKILL);
            waitpid(pid_, &status, 0);
            ADD_FAILURE() << "the emulated device did not stop";
        }
        // It removes every socket of its own on the way out.
        for (const auto &entry : std::filesystem::directory_iterator(dir_))
            EXPECT_FALSE(entry.is_socket()) << entry.path();
    }
    std::filesystem::remove_all(dir_);
}

Json EmuTest::Steer(const Json &request) {
    std::string error;
    auto response = l2vfib::emu::Steer(request, &error);
    EXPECT_TRUE(response.has_value()) << error;
    if (!response) return Json::object();
    EXPECT_TRUE(response->value("ok", false)) << response->dump();
    return *response;
}

std::string EmuTest::Text(const std::string &table) {
    return Steer(Json{{"cmd", "show"}, {"table", table}}).value("text", "");
}

Json EmuTest::Rows(const std::string &table) {
    return Steer(Json{{"cmd", "show"}, {"table", table}})["rows"];
}

uint64_t EmuTest::Counter(const std::string &name) {
    for (const auto &row : Rows("counters"))
        if (row["key"] == name) return row["value"].get<uint64_t>();
    ADD_FAILURE() << "no counter " << name;
    return 0;
}

std::string EmuTest::Log() {
    std::ifstream in(dir_ + "/emu.log");
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void EmuTest::SendRaw(const Bytes &datagram, bool freshSocket) {
    if (freshSocket && raw_ >= 0) {
        close(raw_);
        raw_ = -1;
    }
    if (raw_ < 0) {
        raw_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(l2vfib::host::ConnectInDeviceDir(raw_, "node-8000.port-2670"), 0);
    }
    ASSERT_EQ(send(raw_, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
    // A status that waits until the device has read the forwarding service
    // to its end: this datagram has been applied.
    Steer(Json{{"cmd", "status"}, {"sync", true}});
}

Bytes EmuTest::Answer() {
    pollfd readable{raw_, POLLIN, 0};
    if (raw_ < 0 || poll(&readable, 1, 1000) != 1) return {};
    Bytes buffer(65536);
    const ssize_t n = recv(raw_, buffer.data(), buffer.size(), 0);
    buffer.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return buffer;
}

void OpenOnEmu::SetUp() {
    EmuTest::SetUp();
    fd_ = L2VFIB_Open(callback_);
    ASSERT_GE(fd_, 0);
}

void OpenOnEmu::TearDown() {
    if (fd_ >= 0) EXPECT_EQ(L2VFIB_Close(fd_), 0);
    EmuTest::TearDown();
}

void OpenOnEmu::Flush() {
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}, {"sync", true}});
}

}  // namespace emut
