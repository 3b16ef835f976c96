#include "test_support.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace l2vt {

namespace {

// Bytes up to the end of text, or up to the ']' that closes a group.
Bytes HexRun(std::string_view text, size_t &pos, bool inGroup) {
    auto hex = [&](size_t at) {
        return at < text.size() && std::isxdigit(static_cast<unsigned char>(text[at]));
    };
    Bytes out, unit;
    while (pos < text.size()) {
        const char c = text[pos];
        if (c == ' ' || c == '|' || c == '\n') {
            ++pos;
            continue;
        }
        if (c == ']' && inGroup) return ++pos, out;  // the group ends
        if (c == '[') unit = HexRun(text, ++pos, true);
        else if (hex(pos) && hex(pos + 1))
            unit = {static_cast<uint8_t>(std::stoul(std::string(text.substr(pos, 2)), nullptr, 16))};
        else std::abort();  // a typo in the test
        pos += c == '[' ? 0 : 2;
        size_t times = 1, digits = 0;  // "*N" repeats the byte or group
        if (pos < text.size() && text[pos] == '*')
            times = std::stoul(std::string(text.substr(++pos)), &digits);
        pos += digits;
        for (size_t i = 0; i < times; ++i) out.insert(out.end(), unit.begin(), unit.end());
    }
    if (inGroup) std::abort();  // an unclosed group
    return out;
}

}  // namespace

Bytes Hex(std::string_view text) {
    size_t pos = 0;
    return HexRun(text, pos, false);
}

Bytes operator+(Bytes a, const Bytes &b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::string ToHex(const Bytes &b, size_t max) {
    std::string out;
    char digits[4];
    for (size_t i = 0; i < b.size() && i < max; ++i) {
        std::snprintf(digits, sizeof digits, i == 0 ? "%02x" : " %02x", b[i]);
        out += digits;
    }
    return out;
}

void LibraryTest::SetUp() {
    fake::Reset();
    g_notices.clear();
    l2vfib_Caps = {};
    ASSERT_EQ(l2vfib_Batch, nullptr) << "an earlier test left the library open";
}

void LibraryTest::TearDown() {
    if (l2vfib_Batch != nullptr) L2VFIB_Close(fd_);
    fake::Reset();
    l2vfib_Caps = {};
}

void OpenLibraryTest::Leave(size_t free) {
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    P().ClearRecords();
    l2vfib_Batch->used = static_cast<uint16_t>(L2VFIB_BATCH_SIZE - free);
}

}  // namespace l2vt
