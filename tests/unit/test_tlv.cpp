// The TLV codec as the encoders rely on it: 4-byte item header, refusal
// before any write, header-only items, and a reader that finds only whole
// items.
#include <gtest/gtest.h>

#include "l2vfib_platform.h"
#include "test_support.h"

using namespace l2vt;

TEST(TlvSet, WritesWholeItemsOnlyAndNothingPastThem) {
    const uint8_t value[] = {0xAA, 0xBB, 0xCC, 0xDD};
    struct Case {
        uint32_t room, type, length;
        const uint8_t *value;
        uint32_t result;
        const char *written;  // the first four bytes, then the canary
    };
    const Case cases[] = {
        {8, 0x0102, 4, value, 8, "01 02 00 04 aa bb cc dd"},
        {8, 0x00b5, 4, nullptr, 8, "00 b5 00 04"},  // the value bytes are left, and counted
        {7, 0x00b5, 4, value, 0, ""},
        {4, 7, 0, nullptr, 4, "00 07 00 00"},
        {3, 7, 0, nullptr, 0, ""},
        {8, 0xFFFF, 0, nullptr, 4, "ff ff 00 00"},
        {8, 0x10000, 0, nullptr, 0, ""},  // type and length must fit 16 bits
        {0x20000, 1, 0x10000, nullptr, 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "room " << c.room << " type " << c.type);
        Bytes buf = Canary(12);
        EXPECT_EQ(STLV_Set(buf.data(), c.room, c.type, c.length, c.value), c.result);
        const Bytes written = Hex(c.written);
        EXPECT_EQ(ToHex(buf), ToHex(written + Canary(12 - written.size())));
    }
}

TEST(TlvGet, FindsOnlyAWholeItemAndNullsTheValueOtherwise) {
    const Bytes item = Hex("00 25 00 04 12 34 56 78 ff");
    uint32_t type = 0, length = 0;
    const void *value = nullptr;
    ASSERT_NE(STLV_Get(item.data(), 9, &type, &length, &value), 0u);
    EXPECT_EQ(std::tuple(type, length, value), std::tuple(37u, 4u, item.data() + 4));
    for (uint32_t cut : {0u, 3u, 4u, 7u}) {
        value = item.data();
        EXPECT_EQ(STLV_Get(item.data(), cut, &type, &length, &value), 0u) << "length " << cut;
        EXPECT_EQ(value, nullptr) << "length " << cut;
    }
    const Bytes empty = Hex("00 69 00 00");
    ASSERT_NE(STLV_Get(empty.data(), 4, &type, &length, &value), 0u);
    EXPECT_EQ(std::tuple(type, length), std::tuple(105u, 0u));
}
