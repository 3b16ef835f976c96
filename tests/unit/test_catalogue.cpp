// The command catalogue: every code with an encoder builds its message,
// byte for byte, within its room only and on every path it can take
// (batched with batch 1, its own path otherwise, the identifier request),
// and refuses a null record it reads. (The batch's last free bytes are the
// batch tests'; each encoder's least room is tried here.) Codes
// without an encoder, and records an encoder cannot send (counts above an
// item's bound, lists too long for any message), are refused without a
// byte written or sent.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>

#include "l2vfib.h"
#include "msg/catalogue.h"
#include "test_support.h"

using namespace l2vt;

namespace {

// Every number has its top bit set, so a sign extension or a swapped byte
// shows, and the two records of each kind differ, so reading arg1 for arg2
// shows.
const uint32_t kWordA = 0x8899AABBu, kWordB = 0xF1E2D3C4u;
const uint16_t kHalfDecoy = 0x0102, kHalf = 0x8A1B;
const L2VFIB_WordPair kPairA = {0x0A0B0C0Du, 0x8E8F9091u}, kPairB = {0x91929394u, 0x05060708u};
// Keys whose bytes behind subId are all 0xFF: only id and subId are read.
struct Keys {
    L2VFIB_EntryKey a, b;
    Keys() {
        std::memset(&a, 0xFF, sizeof a), std::memset(&b, 0xFF, sizeof b);
        a.id = 0x01020304u, a.subId = 0x0506, b.id = 0xC1C2C3C4u, b.subId = 0xC5C6;
    }
} const kKeys;

enum class Path { kBatched, kAlone, kReply };
constexpr Path B = Path::kBatched, A = Path::kAlone, R = Path::kReply;

// A distinct count for each item, so that reading another item's count
// shows.
constexpr L2VFIB_DevCaps kCaps = {5, 2, 3, 1, 4};  // TLVs 13, 21, 22, 33, 39
constexpr auto k21 = &L2VFIB_DevCaps::fillWords21, k22 = &L2VFIB_DevCaps::fillWords22,
               k33 = &L2VFIB_DevCaps::fillWords33, k39 = &L2VFIB_DevCaps::fillWords39;
constexpr L2VFIB_DevCaps With(uint8_t L2VFIB_DevCaps::*count, uint8_t value) {
    L2VFIB_DevCaps caps = kCaps;
    caps.*count = value;
    return caps;
}

struct CmdRow {
    L2VFIB_CmdId cmd;
    Path path;  // when batch is not 1
    const void *arg1, *arg2;
    int reads;  // records the encoder reads: 1 arg1, 2 arg2, 3 both; 4 arg2 may be null
    const char *message;  // header | items
    uint16_t fits = 0;    // the least room it builds in, when its own test asks more
    L2VFIB_DevCaps caps = kCaps;
};

// The variant entries: every field of every record differs.
const L2VFIB_HalfPair kList0[] = {{0x8101, 0x8202}, {0x8303, 0x8404}, {0x8505, 0x8606}};
const L2VFIB_HalfPair kList1[] = {{0x9101, 0x9202}, {0x9303, 0x9404}};
const L2VFIB_HalfPair kLong[400] = {};
const L2VFIB_Variant1Ext kExt = {0xE1E2E3E4, 0xE5E6,
                                 {{0xA0A1A2A3, 0xA4A5, 0xA6A7, 0xA8A9, 0xAAAB, 0xACAD, 0xAEAF},
                                  {0xB0B1B2B3, 0xB4B5, 0xB6B7, 0xB8B9, 0xBABB, 0xBCBD, 0xBEBF}}};
const L2VFIB_Variant1 kV1[] = {
    {0xD0D1D2D3, 0xD4D5, 0xD6D7, 3, kList0, 0xD8D9, 0xDADB, 2, kList1, &kExt},
    {0xD0D1D2D3, 0xD4D5, 0xD6D7, 3, nullptr, 0xD8D9, 0xDADB, 2, nullptr, nullptr},
    {0xD0D1D2D3, 0xD4D5, 0xD6D7, 0, kList0, 0xD8D9, 0xDADB, 2, kList1, nullptr},
    {0xD0D1D2D3, 0xD4D5, 0xD6D7, 60, kLong, 0xD8D9, 0xDADB, 0, nullptr, &kExt},
    {0xD0D1D2D3, 0xD4D5, 0xD6D7, 400, kLong, 0xD8D9, 0xDADB, 0, nullptr, nullptr},
};
const L2VFIB_Variant2 kV2 = {0xF0F1F2F3, 0xF4F5F6F7, 0xF8F9, 0xFA};
const L2VFIB_Variant4 kV4 = {0xF8F9, 0xF0F1F2F3};
constexpr L2VFIB_VariantEntry Entry(uint8_t kind, const void *variant) {
    return {0x8C8D8E8F, variant, 0x9C9D, 0xAC, kind, 0xBC};
}
const L2VFIB_VariantEntry kFull = Entry(1, &kV1[0]), kBare = Entry(1, &kV1[1]),
                          kEmpty0 = Entry(1, &kV1[2]), kLong60 = Entry(1, &kV1[3]),
                          kLong400 = Entry(1, &kV1[4]), kKind2 = Entry(2, &kV2),
                          kKind3 = Entry(3, &kV2), kKind4 = Entry(4, &kV4),
                          kKind0 = Entry(0, nullptr), kKind5 = Entry(5, nullptr);
const L2VFIB_VariantEntry kNoVariant[] = {Entry(1, nullptr), Entry(2, nullptr), Entry(3, nullptr),
                                          Entry(4, nullptr)};

// Names: 32 characters without a NUL, and a short one with bytes behind
// its NUL. The bytes that are not read are not zero.
L2VFIB_InstanceCfg Cfg(const char (&name)[33]) {
    L2VFIB_InstanceCfg c = {0x80818283, 0x84858687, 0x88898A8B, 0x8C8D, 0x8E, 0x8F, 0x90919293,
                            {}, 0x94959697, 0x98999A9B, 0x9C9D, {}, {1, 2, 3}, 0xC0C1C2C3,
                            0xC4C5C6C7, 0xC8C9CACB};
    for (uint32_t i = 0; i < 8; ++i) c.words[i] = 0xA0A1A2A3 + 0x04040404 * i;
    std::memcpy(c.name, name, sizeof c.name);
    return c;
}
const L2VFIB_InstanceCfg kCfgLong = Cfg("ABCDEFGHIJKLMNOPQRSTUVWXYZ012345");
const L2VFIB_InstanceCfg kCfgShort = Cfg("eth0\0ZZZZZZZZZZZZZZZZZZZZZZZZZZZ");

// Byte blocks counting up from first.
template <size_t N>
void Count(uint8_t (&bytes)[N], uint8_t first) {
    for (size_t i = 0; i < N; ++i) bytes[i] = static_cast<uint8_t>(first + i);
}
// Addresses: IPv4 (bytes behind its four), IPv6, another family.
L2VFIB_IpAddr Ip(uint16_t family, uint8_t first) {
    L2VFIB_IpAddr ip = {family, {0xEE, 0xEF}, {}};
    Count(ip.addr, first);
    return ip;
}
const L2VFIB_IpAddr kIp4 = Ip(2, 0x0A), kIp6 = Ip(10, 0x20);
const L2VFIB_IpAddr kTriple[] = {kIp4, kIp6, Ip(0x8A8B, 0x30)};
const L2VFIB_HostEntry kHost = {kIp4, {0x02, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5}, 0x8E8F, 0x9E9F};
const L2VFIB_AddrParam kAddrParam = {kIp4, 0xC0C1C2C3, 0xC4C5};
const L2VFIB_AddrSet kAddrSet = {kIp4, {{kIp6, 0xD0D1D200}, {kIp4, 0xD0D1D201}, {kIp6, 0xD0D1D202},
                                        {kIp4, 0xD0D1D203}, {kIp6, 0xD0D1D204}, {kIp4, 0xD0D1D205},
                                        {kIp6, 0xD0D1D206}, {kIp4, 0xD0D1D207}}};
const uint8_t kMac[6] = {0x02, 0xA1, 0xB2, 0xC3, 0xD4, 0xE5};
const L2VFIB_AcInfo kAcInfo = {0x8081, 0x82838485, 0x86, 0x87888990, {1, 2, 3}, 0x9192939495969798,
                               0xA1A2A3A4, {4, 5, 6}, 0xB1B2, 0xB3B4};
#define SEQ_A0_BF \
    "a0 a1 a2 a3 a4 a5 a6 a7 a8 a9 aa ab ac ad ae af " \
    "b0 b1 b2 b3 b4 b5 b6 b7 b8 b9 ba bb bc bd be bf"
const L2VFIB_DataEntry kData = [] {
    L2VFIB_DataEntry d = {0x80818283, 0x84858687, 0x88898A8B, 0x8C, 0x8D, {0x12, 0x34}, {}};
    return Count(d.data, 0xA0), d;
}();
const L2VFIB_DataBlock kBlock = [] {
    L2VFIB_DataBlock b = {0x80818283, 0x84858687, {}};
    return Count(b.data, 0xA0), b;
}();
const L2VFIB_PairEntryExt kPairExt = {0x80818283, 0x8485, 0x8687, 0x88898A8B};
const L2VFIB_PairEntry kPairEntry = {0x80818283, 0x8485, 0x8687};
const L2VFIB_WordTriple kTriple3 = {0x80818283, 0x84858687, 0x88898A8B};
const L2VFIB_WordsHalf kWordsHalf = {0x80818283, 0x84858687, 0x8889};

// A range or list with its words, in an allocation of exactly its size:
// reading a word past count shows under the sanitizers.
const L2VFIB_RangeOrList *List(uint8_t mode, uint16_t count, std::vector<uint32_t> words) {
    auto *r = static_cast<L2VFIB_RangeOrList *>(
        std::calloc(1, sizeof(L2VFIB_RangeOrList) + sizeof(uint32_t) * words.size()));
    r->mode = mode, r->count = count, r->word0 = 0xC0C1C2C3, r->word1 = 0xC4C5C6C7;
    std::copy(words.begin(), words.end(), r->words);
    return r;
}
const L2VFIB_RangeOrList *const kRange = List(1, 0xFFFF, {});
const L2VFIB_RangeOrList *const kWords3 = List(0, 3, {0xD0D1D2D3, 0xD4D5D6D7, 0xD8D9DADB});
const L2VFIB_RangeOrList *const kWords0 = List(2, 0, {});
const L2VFIB_RangeOrList *const kWords173 = List(0, 173, std::vector<uint32_t>(173, 0xE0E1E2E3));
const L2VFIB_RangeOrList *const kWords174 = List(0, 174, std::vector<uint32_t>(174, 0xE0E1E2E3));

#define W1 &kWordA, &kWordB, 1
#define W2 &kWordA, &kWordB, 2
#define H2 &kHalfDecoy, &kHalf, 2
#define P2 &kPairA, &kPairB, 2
#define N nullptr, nullptr, 0

// Rows 81/85 and 86/88 expect the same bytes: those codes differ only in
// their path.
const CmdRow kRows[] = {
    {2, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {3, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {10, A, W1, "00 00 00 08 00 00 00 08 | 00 1f 00 04 88 99 aa bb"},
    {15, A, W1, "00 0d 00 08 00 00 01 08 | 00 2c 00 04 88 99 aa bb"},
    {16, A, W1, "00 0d 00 08 00 00 02 08 | 00 2c 00 04 88 99 aa bb"},
    {17, A, H2, "00 0f 00 08 00 00 02 08 | 00 53 00 04 00 00 8a 1b"},
    {18, R, W1, "00 01 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {19, R, W1, "00 01 00 08 00 00 02 08 | 00 64 00 04 88 99 aa bb"},
    {20, B, W1, "00 02 00 08 00 00 01 08 | 00 64 00 04 88 99 aa bb"},
    {21, A, W1, "00 01 00 08 00 00 17 08 | 00 20 00 04 88 99 aa bb"},
    {22, A, &kKeys.a, &kKeys.b, 1,
     "00 01 00 0c 00 00 17 08 | 00 0a 00 08 01 02 03 04 05 06 00 00"},
    {23, A, &kKeys.a, &kKeys.b, 2,
     "00 06 00 0c 00 00 17 08 | 00 14 00 08 c1 c2 c3 c4 c5 c6 00 00"},
    {26, R, W2, "00 01 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {27, R, W2, "00 01 00 08 00 00 02 08 | 00 66 00 04 f1 e2 d3 c4"},
    {28, B, W2, "00 02 00 08 00 00 01 08 | 00 66 00 04 f1 e2 d3 c4"},
    {37, A, W2, "00 01 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {38, B, W2, "00 02 00 08 00 00 06 08 | 00 8c 00 04 f1 e2 d3 c4"},
    {39, A, &kWordA, &kWordB, 3,
     "00 01 00 10 00 00 06 08 | 00 8f 00 04 f1 e2 d3 c4 | 00 8e 00 04 88 99 aa bb"},
    {42, R, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 b6 00 00"},
    {43, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 b6 00 00"},
    {44, R, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 b7 00 00"},
    {45, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 b7 00 00"},
    {46, B, P2, "00 1c 00 0c 00 00 06 08 | 00 b4 00 08 91 92 93 94 05 06 07 08"},
    {56, A, W2, "00 01 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {57, B, W2, "00 02 00 08 00 00 06 08 | 00 b9 00 04 f1 e2 d3 c4"},
    {58, A, W1, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 88 99 aa bb | 00 ba 00 00"},
    {59, A, W1, "00 1c 00 0c 00 00 02 08 | 00 b5 00 04 88 99 aa bb | 00 ba 00 00"},
    {61, A, N, "00 01 00 04 00 00 01 08 | 00 69 00 00"},
    {62, A, N, "00 01 00 04 00 00 02 08 | 00 69 00 00"},
    {63, B, N, "00 02 00 04 00 00 01 08 | 00 69 00 00"},
    {64, A, W2, "00 01 00 08 00 00 06 08 | 00 bd 00 04 f1 e2 d3 c4"},
    {65, B, W2, "00 02 00 08 00 00 06 08 | 00 be 00 04 f1 e2 d3 c4"},
    {68, A, W2, "00 24 00 08 00 00 05 08 | 00 d7 00 04 f1 e2 d3 c4"},
    {71, A, N, "00 01 00 04 00 00 01 08 | 00 6a 00 00"},
    {72, A, N, "00 01 00 04 00 00 02 08 | 00 6a 00 00"},
    {73, B, N, "00 02 00 04 00 00 01 08 | 00 6a 00 00"},
    {74, A, W2, "00 01 00 08 00 00 06 08 | 00 d9 00 04 f1 e2 d3 c4"},
    {75, A, W2, "00 01 00 08 00 00 06 08 | 00 e6 00 04 f1 e2 d3 c4"},
    {76, A, H2, "00 27 00 06 00 00 05 08 | 00 da 00 02 8a 1b"},
    {77, A, H2, "00 01 00 06 00 00 06 08 | 00 ea 00 02 8a 1b"},
    {80, A, P2, "00 0e 00 0c 00 00 17 05 | 00 46 00 08 91 92 93 94 05 06 07 08"},
    {81, R, H2, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {85, B, H2, "00 2a 00 06 00 00 06 08 | 00 eb 00 02 8a 1b"},
    {86, R, W2, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {87, R, W2, "00 2b 00 08 00 00 02 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {88, B, W2, "00 2b 00 08 00 00 01 08 | 00 ed 00 04 f1 e2 d3 c4"},
    {89, A, H2, "00 01 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
    {90, B, H2, "00 02 00 06 00 00 06 08 | 00 ee 00 02 8a 1b"},
};

#define KEY_A "00 14 00 08 01 02 03 04 05 06 00 00"
#define T21(kind) "00 15 00 14 8c 8d 8e 8f 9c 9d ac " kind " bc 00 00 00 ff*8"
#define T23(count0, count1) "00 17 00 10 d0 d1 d2 d3 d4 d5 d6 d7 " count0 " d8 d9 da db " count1
#define T24 "00 18 00 28 e1 e2 e3 e4 e5 e6 00 00 " SEQ_A0_BF
#define T27 "00 1b 00 0c f0 f1 f2 f3 f4 f5 f6 f7 f8 f9 fa 00"
#define T28 "00 1c 00 08 f8 f9 00 00 f0 f1 f2 f3"
#define CFG_HEAD "80 81 82 83 84 85 86 87 88 89 8a 8b 8c 8d 8e 8f 90 91 92 93"
#define CFG_TAIL "94 95 96 97 98 99 9a 9b 9c 9d 00 00 " SEQ_A0_BF \
    " 00*8 c0 c1 c2 c3 c4 c5 c6 c7 c8 c9 ca cb"
#define NAME_CUT \
    "41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50 " \
    "51 52 53 54 55 56 57 58 59 5a 30 31 32 33 34 00"
#define HOST_KEY "00 26 00 08 01 02 03 04 05 06 00 00"
#define HOST \
    "00 02 00 00 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19 " \
    "02 a1 b2 c3 d4 e5 8e 8f 9e 9f 00 00"
#define AC_INFO \
    "80 81 00 00 82 83 84 85 86 00 00 00 87 88 89 90 00*8 91 92 93 94 95 96 97 98 " \
    "a1 a2 a3 a4 00*4 b1 b2 b3 b4 00*4"
#define IP4 "00 02 ee ef 0a 0b 0c 0d 0e 0f 10 11 12 13 14 15 16 17 18 19"
#define IP4_CUT "00 02 00 00 0a 0b 0c 0d 00*12"
#define IP6 "00 0a ee ef 20 21 22 23 24 25 26 27 28 29 2a 2b 2c 2d 2e 2f"
#define IP6_NR "00 0a 00 00 20 21 22 23 24 25 26 27 28 29 2a 2b 2c 2d 2e 2f"
#define ADDR_PARAM "00 67 00 1c " IP4 " c0 c1 c2 c3 c4 c5 00 00"
#define ADDR_SET "00 70 00 d4 " IP4_CUT " | " IP6_NR " d0 d1 d2 00 | " IP4_CUT " d0 d1 d2 01 | " \
    IP6_NR " d0 d1 d2 02 | " IP4_CUT " d0 d1 d2 03 | " IP6_NR " d0 d1 d2 04 | " IP4_CUT       \
    " d0 d1 d2 05 | " IP6_NR " d0 d1 d2 06 | " IP4_CUT " d0 d1 d2 07"
#define MAC "00 1d 00 06 02 a1 b2 c3 d4 e5"
#define DATA "00 c9 00 30 80 81 82 83 84 85 86 87 88 89 8a 8b 8c 8d 12 34 " SEQ_A0_BF
#define T141 "00 8d 00 10 80 81 82 83 84 85 86 87 88 89 8a 8b 00 00 00 00 | 00 8e 00 04 88 99 aa bb"
#define T145 "00 91 00 08 80 81 82 83 84 85 86 87 | 00 92 00 04 88 99 aa bb"
#define T184 "00 b8 00 2c 80 81 82 83 84 85 86 87 88 89 8a 8b ff*32"
#define T236 "00 ec 00 0c 80 81 82 83 84 85 86 87 88 89 00 00"
#define KA &kKeys.a
#define WA &kWordA

// The record encoders: every code, every variant kind, capability counts
// of 0, the usual one and the bound, lists empty and at their limits.
const CmdRow kRecordRows[] = {
    {7, R, KA, &kFull, 5, "00 04 00 80 00 00 01 08 | " KEY_A " | " T21("01") " | " T23("00 03",
     "00 02") " | " T24
     " | 00 19 00 0c 81 01 82 02 83 03 84 04 85 05 86 06 | 00 1a 00 08 91 01 92 02 93 03 94 04",
      324},
    {7, R, KA, nullptr, 5, "00 04 00 0c 00 00 01 08 | " KEY_A, 324},
    {8, R, KA, &kKind2, 5, "00 04 00 34 00 00 02 08 | " KEY_A " | " T21("02") " | " T27, 324},
    {8, R, KA, &kKind4, 5, "00 04 00 28 00 00 02 08 | " KEY_A
     " | 00 15 00 0c 8c 8d 8e 8f 9c 9d ac 04 bc 00 00 00 | " T28,
     316, With(k21, 0)},
    {9, A, KA, &kKind3, 5, "00 04 00 34 00 00 06 08 | " KEY_A " | " T21("03") " | " T27, 324},
    {9, A, KA, nullptr, 5, "00 04 00 0c 00 00 06 08 | " KEY_A, 1336, With(k21, 255)},
    {12, B, KA, &kKind4, 5, "00 05 00 30 00 00 01 08 | " KEY_A " | " T21("04") " | " T28, 324},
    {12, B, KA, &kKind0, 5, "00 05 01 10 00 00 01 08 | " KEY_A
     " | 00 15 01 00 8c 8d 8e 8f 9c 9d ac 00 bc 00 00 00 ff*244",
     560, With(k21, 61)},
    {12, B, KA, &kLong60, 5, "00 05 01 58 00 00 01 08 | " KEY_A " | " T21("01") " | " T23("00 3c",
     "00 00") " | " T24
     " | 00 19 00 f0 00*240"},
    {69, A, KA, &kBare, 5, "00 25 00 38 00 00 01 08 | " KEY_A " | " T21("01") " | " T23("00 03",
     "00 02"), 324},
    {69, A, KA, &kKind5, 5, "00 25 00 24 00 00 01 08 | " KEY_A " | " T21("05"), 324},
    {70, A, KA, &kEmpty0, 5, "00 25 00 48 00 00 02 08 | " KEY_A " | " T21("01") " | " T23("00 00",
     "00 02")
     " | 00 19 00 00 | 00 1a 00 08 91 01 92 02 93 03 94 04", 324},

    {4, R, WA, &kCfgLong, 5, "00 01 00 84 00 00 05 08 | 00 20 00 04 88 99 aa bb | 00 21 00 78 "
     CFG_HEAD " " NAME_CUT " " CFG_TAIL " ff*4"},
    {5, A, WA, nullptr, 5, "00 01 00 08 00 00 07 08 | 00 20 00 04 88 99 aa bb", 140},
    {6, R, WA, &kCfgShort, 5, "00 01 00 80 00 00 06 08 | 00 20 00 04 88 99 aa bb | 00 21 00 74 "
     CFG_HEAD " 65 74 68 30 00*28 " CFG_TAIL, 0, With(k33, 0)},
    {11, B, WA, &kCfgLong, 5, "00 02 01 0c 00 00 06 08 | 00 20 00 04 88 99 aa bb | 00 21 01 00 "
     CFG_HEAD " " NAME_CUT " " CFG_TAIL " ff*140", 0, With(k33, 35)},
    {24, A, KA, &kHost, 5, "00 01 00 40 00 00 01 08 | " HOST_KEY " | 00 27 00 30 " HOST " ff*16"},
    {24, A, KA, &kHost, 5, "00 01 01 10 00 00 01 08 | " HOST_KEY " | 00 27 01 00 " HOST " ff*224",
     0, With(k39, 56)},
    {25, A, KA, nullptr, 5, "00 01 00 0c 00 00 02 08 | " HOST_KEY, 72},
    {50, R, KA, &kAcInfo, 5, "00 16 00 4c 00 00 05 08 | " KEY_A " | 00 16 00 3c " AC_INFO " ff*12",
     92},
    {51, R, KA, nullptr, 5, "00 16 00 0c 00 00 07 08 | " KEY_A, 28},
    {51, R, KA, &kAcInfo, 5, "00 16 01 10 00 00 07 08 | " KEY_A " | 00 16 01 00 " AC_INFO
     " ff*208", 288, With(k22, 52)},

    {29, R, WA, &kAddrParam, 2, "00 01 00 20 00 00 05 08 | " ADDR_PARAM},
    {30, R, WA, &kAddrParam, 2, "00 01 00 20 00 00 07 08 | " ADDR_PARAM},
    {31, B, WA, &kAddrParam, 2, "00 02 00 20 00 00 05 08 | " ADDR_PARAM},
    {34, R, WA, &kAddrSet, 2, "00 01 00 d8 00 00 05 08 | " ADDR_SET},
    {35, R, WA, &kAddrSet, 2, "00 01 00 d8 00 00 07 08 | " ADDR_SET},
    {36, B, WA, &kAddrSet, 2, "00 02 00 d8 00 00 05 08 | " ADDR_SET},
    {60, R, WA, kTriple, 2, "00 1e 00 40 00 00 05 08 | 00 bb 00 3c " IP4 " " IP6
     " 8a 8b ee ef 30 31 32 33 34 35 36 37 38 39 3a 3b 3c 3d 3e 3f"},
    {78, A, WA, &kIp6, 2, "00 28 00 38 00 00 05 08 | 00 e7 00 34 " IP6 " ff*32"},
    {79, A, WA, &kIp6, 2, "00 28 00 38 00 00 07 08 | 00 e7 00 34 " IP6 " ff*32"},
    {52, R, KA, kMac, 3, "00 15 00 16 00 00 05 08 | " KEY_A " | " MAC},
    {53, R, KA, kMac, 3, "00 15 00 16 00 00 07 08 | " KEY_A " | " MAC},
    {66, A, WA, &kData, 2, "00 21 00 34 00 00 05 08 | " DATA},
    {67, A, WA, &kData, 2, "00 21 00 34 00 00 07 08 | " DATA},
    {91, R, WA, &kBlock, 3, "00 01 00 34 00 00 06 08 | 00 ef 00 28 80 81 82 83 84 85 86 87 "
     SEQ_A0_BF
     " | 00 92 00 04 88 99 aa bb"},

    {32, A, WA, kRange, 3,
     "00 01 00 18 00 00 05 08 | 00 78 00 04 88 99 aa bb | 00 79 00 04 c0 c1 c2 c3 | "
     "00 7a 00 04 c4 c5 c6 c7"},
    {32, A, WA, kWords0, 3, "00 01 00 08 00 00 05 08 | 00 78 00 04 88 99 aa bb"},
    {33, A, WA, kWords3, 3,
     "00 01 00 20 00 00 07 08 | 00 78 00 04 88 99 aa bb | 00 7b 00 04 d0 d1 d2 d3 | "
     "00 7b 00 04 d4 d5 d6 d7 | 00 7b 00 04 d8 d9 da db"},
    {33, A, WA, kWords173, 3,
     "00 01 05 70 00 00 07 08 | 00 78 00 04 88 99 aa bb | [00 7b 00 04 e0 e1 e2 e3]*173"},
    {40, A, WA, &kPairExt, 3, "00 02 00 1c 00 00 02 08 | " T141},
    {41, B, WA, &kPairExt, 3, "00 02 00 1c 00 00 01 08 | " T141},
    {47, A, WA, &kPairEntry, 3, "00 01 00 14 00 00 01 08 | " T145},
    {48, A, WA, &kPairEntry, 3, "00 01 00 14 00 00 02 08 | " T145},
    {49, B, WA, &kPairEntry, 3, "00 02 00 14 00 00 01 08 | " T145},
    {54, A, WA, &kTriple3, 2, "00 1d 00 30 00 00 05 08 | " T184},
    {55, A, WA, &kTriple3, 2, "00 1d 00 30 00 00 07 08 | " T184},
    {82, R, WA, &kWordsHalf, 2, "00 29 00 10 00 00 05 08 | " T236},
    {83, R, WA, &kWordsHalf, 2, "00 29 00 10 00 00 07 08 | " T236},
    {84, B, WA, &kWordsHalf, 2, "00 29 00 10 00 00 05 08 | " T236},
};

struct Refusal {
    L2VFIB_CmdId cmd;
    const void *arg1, *arg2;
    L2VFIB_DevCaps caps = kCaps;
};

// Large zeroed records, so that a code refused here reads valid memory
// whatever its encoder would read.
alignas(8) const uint8_t kZeros[512] = {};
#define Z kZeros, kZeros

// Codes without an encoder, codes past the end, and records that no
// message can carry: a kind without its variant record, a count above the
// bound of its item, lists longer than an empty batch.
const Refusal kRefused[] = {
    {0, Z}, {1, Z}, {13, Z}, {14, Z}, {92, Z}, {93, Z}, {255, Z}, {0x10000, Z}, {0xFFFFFFFFu, Z},
    {7, KA, &kNoVariant[0]}, {8, KA, &kNoVariant[1]}, {9, KA, &kNoVariant[2]}, {12, KA,
     &kNoVariant[3]},
    {69, KA, &kFull, With(k21, 62)}, {4, WA, &kCfgLong, With(k33, 36)}, {24, KA, &kHost, With(k39,
     57)},
    {50, KA, &kAcInfo, With(k22, 53)}, {12, KA, &kLong400}, {32, WA, kWords174},
};

// Code 73, queued ahead of the message under test.
const Bytes kQueued = Hex("00 02 00 04 00 00 01 08 | 00 6a 00 00");
const Bytes kResultReply = Hex("00 00 00 08 00 00 00 00 | 00 25 00 04 12 34 56 78");
const Bytes kIdentifierReply = Hex("00 00 00 08 00 00 00 00 | 00 b8 00 04 00 ab cd ef");
const Trace kAnswered = {"socket 41", "connect 41", "setopt 41", "send 41", "recv 41", "close 41"};

class CatalogueCode : public OpenLibraryTest, public ::testing::WithParamInterface<CmdRow> {};

// Every room too small is refused, by the catalogue, the encoder's own room
// test or the codec, before anything is written; so is a null record the
// encoder reads.
TEST_P(CatalogueCode, EncodeCmdBuildsTheMessageWithinItsRoomOnly) {
    const CmdRow &row = GetParam();
    l2vfib_Caps = row.caps;
    const Bytes expected = Hex(row.message);
    const size_t size = expected.size(), fits = std::max<size_t>(size, row.fits);
    // The first 100 bytes are the whole buffer, but for the largest room.
    auto check = [&](size_t room, const void *arg1, const void *arg2, bool builds) {
        Bytes buf = Canary(room + 16);
        EXPECT_EQ(l2vfib_EncodeCmd(row.cmd, arg1, arg2, static_cast<uint16_t>(room), buf.data()),
                  builds ? size : 0) << "room " << room;
        EXPECT_EQ(ToHex(buf, 100),
                  ToHex(builds ? expected + Canary(room + 16 - size) : Canary(room + 16), 100))
            << "room " << room;
    };
    for (size_t room = 0; room <= fits + 1; ++room) check(room, row.arg1, row.arg2, room >= fits);
    check(0xFFFF, row.arg1, row.arg2, true);
    check(L2VFIB_BATCH_SIZE, nullptr, row.arg2, !(row.reads & 1));
    if (!(row.reads & 4)) check(L2VFIB_BATCH_SIZE, row.arg1, nullptr, !(row.reads & 2));
}

// Batch 1 queues every code; other batch values take the code's own path.
// A queued message goes behind the queue (or, too large for the room left,
// into the area the queue's flush empties); one sent at once leaves it
// alone.
TEST_P(CatalogueCode, TakesEachOfItsPathsAndTheIdentifierRequest) {
    const CmdRow &row = GetParam();
    l2vfib_Caps = row.caps;
    const Bytes expected = Hex(row.message);
    const bool behind = std::max<size_t>(expected.size(), row.fits) + kQueued.size() <=
     L2VFIB_BATCH_SIZE;
    for (uint32_t batch : {1u, 0u, 2u}) {
        SCOPED_TRACE(testing::Message() << "batch " << batch);
        ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
        P().ClearRecords();
        P().nextFd = 41;
        P().recvResults = {fake::RecvResult::Datagram(kResultReply)};
        const bool queued = batch == 1 || row.path == B, answered = !queued && row.path == R;
        EXPECT_EQ(L2VFIB_Send_Cfg(fd_, row.cmd, batch, row.arg1, row.arg2),
                  answered ? 0x12345678u : L2VFIB_OK);
        if (queued) {
            EXPECT_EQ(P().trace, behind ? Trace{} : Trace{"send 40"});
            EXPECT_EQ(ToHex(Queued()), ToHex(behind ? kQueued + expected : expected));
        } else {
            EXPECT_EQ(P().trace, answered ? kAnswered : Trace{"send 40"});
            ASSERT_EQ(P().sends.size(), 1u);
            EXPECT_EQ(ToHex(P().sends[0].data), ToHex(expected));
            EXPECT_EQ(P().sends[0].flags, answered ? MSG_DONTWAIT : 0);
            EXPECT_EQ(Queued(), kQueued);
        }
        ASSERT_EQ(L2VFIB_FlushEntry(fd_), L2VFIB_OK);
    }
    P().ClearRecords();
    P().nextFd = 41;
    P().recvResults = {fake::RecvResult::Datagram(kIdentifierReply)};
    EXPECT_EQ(L2VFIB_AllocECID(row.cmd, row.arg1, row.arg2), 0x00abcdef);
    EXPECT_EQ(P().trace, kAnswered);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(ToHex(P().sends[0].data), ToHex(expected));
}

INSTANTIATE_TEST_SUITE_P(ScalarCodes, CatalogueCode, ::testing::ValuesIn(kRows),
                         [](const auto &info) { return "Cmd" + std::to_string(info.param.cmd); });
INSTANTIATE_TEST_SUITE_P(RecordCodes, CatalogueCode, ::testing::ValuesIn(kRecordRows),
                         [](const auto &info) {
                             return "Cmd" + std::to_string(info.param.cmd) + "_" +
                                    std::to_string(info.index);
                         });

class RefusedCode : public OpenLibraryTest, public ::testing::WithParamInterface<Refusal> {};

// With batch 1 the refusal first sends what is queued, then fails in the
// empty area.
TEST_P(RefusedCode, NothingIsWrittenOrSent) {
    const Refusal &row = GetParam();
    const L2VFIB_CmdId cmd = row.cmd;
    l2vfib_Caps = row.caps;
    Bytes buf = Canary(L2VFIB_BATCH_SIZE);
    EXPECT_EQ(l2vfib_EncodeCmd(cmd, row.arg1, row.arg2, L2VFIB_BATCH_SIZE, buf.data()), 0);
    EXPECT_EQ(buf, Canary(L2VFIB_BATCH_SIZE));
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, cmd, 0, row.arg1, row.arg2), L2VFIB_ERR_FAIL);
    EXPECT_EQ(L2VFIB_AllocECID(cmd, row.arg1, row.arg2), -1);
    EXPECT_TRUE(P().trace.empty());

    ASSERT_EQ(L2VFIB_Send_Cfg(fd_, 73, 1, nullptr, nullptr), L2VFIB_OK);
    EXPECT_EQ(L2VFIB_Send_Cfg(fd_, cmd, 1, row.arg1, row.arg2), L2VFIB_ERR_FAIL);
    ASSERT_EQ(P().sends.size(), 1u);
    EXPECT_EQ(P().sends[0].data, kQueued);
    EXPECT_EQ(Used(), 0);
    EXPECT_EQ(Area(), Bytes(L2VFIB_BATCH_SIZE, 0));
}

INSTANTIATE_TEST_SUITE_P(Codes, RefusedCode, ::testing::ValuesIn(kRefused));

}  // namespace
