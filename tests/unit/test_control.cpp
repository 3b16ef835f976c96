// The control calls: start, stop and the VLAN range check go to the
// control-call service with their codes and inputs, need no open library
// and return the service's result unchanged.
#include <gtest/gtest.h>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

using Control = LibraryTest;

TEST_F(Control, StartSendsTheValueBigEndianAndAsksForNoAnswer) {
    P().controlResults.push_back({0x1234, {}, std::nullopt});
    EXPECT_EQ(L2VFIB_Start(7, 0x01020305), 0x1234u);
    ASSERT_EQ(P().controls.size(), 1u);
    const fake::ControlCall &call = P().controls[0];
    EXPECT_FALSE(call.async);
    EXPECT_EQ(call.target, 7u);
    EXPECT_EQ(call.code, 0x440005u);
    EXPECT_EQ(ToHex(call.input), "01 02 03 05");
    EXPECT_EQ(call.answerRoom, 0u);
    EXPECT_FALSE(call.hasAnswer || call.hasAnswerLength);
}

TEST_F(Control, StopSendsFourZeroBytesOneWay) {
    P().asyncResult = 0xFFFFFFFFu;
    EXPECT_EQ(L2VFIB_Stop(0x8001), 0xFFFFFFFFu);
    ASSERT_EQ(P().controls.size(), 1u);
    EXPECT_TRUE(P().controls[0].async);
    EXPECT_EQ(P().controls[0].target, 0x8001u);
    EXPECT_EQ(P().controls[0].code, 0x440006u);
    EXPECT_EQ(ToHex(P().controls[0].input), "00 00 00 00");
}

TEST_F(Control, VlanRangeCheckPassesTheCallersBytesThrough) {
    const Bytes data = Hex("00 0a 0f ff 01 02");
    P().controlResults.push_back({5, {}, std::nullopt});
    EXPECT_EQ(L2VFIB_CheckVlanRange(3, 6, data.data()), 5u);
    ASSERT_EQ(P().controls.size(), 1u);
    const fake::ControlCall &call = P().controls[0];
    EXPECT_FALSE(call.async);
    EXPECT_EQ(call.target, 3u);
    EXPECT_EQ(call.code, 0x44000cu);
    EXPECT_EQ(call.input, data);
    EXPECT_EQ(call.answerRoom, 0u);
    EXPECT_FALSE(call.hasAnswer || call.hasAnswerLength);

    EXPECT_EQ(L2VFIB_CheckVlanRange(3, 6, nullptr), L2VFIB_ERR_FAIL);
    EXPECT_EQ(P().controls.size(), 1u);
}

}  // namespace
