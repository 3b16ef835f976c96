// A fresh device directory per test, and datagram peers bound in it that
// stand in for the forwarding service and for the control endpoint.
#ifndef L2VFIB_TESTS_HOST_DEVICE_DIR_H
#define L2VFIB_TESTS_HOST_DEVICE_DIR_H

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using Bytes = std::vector<uint8_t>;

// Creates a directory of its own under /tmp and points L2VFIB_DEVICE_DIR
// at it; removes it, and whatever the test left in it, afterwards.
class DeviceDirTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    std::string ServicePath() const { return dir_ + "/node-8000.port-2670"; }
    std::string ControlPath() const { return dir_ + "/control"; }
    std::string dir_;
};

// A datagram socket bound at path. Its thread records every datagram and
// sends the handler's answer, when not empty, back to the sender. The
// thread ends when the peer is destroyed, or by itself after 20 seconds.
class Peer {
  public:
    using Handler = std::function<Bytes(const Bytes &)>;
    explicit Peer(const std::string &path, Handler handler = nullptr);
    ~Peer();
    // The datagrams received so far, after waiting up to 2 s for n of them.
    std::vector<Bytes> WaitFor(size_t n);
    // Sends data from this peer's socket to the address client is bound to.
    bool SendTo(int client, const Bytes &data);

  private:
    void Run();
    int fd_ = -1;
    Handler handler_;
    std::atomic<bool> stop_{false};
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Bytes> received_;
    std::thread thread_;
};

// A control request as the control peer saw it.
struct SeenRequest {
    uint8_t op;
    uint32_t arg0, arg1, arg2;
    Bytes input;
};

// What the emulated device answers; send false for no answer at all.
struct Answer {
    bool send = true;
    uint32_t result = 0;
    Bytes data;
};

// A peer at the control endpoint that speaks the control protocol.
class ControlPeer {
  public:
    ControlPeer(const std::string &path, std::function<Answer(const SeenRequest &)> device);
    std::vector<SeenRequest> WaitFor(size_t n);

  private:
    Peer peer_;
};

#endif
