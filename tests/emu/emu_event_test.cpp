// The event channel against the emulated event service: channels and
// registrations kept, events sent to the channels registered for them.
#include "emu_fixture.h"
#include "l2vfib.h"

namespace emut {
namespace {

std::vector<std::vector<uint32_t>> gEvents;
uint32_t OnEvent(uint32_t tag, const void *record) {
    const auto *r = static_cast<const L2VFIB_EvtRecord3 *>(record);
    gEvents.push_back({tag, r->word0, r->word1, r->half0});
    return 0x77;
}

TEST_F(EmuTest, EventChannelRegistrationsAndEvents) {
    gEvents.clear();
    const int32_t evt = L2VFIB_InitEvent(5);
    ASSERT_GE(evt, 0);
    const uint32_t selector[3] = {1, 0, 0};
    EXPECT_EQ(L2VFIB_RegEvent(evt, 0x1010, selector, 9, OnEvent, 3), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}});
    ASSERT_EQ(Rows("channel").size(), 1u);
    EXPECT_EQ(Rows("channel")[0]["word"], 5);
    const Json reg = Rows("reg");
    ASSERT_EQ(reg.size(), 1u);
    EXPECT_EQ(reg[0]["selector"], (std::vector<int>{1, 0, 0}));
    EXPECT_EQ((std::vector<int>{reg[0]["mask"], reg[0]["param"], reg[0]["extra"]}),
              (std::vector<int>{0x1010, 9, 3}));

    // Only the channels whose registration shares a mask bit get it.
    EXPECT_EQ(Steer(Json{{"cmd", "event"}, {"type", 3}, {"tag", 7}, {"words", {1, 2, 3}}, {"mask", 0x2000}})["sent"], 0);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(evt), L2VFIB_ERR_NO_DATA);
    EXPECT_EQ(Steer(Json{{"cmd", "event"}, {"type", 3}, {"tag", 7}, {"words", {1, 2, 3}}, {"mask", 0x1000}})["sent"], 1);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(evt), 0x77u);
    EXPECT_EQ(gEvents, (std::vector<std::vector<uint32_t>>{{7, 1, 2, 3}}));

    EXPECT_EQ(L2VFIB_DeregEvent(evt, 0x1010, 1, 9), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("reg").size(), 0u);
    EXPECT_EQ(L2VFIB_FiniEvent(evt), 0);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("channel").size(), 0u);
}

}  // namespace
}  // namespace emut
