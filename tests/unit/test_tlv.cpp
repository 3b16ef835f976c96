// The TLV codec as the encoders rely on it: 4-byte item header, refusal
// before any write, header-only items, and a reader that finds only whole
// items.
#include <gtest/gtest.h>

#include "l2vfib_platform.h"
#include "test_support.h"

using namespace l2vt;

TEST(TlvSet, WritesHeaderAndValueAndCountsBoth) {
    Bytes buf = Canary(12);
    const uint8_t value[] = {0xAA, 0xBB, 0xCC, 0xDD};
    EXPECT_EQ(STLV_Set(buf.data(), 8, 0x0102, 4, value), 8u);
    EXPECT_EQ(ToHex(buf), ToHex(Hex("01 02 00 04 aa bb cc dd") + Canary(4)));
}

TEST(TlvSet, RefusesBeforeWritingWhenTheItemDoesNotFit) {
    const uint8_t value[4] = {1, 2, 3, 4};
    for (uint32_t room = 0; room < 8; ++room) {
        Bytes buf = Canary(8);
        EXPECT_EQ(STLV_Set(buf.data(), room, 7, 4, value), 0u) << "room " << room;
        EXPECT_EQ(buf, Canary(8)) << "room " << room;
    }
    Bytes buf = Canary(4);
    EXPECT_EQ(STLV_Set(buf.data(), 3, 7, 0, nullptr), 0u);
    EXPECT_EQ(STLV_Set(buf.data(), 4, 7, 0, nullptr), 4u);
    EXPECT_EQ(ToHex(buf), "00 07 00 00");
}

TEST(TlvSet, NullValueWritesTheHeaderOnlyAndStillCountsTheValue) {
    Bytes buf = Canary(8);
    EXPECT_EQ(STLV_Set(buf.data(), 8, 0x00b5, 4, nullptr), 8u);
    EXPECT_EQ(ToHex(buf), ToHex(Hex("00 b5 00 04") + Canary(4)));
    buf = Canary(8);
    EXPECT_EQ(STLV_Set(buf.data(), 7, 0x00b5, 4, nullptr), 0u);
    EXPECT_EQ(buf, Canary(8));
}

TEST(TlvSet, TypeAndLengthMustFitSixteenBits) {
    Bytes buf = Canary(8);
    EXPECT_EQ(STLV_Set(buf.data(), 8, 0x10000, 0, nullptr), 0u);
    EXPECT_EQ(STLV_Set(buf.data(), 0x20000, 1, 0x10000, nullptr), 0u);
    EXPECT_EQ(buf, Canary(8));
    EXPECT_EQ(STLV_Set(buf.data(), 8, 0xFFFF, 0, nullptr), 4u);
    EXPECT_EQ(ToHex(buf), ToHex(Hex("ff ff 00 00") + Canary(4)));
}

TEST(TlvGet, FindsOnlyAWholeItemAndNullsTheValueOtherwise) {
    const Bytes item = Hex("00 25 00 04 12 34 56 78 ff");
    uint32_t type = 0, length = 0;
    const void *value = nullptr;
    ASSERT_NE(STLV_Get(item.data(), 9, &type, &length, &value), 0u);
    EXPECT_EQ(type, 37u);
    EXPECT_EQ(length, 4u);
    EXPECT_EQ(value, item.data() + 4);

    for (uint32_t cut : {0u, 3u, 4u, 7u}) {
        value = item.data();
        EXPECT_EQ(STLV_Get(item.data(), cut, &type, &length, &value), 0u) << "length " << cut;
        EXPECT_EQ(value, nullptr) << "length " << cut;
    }

    const Bytes empty = Hex("00 69 00 00");
    ASSERT_NE(STLV_Get(empty.data(), 4, &type, &length, &value), 0u);
    EXPECT_EQ(type, 105u);
    EXPECT_EQ(length, 0u);
}
