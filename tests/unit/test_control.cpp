// The control calls: start, stop and the VLAN range check go to the
// control-call service with their codes and inputs, ask for no answer, need
// no open library and return the service's result unchanged.
#include <gtest/gtest.h>

#include "l2vfib.h"
#include "test_support.h"

using namespace l2vt;

namespace {

using Control = LibraryTest;

const uint8_t kVlanRange[] = {0x00, 0x0a, 0x0f, 0xff, 0x01, 0x02};

TEST_F(Control, EachCallSendsItsCodeAndInputAndReturnsTheResult) {
    struct Case {
        uint32_t (*call)();
        bool async;
        uint32_t target, code;
        const char *input;
    };
    const Case cases[] = {
        {[] { return L2VFIB_Start(7, 0x01020305); }, false, 7, 0x440005, "01 02 03 05"},
        {[] { return L2VFIB_Stop(0x8001); }, true, 0x8001, 0x440006, "00 00 00 00"},
        {[] { return L2VFIB_CheckVlanRange(3, 6, kVlanRange); }, false, 3, 0x44000c,
         "00 0a 0f ff 01 02"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "code " << std::hex << c.code);
        P().ClearRecords();
        P().controlResults = {{0x80001234, {}, std::nullopt}};
        P().asyncResult = 0xFFFFFFFFu;
        EXPECT_EQ(c.call(), c.async ? 0xFFFFFFFFu : 0x80001234u);
        ASSERT_EQ(P().controls.size(), 1u);
        EXPECT_EQ(Fields(P().controls[0]),
                  Fields({c.async, c.target, c.code, Hex(c.input), 0, false, false}));
    }
    P().ClearRecords();
    EXPECT_EQ(L2VFIB_CheckVlanRange(3, 6, nullptr), L2VFIB_ERR_FAIL);
    EXPECT_TRUE(P().controls.empty());
}

}  // namespace
