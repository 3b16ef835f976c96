// The scalar payload encoders: exact item bytes, refusal in every room too
// small for their items (whether their own room test or the codec refuses),
// refusal of a missing record, and no byte written past the room.
#include <gtest/gtest.h>

#include <algorithm>

#include "enc/encoders.h"
#include "records.h"
#include "test_support.h"

using namespace l2vt;

namespace {

enum Reads { kNone = 0, kArg1 = 1, kArg2 = 2, kBoth = 3 };

struct EncoderRow {
    const char *name;
    L2VFIB_CmdEncoder encode;
    const void *arg1;
    const void *arg2;
    Reads reads;
    const char *items;
};

const EncoderRow kRows[] = {
    {"Tlv106", l2vfib_EncTlv106, nullptr, nullptr, kNone, "00 6a 00 00"},
    {"Tlv105", l2vfib_EncTlv105, nullptr, nullptr, kNone, "00 69 00 00"},
    {"Tlv238", l2vfib_EncTlv238, &kHalfDecoy, &kHalf, kArg2, "00 ee 00 02 8a 1b"},
    {"Tlv234", l2vfib_EncTlv234, &kHalfDecoy, &kHalf, kArg2, "00 ea 00 02 8a 1b"},
    {"Tlv218", l2vfib_EncTlv218, &kHalfDecoy, &kHalf, kArg2, "00 da 00 02 8a 1b"},
    {"Tlv235", l2vfib_EncTlv235, &kHalfDecoy, &kHalf, kArg2, "00 eb 00 02 8a 1b"},
    {"Tlv83", l2vfib_EncTlv83, &kHalfDecoy, &kHalf, kArg2, "00 53 00 04 00 00 8a 1b"},
    {"Tlv237", l2vfib_EncTlv237, &kWordA, &kWordB, kArg2, "00 ed 00 04 f1 e2 d3 c4"},
    {"Tlv230", l2vfib_EncTlv230, &kWordA, &kWordB, kArg2, "00 e6 00 04 f1 e2 d3 c4"},
    {"Tlv185", l2vfib_EncTlv185, &kWordA, &kWordB, kArg2, "00 b9 00 04 f1 e2 d3 c4"},
    {"Tlv217", l2vfib_EncTlv217, &kWordA, &kWordB, kArg2, "00 d9 00 04 f1 e2 d3 c4"},
    {"Tlv215", l2vfib_EncTlv215, &kWordA, &kWordB, kArg2, "00 d7 00 04 f1 e2 d3 c4"},
    {"Tlv190", l2vfib_EncTlv190, &kWordA, &kWordB, kArg2, "00 be 00 04 f1 e2 d3 c4"},
    {"Tlv189", l2vfib_EncTlv189, &kWordA, &kWordB, kArg2, "00 bd 00 04 f1 e2 d3 c4"},
    {"Tlv140", l2vfib_EncTlv140, &kWordA, &kWordB, kArg2, "00 8c 00 04 f1 e2 d3 c4"},
    {"Tlv102", l2vfib_EncTlv102, &kWordA, &kWordB, kArg2, "00 66 00 04 f1 e2 d3 c4"},
    {"Tlv100", l2vfib_EncTlv100, &kWordA, &kWordB, kArg1, "00 64 00 04 88 99 aa bb"},
    {"Tlv32", l2vfib_EncTlv32, &kWordA, &kWordB, kArg1, "00 20 00 04 88 99 aa bb"},
    {"Tlv31", l2vfib_EncTlv31, &kWordA, &kWordB, kArg1, "00 1f 00 04 88 99 aa bb"},
    {"Tlv44", l2vfib_EncTlv44, &kWordA, &kWordB, kArg1, "00 2c 00 04 88 99 aa bb"},
    {"Tlv10", l2vfib_EncTlv10, &kKeys.a, &kKeys.b, kArg1, "00 0a 00 08 01 02 03 04 05 06 00 00"},
    {"Tlv20", l2vfib_EncTlv20, &kKeys.a, &kKeys.b, kArg2, "00 14 00 08 c1 c2 c3 c4 c5 c6 00 00"},
    {"Tlv70", l2vfib_EncTlv70, &kPairA, &kPairB, kArg2, "00 46 00 08 91 92 93 94 05 06 07 08"},
    {"Tlv180", l2vfib_EncTlv180, &kPairA, &kPairB, kArg2, "00 b4 00 08 91 92 93 94 05 06 07 08"},
    {"Tlv181Mark182", l2vfib_EncTlv181Mark182, &kWordA, &kWordB, kArg1,
     "00 b5 00 04 88 99 aa bb | 00 b6 00 00"},
    {"Tlv181Mark183", l2vfib_EncTlv181Mark183, &kWordA, &kWordB, kArg1,
     "00 b5 00 04 88 99 aa bb | 00 b7 00 00"},
    {"Tlv181Mark186", l2vfib_EncTlv181Mark186, &kWordA, &kWordB, kArg1,
     "00 b5 00 04 88 99 aa bb | 00 ba 00 00"},
    {"Tlv143With142", l2vfib_EncTlv143With142, &kWordA, &kWordB, kBoth,
     "00 8f 00 04 f1 e2 d3 c4 | 00 8e 00 04 88 99 aa bb"},
};

class ScalarEncoder : public ::testing::TestWithParam<EncoderRow> {};

TEST_P(ScalarEncoder, WritesItsItemsExactlyAndNothingPastThem) {
    const EncoderRow &row = GetParam();
    const Bytes expected = Hex(row.items);
    const size_t size = expected.size();
    for (size_t room : {size, size + 1, size_t{1392}, size_t{0xFFFF}}) {
        Bytes buf = Canary(room + 16);
        ASSERT_EQ(row.encode(row.arg1, row.arg2, static_cast<uint16_t>(room), buf.data()), size)
            << "room " << room;
        EXPECT_EQ(ToHex(Bytes(buf.begin(), buf.begin() + static_cast<long>(size))),
                  ToHex(expected));
        EXPECT_TRUE(std::all_of(buf.begin() + static_cast<long>(size), buf.end(),
                                [](uint8_t b) { return b == kCanary; }))
            << "written past its items with room " << room;
    }
}

// Covers both refusals: below the encoder's own minimum, and between that
// minimum and what the items need, where the codec refuses.
TEST_P(ScalarEncoder, RefusesEveryRoomTooSmallForItsItemsWithoutWriting) {
    const EncoderRow &row = GetParam();
    const size_t size = Hex(row.items).size();
    for (size_t room = 0; room < size; ++room) {
        Bytes buf = Canary(size + 16);
        EXPECT_EQ(row.encode(row.arg1, row.arg2, static_cast<uint16_t>(room), buf.data()), 0)
            << "room " << room;
        EXPECT_EQ(buf, Canary(size + 16)) << "room " << room;
    }
}

TEST_P(ScalarEncoder, RefusesANullRecordItReadsAndIgnoresTheOther) {
    const EncoderRow &row = GetParam();
    const Bytes expected = Hex(row.items);
    Bytes buf = Canary(64);
    const void *noArg1[2] = {nullptr, row.arg2};
    const void *noArg2[2] = {row.arg1, nullptr};
    for (int which : {kArg1, kArg2}) {
        const void *const *args = which == kArg1 ? noArg1 : noArg2;
        buf = Canary(64);
        const uint16_t n = row.encode(args[0], args[1], 64, buf.data());
        if (row.reads & which) {
            EXPECT_EQ(n, 0) << "null arg" << which;
            EXPECT_EQ(buf, Canary(64)) << "null arg" << which;
        } else {
            EXPECT_EQ(n, expected.size()) << "null arg" << which;
            EXPECT_EQ(ToHex(Bytes(buf.begin(), buf.begin() + n)), ToHex(expected));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllScalar, ScalarEncoder, ::testing::ValuesIn(kRows),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
