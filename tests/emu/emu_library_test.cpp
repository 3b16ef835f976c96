// The library's message layer and the host platform's device services
// against the emulated device: what a daemon sends lands in the tables,
// and what the device answers comes back through the library.
#include <poll.h>

#include <cstdlib>

#include "emu_fixture.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/catalogue.h"

namespace emut {
namespace {

std::vector<uint32_t> gNotices;
uint32_t OnNotice(uint32_t, uint32_t *value) {
    gNotices.push_back(*value);
    return 0;
}

// The library opened on the device; closed after the test.
class LibraryOnEmu : public OpenOnEmu {
  protected:
    void SetUp() override {
        gNotices.clear();
        callback_ = OnNotice;
        OpenOnEmu::SetUp();
    }
};

TEST_F(EmuTest, ServesTheDeviceServices) {
    uint8_t caps[512] = {};
    uint32_t length = 0;
    ASSERT_EQ(CIOCTL(0x8000, 0x440002, 0, nullptr, sizeof caps, caps, &length), 0u);
    EXPECT_EQ(length, 64u);
    // fill22, fill13, fill21, fill33 at bytes 8-11; fill39 at byte 40.
    EXPECT_EQ((std::vector<int>{caps[8], caps[9], caps[10], caps[11], caps[40]}),
              (std::vector<int>{4, 2, 2, 2, 3}));
    Steer(Json{{"cmd", "caps"}, {"fill39", 7}});
    ASSERT_EQ(CIOCTL(0x8000, 0x440002, 0, nullptr, 41, caps, &length), 0u);
    EXPECT_EQ(length, 41u);
    EXPECT_EQ(caps[40], 7);

    uint32_t count = 0;
    uint16_t *nodes = DEV_GetAllNodes(&count);
    ASSERT_NE(nodes, nullptr);
    EXPECT_EQ(std::vector<uint16_t>(nodes, nodes + count), (std::vector<uint16_t>{1, 2, 3}));
    std::free(nodes);
    EXPECT_EQ((std::vector<uint32_t>{IF_IsNodeUp(1), IF_IsNodeUp(3), IF_IsNodeUp(9)}),
              (std::vector<uint32_t>{1, 0, 0}));
    Steer(Json{{"cmd", "node"}, {"node", 3}, {"state", "up"}});
    EXPECT_EQ(IF_IsNodeUp(3), 1u);
    EXPECT_EQ(LIP_GetLocalLip(0), 1u);

    uint32_t mode = 0;
    EXPECT_EQ(TUNNEL_GetMode(261, &mode), 0u);
    EXPECT_EQ(mode, 28u);
    Steer(Json{{"cmd", "tunnel-mode"}, {"ifindex", 261}, {"mode", nullptr}});
    EXPECT_NE(TUNNEL_GetMode(261, &mode), 0u);
}

TEST_F(EmuTest, RecordsTheControlCalls) {
    const uint8_t range[4] = {0, 10, 0, 20};
    EXPECT_EQ(L2VFIB_Start(1, 5), 0u);
    EXPECT_EQ(L2VFIB_Stop(2), 0u);
    EXPECT_EQ(L2VFIB_CheckVlanRange(1, sizeof range, range), 0u);
    Steer(Json{{"cmd", "status"}});  // the one-way stop has been served
    EXPECT_EQ(Text("control"),
              "1  call start             node 0x0001  async false  input 00 00 00 05  result 0\n"
              "2  call stop              node 0x0002  async true   input 00 00 00 00  result 0\n"
              "3  call vlan range check  node 0x0001  async false  input 00 0a 00 14  result 0\n");
}

TEST_F(LibraryOnEmu, TakesEachSendPathOfTheCatalogue) {
    const uint32_t instance = 100, limit = 4096, word = 5;
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 20, 0, &instance, nullptr), L2VFIB_OK);   // batched
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 57, 0, nullptr, &limit), L2VFIB_OK);      // batched
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 15, 0, &word, nullptr), L2VFIB_OK);       // alone
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 18, 0, &instance, nullptr), L2VFIB_OK);   // answered
    Steer(Json{{"cmd", "answer"}, {"code", 19}, {"result", 0x60010004}});
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 19, 0, &limit, nullptr), 0x60010004u);
    // Queued with batch 1, an answered code is not answered.
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 26, 1, nullptr, &word), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Text("cfg"),
              "1:5     cmd 26  op 1  tlv102 value=5\n"
              "1:100   cmd 18  op 1  tlv100 value=100\n"
              "1:4096  cmd 19  op 2  tlv100 value=4096\n"
              "2:100   cmd 20  op 1  tlv100 value=100\n"
              "2:4096  cmd 57  op 6  tlv185 value=4096\n"
              "13:5    cmd 15  op 1  tlv44 value=5\n");
    EXPECT_EQ(Counter("replies"), 2u);
    pollfd readable{fd_, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 100), 0) << "a reply reached the service socket";
}

TEST_F(LibraryOnEmu, HandsNoticesToTheCallback) {
    const uint32_t instance = 1;
    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 20, 0, &instance, nullptr), L2VFIB_OK);
    ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    EXPECT_EQ(Steer(Json{{"cmd", "notice"}, {"value", 0x2a}})["sent"], 1);
    EXPECT_EQ(L2VFIB_HandleMsg(fd_), L2VFIB_OK);
    EXPECT_EQ(gNotices, std::vector<uint32_t>{0x2a});
}

TEST_F(LibraryOnEmu, AllocatesIdentifiersFromACounter) {
    if (l2vfib_CmdTable[54].encoder == nullptr) GTEST_SKIP() << "command 54 has no encoder yet";
    const L2VFIB_WordTriple triple = {1, 2, 3};
    Steer(Json{{"cmd", "ident"}, {"next", 70}});
    EXPECT_EQ(L2VFIB_AllocECID(54, nullptr, &triple), 70);
    EXPECT_EQ(L2VFIB_AllocECID(54, nullptr, &triple), 71);
}

}  // namespace
}  // namespace emut
