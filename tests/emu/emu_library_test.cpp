// The library and the host platform against the emulated device, family by
// family: what a daemon sends lands in the device's tables as the library
// meant it, and what the device answers or sends comes back through the
// library. (Each message's bytes are the unit tests' to check.)
#include <poll.h>

#include <numeric>

#include "device.h"
#include "emu_fixture.h"
#include "msg/catalogue.h"
#include "server.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"

namespace emut {
namespace {

std::vector<uint32_t> gNotices;
uint32_t OnNotice(uint32_t, uint32_t *value) {
    gNotices.push_back(*value);
    return 0;
}

class LibraryOnEmu : public OpenOnEmu {
  protected:
    void SetUp() override {
        gNotices.clear();
        callback_ = OnNotice;
        OpenOnEmu::SetUp();
    }
};

#define OK(...) EXPECT_EQ(__VA_ARGS__, L2VFIB_OK)

// One family's calls, and the text of the tables they change.
struct Family {
    const char *name;
    void (*calls)(int32_t fd);
    std::vector<std::string> tables;
    const char *text;
};

const Family kFamilies[] = {
    // The capability query at open went before the clear.
    {"ControlCalls",
     [](int32_t) {
         const uint8_t range[4] = {0, 10, 0, 20};
         OK(L2VFIB_Start(1, 5));
         OK(L2VFIB_Stop(2));
         OK(L2VFIB_CheckVlanRange(1, sizeof range, range));
     },
     {"control"},
     "1  call start             node 0x0001  async false  input 00 00 00 05  result 0\n"
     "2  call stop              node 0x0002  async true   input 00 00 00 00  result 0\n"
     "3  call vlan range check  node 0x0001  async false  input 00 0a 00 14  result 0\n"},
    {"Pseudowires",
     [](int32_t fd) {
         const L2VFIB_LpwSubEntry sub = {1, 2, 3, 4, 5, 6, 7, 8, 9};
         const L2VFIB_LpwEntry pw = {{1, 2}, 1500, {10, 20, 30}, 1, {nullptr, &sub}};
         uint8_t block[256];
         const auto n = static_cast<uint16_t>(L2VFIB_EncLpwEntry(&pw, sizeof block, block));
         const L2VFIB_EntryKey kept = {7, 1}, gone = {8, 1};
         OK(L2VFIB_AddPwEntry(fd, 3, &kept, block, n));
         OK(L2VFIB_AddPwEntry(fd, 3, &gone, block, n));
         OK(L2VFIB_DelPwEntry(fd, 3, &gone));
     },
     {"pw"},
     "7/1  byte7 3  tlv13 attr64.0=1,attr64.1=2,attr32=1500,attr16.0=10,attr16.1=20,attr16.2=30,"
     "attr8=1,fill=2  tlv12 sub.0.word0=1,sub.0.word1=2,sub.0.word2=3,sub.0.half0=4,sub.0.byte0=5,"
     "sub.0.byte1=6,sub.0.half1=7,sub.0.half2=8,sub.0.word3=9\n"},
    // The AC data answer is read after the batch, on the same socket.
    {"AttachmentCircuits",
     [](int32_t fd) {
         L2VFIB_AcInfo info = {100, 7, 1, 0, {}, 0, 0, {}, 10, 20};
         const L2VFIB_AcOption option = {1, 2, 3, 4};
         const L2VFIB_EntryKey a = {10, 1}, b = {11, 2}, c = {12, 3};
         OK(L2VFIB_AddAcEntry(fd, &a, &info, &option));
         OK(L2VFIB_AddAcEntry(fd, &b, &info, nullptr));
         OK(L2VFIB_DelAcEntry(fd, &b));
         info.half1 = 11;
         OK(L2VFIB_AddAcEntry(fd, &c, &info, nullptr));
         OK(L2VFIB_FlushEntry(fd));
         L2VFIB_AcData entries[L2VFIB_AC_DATA_MAX];
         L2VFIB_AcDataList list = {0, entries};
         OK(L2VFIB_GetAcData(fd, &list));
         std::vector<uint32_t> fields;
         for (const L2VFIB_AcData &e : std::span(entries, list.count))
             fields.insert(fields.end(), {e.word0, e.half0, e.byte0, e.byte1, e.half1, e.half2, e.word1});
         EXPECT_EQ(fields, (std::vector<uint32_t>{10, 1, 1, 1, 10, 20, 7, 12, 3, 1, 0, 11, 20, 7}));
         OK(L2VFIB_SetAcFlagClear(fd, 1));
         OK(L2VFIB_SetAcFlagClear(fd, 0));
     },
     {"ac", "ac-flag"},
     "10/1  byte7 0  tlv22 half0=100,word0=7,byte0=1,word1=0,attr64=0,word2=0,half1=10,half2=20,"
     "fill=4  tlv144 half0=1,half1=2,half2=3,half3=4\n"
     "12/3  byte7 0  tlv22 half0=100,word0=7,byte0=1,word1=0,attr64=0,word2=0,half1=11,half2=20,fill=4\n"
     "flag  state clear  opcode 16  messages 2\n"},
    // A delete of opcode 6 is carried as sent.
    {"MacInMac",
     [](int32_t fd) {
         const L2VFIB_MinMMember members[2] = {{1, {1, 2, 3, 4, 5, 6, 7, 8}}, {2, {0}}};
         const L2VFIB_MinMEntry entry = {0, 0, 0, 2, 0, {}, {}, members, nullptr};
         uint8_t block[256];
         const auto n = static_cast<uint16_t>(L2VFIB_EncMinMEntry(&entry, sizeof block, block));
         const L2VFIB_EntryKey a = {20, 1}, b = {21, 1}, c = {22, 1};
         OK(L2VFIB_AddMinMEntry(fd, 8, 5, &a, block, n));
         OK(L2VFIB_AddMinMEntry(fd, 8, 5, &b, block, n));
         OK(L2VFIB_DelMinMEntry(fd, 8, 7, &b));
         OK(L2VFIB_DelMinMEntry(fd, 8, 6, &c));
     },
     {"minm"},
     "20/1  byte7 8  tlv41 word0=0,word1=0,word2=0,memberCount=2,word4=0,mac.0=00:00:00:00:00:00,"
     "mac.1=00:00:00:00:00:00,mac.2=00:00:00:00:00:00,opaque=" "00000000000000000000000000000000"
     "0000000000000000  tlv42 members.0.word0=1,members.0.data=0102030405060708,members.1.word0=2,"
     "members.1.data=0000000000000000\n"
     "22/1  byte7 8  op 6\n"},
    // Nodes 1 and 2 are up, 3 is down.
    {"MacWithdrawResetAndGracefulRestart",
     [](int32_t fd) {
         const L2VFIB_EntryKey key = {10, 1};
         const uint32_t value = 258;
         OK(L2VFIB_WithdrawMacAddr(fd, &key));
         OK(L2VFIB_FlushEntry(fd));
         OK(L2VFIB_ResetMacAddr(&value));
         OK(L2VFIB_SendGrEvent(fd, 0));
         OK(L2VFIB_SendGrEvent(fd, 1));
     },
     {"mac", "gr"},
     "1  action withdraw  entry 10/1\n"
     "2  action reset     node 0x0001  value 258\n"
     "3  action reset     node 0x0002  value 258\n"
     "1  opcode 3  event kind 3  byte7 8\n"
     "2  opcode 4  event kind 4  byte7 8\n"},
    // Interface 261 has mode 28, 100 mode 24, 999 none.
    {"Tunnels",
     [](int32_t fd) {
         const L2VFIB_OverlayTunnelEntry t1 = {{1, 2}, {3, 4, 5, 6}},
                                         t2 = {{7, 8}, {9, 10, 11, 12}},
                                         t3 = {{1, 3}, {3, 4, 5, 7}};
         OK(L2VFIB_AddOverlayTunnel(fd, 5, &t1));
         OK(L2VFIB_AddOverlayTunnel(fd, 7, &t2));
         OK(L2VFIB_SwitchOverlayTunnel(fd, 5, &t1, &t3));
         OK(L2VFIB_SendTunnelIFDel(fd, 261));
         OK(L2VFIB_SendTunnelIFDel(fd, 100));
         EXPECT_EQ(L2VFIB_SendTunnelIFDel(fd, 999), L2VFIB_ERR_FAIL);
     },
     {"tunnel", "tunnel-if"},
     "1/3  objtype 14  byte7 5  tlv71 word0=3,word1=4,word2=5,word3=7\n"
     "7/8  objtype 18  byte7 7  tlv71 word0=9,word1=10,word2=11,word3=12\n"
     "1  ifindex 261  objtype 18  byte7 7\n"
     "2  ifindex 100  objtype 14  byte7 5\n"},
    // 174 members take two batches.
    {"EbgMembersAndDesignatedForwarders",
     [](int32_t fd) {
         std::vector<uint32_t> members(174);
         std::iota(members.begin(), members.end(), 1);
         const L2VFIB_EbgKey group = {42};
         OK(L2VFIB_AddEBGMember(fd, 8, &group, members.data(), 174));
         OK(L2VFIB_DelEBGMember(fd, 8, &group, members.data(), 170));
         const L2VFIB_MplsEbgKey mpls = {10, 20};
         const L2VFIB_MplsEbgMember mplsMembers[2] = {{1, 2, 3}, {4, 5, 6}};
         OK(L2VFIB_AddMplsEBGMember(fd, 8, &mpls, mplsMembers, 2));
         OK(L2VFIB_DelMplsEBGMember(fd, 8, &mpls, mplsMembers, 1));
         const L2VFIB_EbgDfEntry a = {1, 2, 3, 4}, b = {1, 2, 3, 5};
         OK(L2VFIB_AddEBGDf(fd, 8, &a));
         OK(L2VFIB_AddEBGDf(fd, 8, &b));
         OK(L2VFIB_DelEBGDf(fd, 8, &a));
     },
     {"ebg", "mpls-ebg", "ebg-df"},
     "42  byte7 8  count 4  members 171,172,173,174\n"
     "10/20  byte7 8  count 1  members 4/5/6\n"
     "1/2/3/5  byte7 8\n"},
};

// The status round trip after the flush means the device has read every
// datagram before it, one-way control calls too.
TEST_F(LibraryOnEmu, EachFamilyLandsInItsTables) {
    for (const Family &family : kFamilies) {
        SCOPED_TRACE(family.name);
        Steer(Json{{"cmd", "clear"}});
        family.calls(fd_);
        Flush();
        std::string text;
        for (const std::string &table : family.tables) text += Text(table);
        EXPECT_EQ(text, family.text);
    }
}

// Batched by code or by request, alone, answered (with the device's
// result); an answered code queued with batch 1 is not answered.
TEST_F(LibraryOnEmu, TakesEachSendPathOfTheCatalogue) {
    const uint32_t instance = 100, limit = 4096, word = 5;
    OK(L2VFIB_Send_Cfg(fd_, 20, 0, &instance, nullptr));
    OK(L2VFIB_Send_Cfg(fd_, 57, 0, nullptr, &limit));
    OK(L2VFIB_Send_Cfg(fd_, 15, 0, &word, nullptr));
    OK(L2VFIB_Send_Cfg(fd_, 18, 0, &instance, nullptr));
    Steer(Json{{"cmd", "answer"}, {"code", 19}, {"result", 0x60010004}});
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, 19, 0, &limit, nullptr), 0x60010004u);
    OK(L2VFIB_Send_Cfg(fd_, 26, 1, nullptr, &word));
    Flush();
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

