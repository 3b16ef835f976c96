// Helpers shared by the unit tests: byte strings written the way the wire
// tables read, and fixtures that keep the library's process-wide state from
// leaking between tests.
#ifndef L2VFIB_TESTS_TEST_SUPPORT_H
#define L2VFIB_TESTS_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fake_platform.h"

namespace l2vt {

using fake::Bytes;

// "00 0e 00 0c | 00 00 17 05": pairs of hex digits; spaces and '|' are
// separators only.
Bytes Hex(std::string_view text);
Bytes operator+(Bytes a, const Bytes &b);
Bytes Repeat(const Bytes &b, size_t times);
// "00 0e 00 0c ...": for comparisons whose failures should read as bytes.
std::string ToHex(const Bytes &b);

constexpr uint8_t kCanary = 0xA5;
inline Bytes Canary(size_t n) { return Bytes(n, kCanary); }

// The notices the library handed to RecordNotice: (kind, value).
std::vector<std::pair<uint32_t, uint32_t>> &Notices();
uint32_t RecordNotice(uint32_t kind, uint32_t *value);

// A closed library over a reset fake platform. Anything a test leaves open
// is closed in TearDown; the capability counts start at 0.
class LibraryTest : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;
    fake::Platform &P() { return fake::Get(); }
    // The queued bytes of the batch buffer, and its whole area.
    static Bytes Queued();
    static Bytes Area();
    static uint16_t Used();
    int fd_ = -1;
};

// The library opened with RecordNotice as its notice callback; the calls of
// the open are cleared from the records.
class OpenLibraryTest : public LibraryTest {
  protected:
    void SetUp() override;
};

}  // namespace l2vt

#endif
