// The emulated device on its own: what only hand-written datagrams reach
// (who gets an answer, malformed messages, the capture). How it applies
// each family is checked against the library.
#include "emu_fixture.h"
#include "l2vfib_decode.h"

#include <pcap/pcap.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <set>

#include "device.h"

namespace decode = l2vfib::decode;

namespace emut {
namespace {


// A request comes alone from a fresh socket; a bad one is answered with a
// failure.
TEST_F(EmuTest, AnswersOnlyAFreshSocket) {
    Steer(Json{{"cmd", "ident"}, {"next", 500}});
    SendRaw(Hex(kAlloc), true);
    EXPECT_EQ(Answer(), Hex("00 1d 00 08 00 00 05 08 | 00 b8 00 04 00 00 01 f4"));
    SendRaw(Hex(kAlloc));
    EXPECT_EQ(Answer(), Bytes{});
    SendRaw(Hex("00 03 00 0c 00"), true);
    EXPECT_EQ(Answer(), Hex("00 00 00 08 00 00 00 08 | 00 25 00 04 40 01 00 01"));
}

struct Malformed {
    const char *hex;
    const char *logged;  // the fault as the log names it
};

TEST_F(EmuTest, LogsBadDatagramsAndKeepsItsTables) {
    SendRaw(Hex(kEbgAdd));
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
    EXPECT_EQ(Text("ebg"), "42  byte7 8  count 1  members 2\n");
    EXPECT_EQ(Rows("pw").size(), 0u);
    SendRaw(Hex(kPwAdd));
    EXPECT_EQ(Rows("pw").size(), 1u);
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
    SendRaw(Hex(kAlloc), true);
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

namespace emut {
namespace {

// The device files a datagram of pseudowires without the full decoder:
// over mutated batches, what it keeps is what the decoder's reading of
// the same bytes makes, message by message.
TEST(EmuFiler, KeepsWhatTheDecoderAccepts) {
    const Bytes add = Hex(kPwAdd);
    const Bytes del = Hex("00 03 00 0c 00 00 07 08 | 00 0a 00 08 00 00 00 07 00 01 00 00");
    std::mt19937 random(7);
    for (int round = 0; round < 20000; ++round) {
        l2vfib::emu::Device device;
        Bytes datagram;
        for (int n = 1 + random() % 4; n > 0; --n) {
            const Bytes &message = random() % 3 == 0 ? del : add;
            datagram.insert(datagram.end(), message.begin(), message.end());
        }
        for (int flips = random() % 3; flips > 0; --flips)
            datagram[random() % datagram.size()] = static_cast<uint8_t>(random() % 3 == 0 ? 0xFF : random());
        std::set<std::pair<uint64_t, uint64_t>> keys;
        for (const decode::Message &m : decode::Decode(datagram, decode::Channel::kToService).messages) {
            if (m.error || m.kind != decode::Kind::kPw) continue;
            const auto key = std::pair(m.key.at(0).number, m.key.at(1).number);
            if (m.opcode == 5) keys.insert(key);
            if (m.opcode == 7) keys.erase(key);
        }
        device.Forwarding("@1", false, datagram);
        const Json rows = device.Steer(Json{{"cmd", "show"}, {"table", "pw"}}, nullptr, nullptr)["rows"];
        ASSERT_EQ(rows.size(), keys.size()) << decode::ToHex(datagram);
    }
}

}  // namespace
}  // namespace emut