    const L2VFIB_WordTriple triple = {1, 2, 3};
    Steer(Json{{"cmd", "ident"}, {"next", 70}});
    EXPECT_EQ(L2VFIB_AllocECID(54, nullptr, &triple), 70);
    EXPECT_EQ(L2VFIB_AllocECID(54, nullptr, &triple), 71);
    EXPECT_EQ(Steer(Json{{"cmd", "notice"}, {"value", 0x2a}})["sent"], 1);
    OK(L2VFIB_HandleMsg(fd_));
    EXPECT_EQ(gNotices, std::vector<uint32_t>{0x2a});
}

// The capability answer, cut to the room asked. (The other services are
// met by the families: node list and states by the MAC reset, tunnel modes
// by the tunnel interfaces, the local node by the event channel.)
TEST_F(EmuTest, AnswersTheCapabilityQuery) {
    Steer(Json{{"cmd", "caps"}, {"fill13", 5}, {"fill21", 6}, {"fill22", 7}, {"fill33", 8}, {"fill39", 9}});
    uint8_t caps[512] = {};
    uint32_t length = 0;
    ASSERT_EQ(CIOCTL(0x8000, 0x440002, 0, nullptr, 41, caps, &length), 0u);
    EXPECT_EQ(length, 41u);
    // fill22, fill13, fill21, fill33 at bytes 8-11; fill39 at byte 40.
    EXPECT_EQ((std::vector<int>{caps[8], caps[9], caps[10], caps[11], caps[40]}),
              (std::vector<int>{7, 5, 6, 8, 9}));
}

