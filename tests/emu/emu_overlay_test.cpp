// Overlay tunnels, EBG member lists and designated forwarders through the
// library into the emulated device's tables.
#include <numeric>

#include "emu_fixture.h"
#include "l2vfib.h"

namespace emut {
namespace {

using OverlayOnEmu = OpenOnEmu;

TEST_F(OverlayOnEmu, TunnelsOfBothTypesAndASwitch) {
    const L2VFIB_OverlayTunnelEntry t1 = {{1, 2}, {3, 4, 5, 6}}, t2 = {{7, 8}, {9, 10, 11, 12}},
                                    t3 = {{1, 3}, {3, 4, 5, 7}};
    EXPECT_EQ(L2VFIB_AddOverlayTunnel(fd_, 5, &t1), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_AddOverlayTunnel(fd_, 7, &t2), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_SwitchOverlayTunnel(fd_, 5, &t1, &t3), L2VFIB_OK);
    Flush();
    EXPECT_EQ(Text("tunnel"),
              "1/3  objtype 14  byte7 5  tlv71 word0=3,word1=4,word2=5,word3=7\n"
              "7/8  objtype 18  byte7 7  tlv71 word0=9,word1=10,word2=11,word3=12\n");

    EXPECT_EQ(L2VFIB_SendTunnelIFDel(fd_, 261), L2VFIB_OK);  // mode 28
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(fd_, 100), L2VFIB_OK);  // mode 24
    EXPECT_EQ(L2VFIB_SendTunnelIFDel(fd_, 999), L2VFIB_ERR_FAIL);  // no mode
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Text("tunnel-if"),
              "1  ifindex 261  objtype 18  byte7 7\n2  ifindex 100  objtype 14  byte7 5\n");
}

TEST_F(OverlayOnEmu, MemberSetsGrowAndShrinkAcrossMessages) {
    std::vector<uint32_t> members(174);
    std::iota(members.begin(), members.end(), 1);
    const L2VFIB_EbgKey group = {42};
    EXPECT_EQ(L2VFIB_AddEBGMember(fd_, 8, &group, members.data(), 174), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelEBGMember(fd_, 8, &group, members.data(), 4), L2VFIB_OK);
    const L2VFIB_MplsEbgKey mpls = {10, 20};
    const L2VFIB_MplsEbgMember mplsMembers[2] = {{1, 2, 3}, {4, 5, 6}};
    EXPECT_EQ(L2VFIB_AddMplsEBGMember(fd_, 8, &mpls, mplsMembers, 2), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelMplsEBGMember(fd_, 8, &mpls, mplsMembers, 1), L2VFIB_OK);
    Flush();
    EXPECT_GE(Counter("datagrams"), 2u);  // 174 members do not fit one batch
    const Json ebg = Rows("ebg");
    ASSERT_EQ(ebg.size(), 1u);
    EXPECT_EQ(ebg[0]["count"], 170);
    EXPECT_EQ(ebg[0]["members"][0], "5");
    EXPECT_EQ(Text("mpls-ebg"), "10/20  byte7 8  count 1  members 4/5/6\n");
}

TEST_F(OverlayOnEmu, DesignatedForwarders) {
    const L2VFIB_EbgDfEntry a = {1, 2, 3, 4}, b = {1, 2, 3, 5};
    EXPECT_EQ(L2VFIB_AddEBGDf(fd_, 8, &a), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_AddEBGDf(fd_, 8, &b), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelEBGDf(fd_, 8, &a), L2VFIB_OK);
    Flush();
    EXPECT_EQ(Text("ebg-df"), "1/2/3/5  byte7 8\n");
}

}  // namespace
}  // namespace emut
