#include "test_support.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>

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

void OpenLibraryTest::Leave(size_t free) {
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    P().ClearRecords();
    l2vfib_Batch->used = static_cast<uint16_t>(L2VFIB_BATCH_SIZE - free);
}

void OpenLibraryTest::ExpectQueued(const std::function<uint32_t(int32_t)> &call,
                                   const Bytes &message, size_t needed) {
    Leave(L2VFIB_BATCH_SIZE);
    ASSERT_EQ(call(fd_), L2VFIB_OK);
    EXPECT_EQ(ToHex(Queued()), ToHex(message));
    if (needed != 0) {
        Leave(needed);
        ASSERT_EQ(call(fd_), L2VFIB_OK);
        EXPECT_EQ(ToHex(Queued()), ToHex(Bytes(L2VFIB_BATCH_SIZE - needed, 0) + message));
        Leave(needed - 1);
        P().sendResults = {-EAGAIN};
        EXPECT_EQ(call(fd_), L2VFIB_ERR_FAIL);
        EXPECT_EQ(Used(), L2VFIB_BATCH_SIZE + 1 - needed);
        EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
        ASSERT_EQ(call(fd_), L2VFIB_OK);
        ASSERT_EQ(P().sends.size(), 2u);
        EXPECT_EQ(P().sends[1].data, Bytes(L2VFIB_BATCH_SIZE + 1 - needed, 0));
        EXPECT_EQ(P().sends[1].flags, MSG_DONTWAIT);
        EXPECT_EQ(ToHex(Queued()), ToHex(message));
    }
    L2VFIB_Close(fd_);
    EXPECT_EQ(call(fd_), L2VFIB_ERR_NOT_OPEN);
}

}  // namespace l2vt
