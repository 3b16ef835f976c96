// Forwarding entries through the library into the emulated device's
// tables: pseudowires, attachment circuits and their data, MAC-in-MAC,
// MAC withdraw and reset, graceful restart.
#include "emu_fixture.h"
#include "l2vfib.h"

namespace emut {
namespace {

using EntriesOnEmu = OpenOnEmu;

TEST_F(EntriesOnEmu, Pseudowires) {
    const L2VFIB_LpwSubEntry sub = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    const L2VFIB_LpwEntry pw = {{1, 2}, 1500, {10, 20, 30}, 1, {nullptr, &sub}};
    uint8_t block[256];
    const uint32_t n = L2VFIB_EncLpwEntry(&pw, sizeof block, block);
    ASSERT_EQ(n, 32u + 4 * 2 + 28);  // the device's fill13 is 2 words
    const L2VFIB_EntryKey kept = {7, 1}, gone = {8, 1};
    EXPECT_EQ(L2VFIB_AddPwEntry(fd_, 3, &kept, block, static_cast<uint16_t>(n)), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_AddPwEntry(fd_, 3, &gone, block, static_cast<uint16_t>(n)), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelPwEntry(fd_, 3, &gone), L2VFIB_OK);
    Flush();
    const Json rows = Rows("pw");
    ASSERT_EQ(rows.size(), 1u) << rows.dump();
    EXPECT_EQ(rows[0]["key"], "7/1");
    EXPECT_EQ(rows[0]["byte7"], 3);
    EXPECT_EQ(rows[0]["tlv13"]["attr32"], 1500);
    EXPECT_EQ(rows[0]["tlv13"]["fill"], 2);
    EXPECT_TRUE(rows[0].contains("tlv12")) << rows.dump();
}

TEST_F(EntriesOnEmu, AttachmentCircuitsAndTheirData) {
    L2VFIB_AcInfo info = {};
    info.half0 = 100;
    info.word0 = 7;
    info.byte0 = 1;
    info.half1 = 10;
    info.half2 = 20;
    const L2VFIB_AcOption option = {1, 2, 3, 4};
    const L2VFIB_EntryKey a = {10, 1}, b = {11, 2}, c = {12, 3};
    EXPECT_EQ(L2VFIB_AddAcEntry(fd_, &a, &info, &option), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_AddAcEntry(fd_, &b, &info, nullptr), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelAcEntry(fd_, &b), L2VFIB_OK);
    info.half1 = 11;
    EXPECT_EQ(L2VFIB_AddAcEntry(fd_, &c, &info, nullptr), L2VFIB_OK);
    Flush();
    const Json rows = Rows("ac");
    ASSERT_EQ(rows.size(), 2u) << rows.dump();
    EXPECT_EQ(rows[0]["tlv22"]["fill"], 4);  // the device's fill22
    EXPECT_TRUE(rows[0].contains("tlv144"));
    EXPECT_FALSE(rows[1].contains("tlv144"));

    static L2VFIB_AcData entries[L2VFIB_AC_DATA_MAX];
    L2VFIB_AcDataList list = {0, entries};
    ASSERT_EQ(L2VFIB_GetAcData(fd_, &list), L2VFIB_OK);
    ASSERT_EQ(list.count, 2u);
    auto fields = [](const L2VFIB_AcData &e) {
        return std::vector<uint32_t>{e.word0, e.half0, e.byte0, e.byte1, e.half1, e.half2, e.word1};
    };
    EXPECT_EQ(fields(entries[0]), (std::vector<uint32_t>{10, 1, 1, 1, 10, 20, 7}));
    EXPECT_EQ(fields(entries[1]), (std::vector<uint32_t>{12, 3, 1, 0, 11, 20, 7}));

    EXPECT_EQ(L2VFIB_SetAcFlagClear(fd_, 1), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_SetAcFlagClear(fd_, 0), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("ac-flag")[0]["state"], "clear");
    EXPECT_EQ(Rows("ac-flag")[0]["messages"], 2);
}

TEST_F(EntriesOnEmu, MacInMacEntriesFollowTheirOpcode) {
    const L2VFIB_MinMMember members[2] = {{1, {1, 2, 3, 4, 5, 6, 7, 8}}, {2, {0}}};
    L2VFIB_MinMEntry entry = {};
    entry.memberCount = 2;
    entry.members = members;
    uint8_t block[256];
    const uint32_t n = L2VFIB_EncMinMEntry(&entry, sizeof block, block);
    ASSERT_EQ(n, 96u);
    const L2VFIB_EntryKey a = {20, 1}, b = {21, 1};
    EXPECT_EQ(L2VFIB_AddMinMEntry(fd_, 8, 5, &a, block, static_cast<uint16_t>(n)), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_AddMinMEntry(fd_, 8, 5, &b, block, static_cast<uint16_t>(n)), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_DelMinMEntry(fd_, 8, 6, &a), L2VFIB_OK);  // carried: kept as sent
    EXPECT_EQ(L2VFIB_DelMinMEntry(fd_, 8, 7, &b), L2VFIB_OK);
    Flush();
    const Json rows = Rows("minm");
    ASSERT_EQ(rows.size(), 1u) << rows.dump();
    EXPECT_EQ(rows[0]["key"], "20/1");
    EXPECT_EQ(rows[0]["op"], 6);
    EXPECT_NE(Log().find("opcode 6 carried"), std::string::npos);
}

TEST_F(EntriesOnEmu, MacWithdrawResetAndGracefulRestart) {
    const L2VFIB_EntryKey key = {10, 1};
    const uint32_t value = 258;
    EXPECT_EQ(L2VFIB_WithdrawMacAddr(fd_, &key), L2VFIB_OK);
    Flush();
    EXPECT_EQ(L2VFIB_ResetMacAddr(&value), L2VFIB_OK);  // nodes 1 and 2 are up, 3 is down
    EXPECT_EQ(L2VFIB_SendGrEvent(fd_, 0), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_SendGrEvent(fd_, 1), L2VFIB_OK);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Text("mac"),
              "1  action withdraw  entry 10/1\n"
              "2  action reset     node 0x0001  value 258\n"
              "3  action reset     node 0x0002  value 258\n");
    EXPECT_EQ(Text("gr"), "1  opcode 3  event kind 3  byte7 8\n2  opcode 4  event kind 4  byte7 8\n");
}

}  // namespace
}  // namespace emut
