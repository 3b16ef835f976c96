#include "test_support.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

namespace l2vt {

Bytes Hex(std::string_view text) {
    std::string digits;
    for (char c : text) {
        if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
        else if (c != ' ' && c != '|' && c != '\n') std::abort();  // a typo in the test
    }
    if (digits.size() % 2 != 0) std::abort();
    Bytes out;
    for (size_t i = 0; i < digits.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return out;
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

}  // namespace l2vt
