// The emulated device for integration tests: a fresh device directory and
// a foreground l2vfib-emu per test, stopped (and killed if need be) after
// it, so nothing is left running.
#ifndef L2VFIB_TESTS_EMU_FIXTURE_H
#define L2VFIB_TESTS_EMU_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "table.h"

#include "l2vfib.h"

namespace emut {

using Bytes = std::vector<uint8_t>;
using l2vfib::emu::Json;

Bytes Hex(const std::string &text);

// Hand-written datagrams the device's tests send: a pseudowire add, an EBG
// member add, catalogue command 20, an identifier allocation.
inline constexpr const char *kPwAdd =
    "00 03 00 34 00 00 05 08 | 00 0a 00 08 00 00 00 07 00 01 00 00 | 00 0d 00 24"
    " 01 02 03 04 05 06 07 08 00 00 00 00 00 00 00 2a 00 00 05 dc 00 0a 00 14 00 1e 01 00"
    " ff ff ff ff ff ff ff ff";
inline constexpr const char *kEbgAdd =
    "00 20 00 18 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 01"
    " | 00 9c 00 04 00 00 00 02";
inline constexpr const char *kCfg20 = "00 02 00 08 00 00 01 08 | 00 64 00 04 00 00 00 64";
inline constexpr const char *kAlloc =
    "00 1d 00 30 00 00 05 08 | 00 b8 00 2c 00 00 00 01 00 00 00 02 00 00 00 03"
    " ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff";

class EmuTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

    // One steering request; fails the test when the device does not answer.
    Json Steer(const Json &request);
    // A table's aligned text, and its rows.
    std::string Text(const std::string &table);
    Json Rows(const std::string &table);
    uint64_t Counter(const std::string &name);
    // The device's log since it started.
    std::string Log();

    // A datagram sent from a socket of the test's own (a new one with
    // freshSocket) to the forwarding service (node 0x8000, port 2670);
    // Answer reads what comes back on that socket within a second (empty
    // when nothing).
    void SendRaw(const Bytes &datagram, bool freshSocket = false);
    Bytes Answer();

    // Options for `l2vfib-emu start --foreground`, set before SetUp.
    std::vector<std::string> startOptions_;
    std::string dir_;
    int pid_ = -1;
    int raw_ = -1;
};

// The library opened on the device with callback_; closed after the test.
class OpenOnEmu : public EmuTest {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Sends the batch and waits until the device has read it.
    void Flush();
    L2VFIB_MsgCallback *callback_ = nullptr;
    int32_t fd_ = -1;
};

}  // namespace emut

#endif