std::vector<std::vector<uint32_t>> gEvents;
uint32_t OnEvent(uint32_t tag, const void *record) {
    const auto *r = static_cast<const L2VFIB_EvtRecord3 *>(record);
    gEvents.push_back({tag, r->word0, r->word1, r->half0});
    return 0x77;
}

// Only the channels whose registration shares a mask bit get an event.
TEST_F(EmuTest, EventChannelRegistrationsAndEvents) {
    gEvents.clear();
    const int32_t evt = L2VFIB_InitEvent(5);
    ASSERT_GE(evt, 0);
    const uint32_t selector[3] = {1, 0, 0};
    OK(L2VFIB_RegEvent(evt, 0x1010, selector, 9, OnEvent, 3));
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("channel")[0]["word"], 5);
    const Json reg = Rows("reg");
    ASSERT_EQ(reg.size(), 1u);
    EXPECT_EQ(reg[0]["selector"], (std::vector<int>{1, 0, 0}));
    EXPECT_EQ((std::vector<int>{reg[0]["mask"], reg[0]["param"], reg[0]["extra"]}),
              (std::vector<int>{0x1010, 9, 3}));

    auto event = [](int mask) {
        return Json{{"cmd", "event"}, {"type", 3}, {"tag", 7}, {"words", {1, 2, 3}}, {"mask", mask}};
    };
    EXPECT_EQ(Steer(event(0x2000))["sent"], 0);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(evt), L2VFIB_ERR_NO_DATA);
    EXPECT_EQ(Steer(event(0x1000))["sent"], 1);
    EXPECT_EQ(L2VFIB_HandleEvtMsg(evt), 0x77u);
    EXPECT_EQ(gEvents, (std::vector<std::vector<uint32_t>>{{7, 1, 2, 3}}));

    OK(L2VFIB_DeregEvent(evt, 0x1010, 1, 9));
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("reg").size(), 0u);
    EXPECT_EQ(L2VFIB_FiniEvent(evt), 0);
    Steer(Json{{"cmd", "status"}});
    EXPECT_EQ(Rows("channel").size(), 0u);
}

}  // namespace
}  // namespace emut

