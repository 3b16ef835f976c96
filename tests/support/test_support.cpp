#include "test_support.h"

#include <cstdio>
#include <cstdlib>

#include "l2vfib.h"
#include "msg/state.h"

namespace l2vt {

namespace {
int Nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

Bytes Hex(std::string_view text) {
    Bytes out;
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '|' || c == '\n') continue;
        const int v = Nibble(c);
        if (v < 0) {
            std::fprintf(stderr, "bad hex digit '%c' in \"%.*s\"\n", c, static_cast<int>(text.size()),
                         text.data());
            std::abort();
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0) std::abort();  // an odd digit count is a typo in the test
    return out;
}

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes Repeat(const Bytes &b, size_t times) {
    Bytes out;
    for (size_t i = 0; i < times; ++i) out.insert(out.end(), b.begin(), b.end());
    return out;
}

std::string ToHex(const Bytes &b) {
    std::string out;
    char digits[4];
    for (size_t i = 0; i < b.size(); ++i) {
        std::snprintf(digits, sizeof digits, i == 0 ? "%02x" : " %02x", b[i]);
        out += digits;
    }
    return out;
}

std::vector<std::pair<uint32_t, uint32_t>> &Notices() {
    static std::vector<std::pair<uint32_t, uint32_t>> notices;
    return notices;
}

uint32_t RecordNotice(uint32_t kind, uint32_t *value) {
    Notices().emplace_back(kind, *value);
    return 0x5A5A5A5Au;  // ignored by the library
}

void LibraryTest::SetUp() {
    fake::Reset();
    Notices().clear();
    l2vfib_Caps = {};
    ASSERT_EQ(l2vfib_Batch, nullptr) << "an earlier test left the library open";
}

void LibraryTest::TearDown() {
    if (l2vfib_Batch != nullptr) L2VFIB_Close(fd_);
    fake::Reset();
    l2vfib_Caps = {};
}

Bytes LibraryTest::Queued() {
    if (l2vfib_Batch == nullptr) return {};
    return Bytes(l2vfib_Batch->area, l2vfib_Batch->area + l2vfib_Batch->used);
}

Bytes LibraryTest::Area() {
    if (l2vfib_Batch == nullptr) return {};
    return Bytes(l2vfib_Batch->area, l2vfib_Batch->area + L2VFIB_BATCH_SIZE);
}

uint16_t LibraryTest::Used() { return l2vfib_Batch == nullptr ? 0 : l2vfib_Batch->used; }

void OpenLibraryTest::SetUp() {
    LibraryTest::SetUp();
    fd_ = L2VFIB_Open(&RecordNotice);
    ASSERT_GE(fd_, 0);
    P().ClearRecords();
}

}  // namespace l2vt
