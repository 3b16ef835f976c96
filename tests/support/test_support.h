// Helpers shared by the unit tests: byte strings written the way the wire
// tables read, and fixtures that keep the library's process-wide state from
// leaking between tests.
#ifndef L2VFIB_TESTS_TEST_SUPPORT_H
#define L2VFIB_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "fake_platform.h"
#include "l2vfib.h"
#include "msg/state.h"

namespace l2vt {

using fake::Bytes;
using Trace = std::vector<std::string>;  // as fake::Records::trace

// "00 0e 00 0c | 00 00 17 05": pairs of hex digits; spaces and '|' are
// separators only. "ff*32" is 32 bytes 0xff, "[00 7b 00 04]*3" the group
// three times.
Bytes Hex(std::string_view text);
Bytes operator+(Bytes a, const Bytes &b);
// "00 0e 00 0c ...": for comparisons whose failures should read as bytes;
// at most the first max bytes.
std::string ToHex(const Bytes &b, size_t max = SIZE_MAX);

// A control call's fields, for comparisons whose failures print them.
inline auto Fields(const fake::ControlCall &c) {
    return std::tuple(c.async, c.target, c.code, c.input, c.answerRoom, c.hasAnswer,
                      c.hasAnswerLength);
}

constexpr uint8_t kCanary = 0xA5;
inline Bytes Canary(size_t n) { return Bytes(n, kCanary); }

// The notices the library handed to RecordNotice: (kind, value).
inline std::vector<std::pair<uint32_t, uint32_t>> g_notices;
inline uint32_t RecordNotice(uint32_t kind, uint32_t *value) {
    g_notices.emplace_back(kind, *value);
    return 0x5A5A5A5Au;  // ignored by the library
}

// A closed library over a reset fake platform, capability counts 0.
// Anything a test leaves open is closed in TearDown.
class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    static fake::Platform &P() { return fake::Get(); }
    static uint16_t Used() { return l2vfib_Batch == nullptr ? 0 : l2vfib_Batch->used; }
    // The queued bytes of the batch buffer, and its whole area.
    static Bytes Queued() {
        Bytes area = Area();
        area.resize(Used());
        return area;
    }
    static Bytes Area() {
        if (l2vfib_Batch == nullptr) return {};
        return Bytes(l2vfib_Batch->area, l2vfib_Batch->area + L2VFIB_BATCH_SIZE);
    }
    int fd_ = -1;
};

// The library opened with RecordNotice as its notice callback; the calls of
// the open are cleared from the records.
class OpenLibraryTest : public LibraryTest {
  protected:
    void SetUp() override {
        LibraryTest::SetUp();
        fd_ = L2VFIB_Open(&RecordNotice);
        ASSERT_GE(fd_, 0);
        P().ClearRecords();
    }
    // Sends the queue, clears the records and leaves free bytes of the area
    // free behind a queue of zeros.
    void Leave(size_t free);
};

}  // namespace l2vt

#endif