namespace emut {
namespace {

// A load that meets a busy spell: the daemon's pattern (flush, which
// waits, then call again) loses nothing, and the refusals did happen.
TEST_F(LibraryOnEmu, LoadsThroughABusySpellAndLosesNothing) {
    const L2VFIB_LpwEntry pw = {{1, 2}, 1500, {10, 20, 30}, 1, {nullptr, nullptr}};
    uint8_t block[64];
    const auto n = static_cast<uint16_t>(L2VFIB_EncLpwEntry(&pw, sizeof block, block));
    Steer(Json{{"cmd", "fault"}, {"fault", "busy"}, {"state", "on"}, {"ms", 200}});
    // Until the queue is full (its depth is the host's), then on.
    uint32_t refusals = 0, entries = 0;
    for (uint32_t id = 1; id <= entries || (refusals == 0 && id < 2000000); ++id) {
        const L2VFIB_EntryKey key = {id, 1};
        entries = std::max(entries, id);
        if (L2VFIB_AddPwEntry(fd_, 8, &key, block, n) == L2VFIB_OK) continue;
        if (refusals++ == 0) entries = id + 5000;
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
        ASSERT_EQ(L2VFIB_AddPwEntry(fd_, 8, &key, block, n), L2VFIB_OK);
    }
    Flush();
    EXPECT_GT(refusals, 0u);
    EXPECT_EQ(Steer(Json{{"cmd", "count"}, {"table", "pw"}})["rows"][0]["rows"], entries);
    EXPECT_EQ(Counter("busy-spells"), 1u);
    EXPECT_EQ(Counter("fault-busy"), 0u);
    EXPECT_NE(Log().find("fault busy off: its time is up"), std::string::npos);
    // The whole table streams, in key order; one row alone by its key.
    std::FILE *out = std::tmpfile();
    std::string error;
    ASSERT_TRUE(l2vfib::emu::SteerStreamed(Json{{"cmd", "show"}, {"table", "pw"}, {"stream", true}}, &error, out));
    std::rewind(out);
    uint32_t lines = 0, last = 0;
    bool ordered = true;
    for (char line[512]; std::fgets(line, sizeof line, out); ++lines) {
        ordered = ordered && static_cast<uint32_t>(std::atoi(line)) == last + 1;
        last = static_cast<uint32_t>(std::atoi(line));
    }
    std::fclose(out);
    EXPECT_EQ(lines, entries);
    EXPECT_TRUE(ordered);
    EXPECT_EQ(Steer(Json{{"cmd", "show"}, {"table", "pw"}, {"key", "5000/1"}})["rows"][0]["key"], "5000/1");
}

// Edges of what the device keeps: an AC data answer holds at most
// L2VFIB_AC_DATA_MAX entries, and a member set that a delete empties is
// gone; every code that the library sends as an answered command is one
// the device answers.
TEST_F(LibraryOnEmu, KeepsItsEdges) {
    L2VFIB_AcInfo info = {100, 7, 1, 0, {}, 0, 0, {}, 10, 20};
    for (uint32_t id = 1; id <= L2VFIB_AC_DATA_MAX + 1; ++id) {
        const L2VFIB_EntryKey key = {id, 1};
        OK(L2VFIB_AddAcEntry(fd_, &key, &info, nullptr));
    }
    Flush();
    static L2VFIB_AcData entries[L2VFIB_AC_DATA_MAX];
    L2VFIB_AcDataList list = {0, entries};
    OK(L2VFIB_GetAcData(fd_, &list));
    EXPECT_EQ(list.count, L2VFIB_AC_DATA_MAX);

    const L2VFIB_EbgKey group = {7};
    const uint32_t members[2] = {1, 2};
    OK(L2VFIB_AddEBGMember(fd_, 8, &group, members, 2));
    OK(L2VFIB_DelEBGMember(fd_, 8, &group, members, 2));
    Flush();
    EXPECT_EQ(Text("ebg"), "");

    for (uint32_t code = 0; code < l2vfib::kCmdCount; ++code)
        EXPECT_EQ(l2vfib::emu::IsAnsweredCode(code), l2vfib_CmdTable[code].path == l2vfib::Path::kReply)
            << "code " << code;
}

}  // namespace
}  // namespace emut
