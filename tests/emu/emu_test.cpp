// The emulated device on its own: hand-written datagrams in, tables,
// answers and log lines out.
#include "emu_fixture.h"
#include "l2vfib_decode.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <filesystem>

namespace decode = l2vfib::decode;

namespace emut {
namespace {

// Datagrams as the Parts draw them ('|' separates items).
const char *kPwAdd =
    "00 03 00 34 00 00 05 08 | 00 0a 00 08 00 00 00 07 00 01 00 00 | 00 0d 00 24"
    " 01 02 03 04 05 06 07 08 00 00 00 00 00 00 00 2a 00 00 05 dc 00 0a 00 14 00 1e 01 00"
    " ff ff ff ff ff ff ff ff";
const char *kPwDel = "00 03 00 0c 00 00 07 08 | 00 0a 00 08 00 00 00 07 00 01 00 00";
const char *kAcAdd =
    "00 06 00 40 00 00 05 00 | 00 14 00 08 00 00 00 0a 00 01 00 00 | 00 16 00 30"
    " 00 64 00 00 00 00 00 07 01 00 00 00 00 00 00 09 00 00 00 00 00 00 00 00"
    " 11 22 33 44 55 66 77 88 00 00 00 03 00 00 00 00 00 0a 00 14 00 00 00 00";
const char *kTunnelAdd =
    "00 0e 00 40 00 00 05 05 | 00 46 00 08 00 00 00 01 00 00 00 02 | 00 47 00 30"
    " 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06"
    " ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff";
const char *kEbgAdd =
    "00 20 00 18 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 01"
    " | 00 9c 00 04 00 00 00 02";
const char *kEbgDelOne = "00 20 00 10 00 00 07 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 01";
const char *kMplsEbgAdd =
    "00 23 00 20 00 00 05 08 | 00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff"
    " | 00 cc 00 0c 00 00 00 01 00 00 00 02 00 00 00 03";
const char *kDfAdd = "00 1f 00 14 00 00 05 08 | 00 99 00 10 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04";
const char *kWithdraw = "00 09 00 0c 00 00 00 08 | 00 0a 00 08 00 00 00 0a 00 01 00 00";
const char *kGr = "00 07 00 00 00 00 03 08";
const char *kTunnelIfDel = "00 12 00 08 00 00 0a 07 | 00 48 00 04 00 00 01 05";
const char *kAcFlag = "00 10 00 04 00 03 11 00 00 00 00 00 | 00 0d 00 00";
const char *kCfg20 = "00 02 00 08 00 00 01 08 | 00 64 00 04 00 00 00 64";
const char *kAcQuery = "00 11 00 08 00 20 12 00 00 00 00 00 | 00 01 00 00 | 00 14 00 00";
const char *kAlloc =
    "00 1d 00 30 00 00 05 08 | 00 b8 00 2c 00 00 00 01 00 00 00 02 00 00 00 03"
    " ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff";

struct Applied {
    std::vector<const char *> datagrams;
    const char *table;
    const char *text;  // the table's text afterwards
};

TEST_F(EmuTest, AppliesEachMessageToItsTable) {
    const Applied rows[] = {
        {{kPwAdd}, "pw",
         "7/1  byte7 8  tlv13 attr64.0=72623859790382856,attr64.1=42,attr32=1500,attr16.0=10,"
         "attr16.1=20,attr16.2=30,attr8=1,fill=2\n"},
        {{kPwAdd, kPwDel}, "pw", ""},
        {{kAcAdd}, "ac", "10/1  byte7 0  tlv22 half0=100,word0=7,byte0=1,word1=9,"
                         "attr64=1234605616436508552,word2=3,half1=10,half2=20,fill=0\n"},
        {{kTunnelAdd}, "tunnel", "1/2  objtype 14  byte7 5  tlv71 word0=3,word1=4,word2=5,word3=6\n"},
        {{kEbgAdd}, "ebg", "42  byte7 8  count 2  members 1,2\n"},
        {{kEbgAdd, kEbgDelOne}, "ebg", "42  byte7 8  count 1  members 2\n"},
        {{kMplsEbgAdd}, "mpls-ebg", "10/20  byte7 8  count 1  members 1/2/3\n"},
        {{kDfAdd}, "ebg-df", "1/2/3/4  byte7 8\n"},
        {{kWithdraw}, "mac", "1  action withdraw  entry 10/1\n"},
        {{kGr}, "gr", "1  opcode 3  event kind 3  byte7 8\n"},
        {{kTunnelIfDel}, "tunnel-if", "1  ifindex 261  objtype 18  byte7 7\n"},
        {{kAcFlag, kAcFlag}, "ac-flag", "flag  state set  opcode 17  messages 2\n"},
        {{kCfg20}, "cfg", "2:100  cmd 20  op 1  tlv100 value=100\n"},
    };
    for (const Applied &row : rows) {
        SCOPED_TRACE(row.table);
        Steer(Json{{"cmd", "clear"}});
        for (const char *datagram : row.datagrams) SendRaw(Hex(datagram));
        EXPECT_EQ(Text(row.table), row.text);
    }
}

TEST_F(EmuTest, SplitsABatchIntoItsMessages) {
    SendRaw(Hex(std::string(kPwAdd) + kAcAdd + kEbgAdd + kPwDel));
    EXPECT_EQ(Counter("datagrams"), 1u);
    EXPECT_EQ(Counter("messages"), 4u);
    EXPECT_EQ(Rows("pw").size(), 0u);
    EXPECT_EQ(Rows("ac").size(), 1u);
    EXPECT_EQ(Rows("ebg").size(), 1u);
}

TEST_F(EmuTest, AnswersOnTheSocketThatAsked) {
    // The AC data query, on a socket that sent before: its table in
    // 16-byte entries (word0 id, half0 subId, byte0, option, half1, half2,
    // word0 of the information).
    SendRaw(Hex(kAcAdd));
    SendRaw(Hex(kAcQuery));
    EXPECT_EQ(Answer(), Hex("00 11 00 24 00 20 12 00 00 00 00 00 | 00 11 00 1c 00 00 12 00"
                            " | 00 01 00 04 00 00 00 01 | 00 14 00 10"
                            " 00 00 00 0a 00 01 01 00 00 0a 00 14 00 00 00 07"));
    // An identifier allocation from a fresh socket: item 184, counting up.
    Steer(Json{{"cmd", "ident"}, {"next", 500}});
    SendRaw(Hex(kAlloc), false, true);
    EXPECT_EQ(Answer(), Hex("00 1d 00 08 00 00 05 08 | 00 b8 00 04 00 00 01 f4"));
    SendRaw(Hex(kAlloc), false, true);
    EXPECT_EQ(Answer(), Hex("00 1d 00 08 00 00 05 08 | 00 b8 00 04 00 00 01 f5"));
    // The same request from a socket that sent before is not a request.
    SendRaw(Hex(kAlloc));
    EXPECT_EQ(Answer(), Bytes{});
    // A bad request from a fresh socket is answered with a failure.
    SendRaw(Hex("00 03 00 0c 00"), false, true);
    EXPECT_EQ(Answer(), Hex("00 00 00 08 00 00 00 08 | 00 25 00 04 40 01 00 01"));
}

struct Malformed {
    const char *hex;
    const char *logged;  // the fault as the log names it
};

TEST_F(EmuTest, LogsBadDatagramsAndKeepsItsTables) {
    SendRaw(Hex(kEbgAdd));
    const std::string before = Text("ebg");
    const Malformed rows[] = {
        {"00 03 00 0c 00", "short-header at offset 0"},
        {"00 03 00 40 00 00 07 08 00 0a 00 08 00 00 00 07 00 01 00 00", "length-past-end at offset 2"},
        {"00 03 00 0c 00 00 07 08 00 0a 00 0c 00 00 00 07 00 01 00 00", "truncated-item at offset 8"},
        {"00 63 00 00 00 00 05 08", "unknown-object-type at offset 0"},
        {"00 03 00 00 00 00 05 08", "missing-item at offset"},
        {"00 20 00 10 00 00 07 08 00 9a 00 04 00 00 00 2a 00 9c 00 04 00 00 00 01 ff", "at offset 24"},
    };
    uint64_t errors = 0;
    for (const Malformed &row : rows) {
        SCOPED_TRACE(row.hex);
        SendRaw(Hex(row.hex));
        EXPECT_NE(Log().find(row.logged), std::string::npos) << Log();
        EXPECT_EQ(Counter("errors"), ++errors);
    }
    // The last one's sound message was applied; nothing else changed.
    EXPECT_EQ(Text("ebg"), "42  byte7 8  count 1  members 2\n") << before;
    EXPECT_EQ(Rows("pw").size(), 0u);
    SendRaw(Hex(kPwAdd));
    EXPECT_EQ(Rows("pw").size(), 1u);
}

TEST_F(EmuTest, KeepsEventChannelsAndSendsThemEvents) {
    // Channel word 5 in the host's order (a little-endian host here).
    SendRaw(Hex("00 14 00 08 00 00 05 00 | 00 00 00 04 05 00 00 00"), true);
    SendRaw(Hex("00 14 00 20 00 00 05 00 | 00 01 00 10 00 00 00 01 00 00 00 00 00 00 00 00 10 10 00 03"
                " | 00 04 00 08 00 00 00 09 10 10 00 03"),
            true);
    EXPECT_EQ(Rows("channel")[0]["word"], 5);
    const Json reg = Rows("reg");
    ASSERT_EQ(reg.size(), 1u);
    EXPECT_EQ(reg[0]["selector"], (std::vector<int>{1, 0, 0}));
    EXPECT_EQ((std::vector<int>{reg[0]["mask"], reg[0]["param"], reg[0]["extra"]}),
              (std::vector<int>{0x1010, 9, 3}));

    EXPECT_EQ(Steer(Json{{"cmd", "event"}, {"type", 3}, {"tag", 7}, {"words", {1, 2, 3}}})["sent"], 1);
    EXPECT_EQ(decode::ToHex(Answer()),
              decode::ToHex(Hex("00 14 00 10 00 07 05 00 | 00 03 00 0c 00 00 00 01 00 00 00 02 00 03 00 00")));
    EXPECT_EQ(Steer(Json{{"cmd", "event"}, {"type", 3}, {"mask", 0x0004}})["sent"], 0);

    SendRaw(Hex("00 14 00 20 00 00 07 00 | 00 01 00 10 00 00 00 01 00 00 00 00 00 00 00 00 10 10 00 00"
                " | 00 04 00 08 00 00 00 09 10 10 00 00"),
            true);
    EXPECT_EQ(Rows("reg").size(), 0u);
    SendRaw(Hex("00 14 00 08 00 00 07 00 | 00 00 00 04 08 00 00 00"), true);
    EXPECT_EQ(Rows("channel").size(), 0u);
}

class CapturingEmu : public EmuTest {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/l2vfib-emu-cap.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        capture_ = std::string(dir) + "/cap.pcap";
        startOptions_ = {"--capture", capture_};
        EmuTest::SetUp();
    }
    void TearDown() override {
        EmuTest::TearDown();
        std::filesystem::remove_all(std::filesystem::path(capture_).parent_path());
    }
    std::string capture_;
};

TEST_F(CapturingEmu, CapturesEachDatagramWithItsDirection) {
    SendRaw(Hex(kCfg20));
    SendRaw(Hex(kAlloc), false, true);
    ASSERT_FALSE(Answer().empty());
    char error[PCAP_ERRBUF_SIZE] = {};
    pcap_t *pcap = pcap_open_offline(capture_.c_str(), error);
    ASSERT_NE(pcap, nullptr) << error;
    EXPECT_EQ(pcap_datalink(pcap), DLT_USER0);
    std::vector<std::string> records;
    pcap_pkthdr *head = nullptr;
    const u_char *data = nullptr;
    while (pcap_next_ex(pcap, &head, &data) == 1)
        records.push_back(decode::ToHex(std::span<const uint8_t>(data, std::min<size_t>(head->caplen, 16))));
    pcap_close(pcap);
    EXPECT_EQ(records, (std::vector<std::string>{
                           "00 00 80 00 0a 6e 00 00 00 02 00 08 00 00 01 08",  // in, forwarding
                           "00 00 80 00 0a 6e 00 00 00 1d 00 30 00 00 05 08",
                           "01 00 80 00 0a 6e 00 00 00 1d 00 08 00 00 05 08",  // out: the reply
                       }));
}

}  // namespace
}  // namespace emut
