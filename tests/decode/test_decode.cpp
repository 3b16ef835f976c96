// The message decoder: one row per datagram (or control call input or
// answer), written by hand from the wire formats, with the trace lines it
// must print (one per message) and the first fault it must report. Numbers are chosen so that a field read at
// the wrong offset, width or byte order prints something else. (Items the
// emulated device's tables show field by field, from the library's own
// messages, appear here where a fault row or a trace line needs them.)
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "l2vfib_decode.h"

namespace dec = l2vfib::decode;
using dec::Channel;
using dec::Errc;

namespace {

constexpr Channel S = Channel::kToService, FS = Channel::kFromService, E = Channel::kToEvent,
                  FE = Channel::kFromEvent;
constexpr Errc OK = Errc::kOk;

struct Row {
    Channel channel;
    const char *hex;
    Errc error;
    const char *lines;     // '\n' between messages
    uint32_t control = 0;  // a control call's code: its input (S) or answer (FS)
};

#define FF8 "ff ff ff ff ff ff ff ff "
#define FF32 FF8 FF8 FF8 FF8
#define KEY7 "00 00 00 07 00 01 00 00"
#define DE24 "de de de de de de de de de de de de de de de de de de de de de de de de"
#define DE32 DE24 " de de de de de de de de"
#define Z12 "00 00 00 00 00 00 00 00 00 00 00 00"
#define PEER0 Z12 " " Z12
#define NOPEER(i) " peers." #i ".ip.family 0 peers." #i ".ip.addr :: peers." #i ".word0 0"

const Row kRows[] = {
    // Forwarding entries, batched.
    {S, "00 03 00 0c 00 00 07 03 | 00 0a 00 08 " KEY7 " || 00 06 00 0c 00 00 07 00 | 00 14 00 08 00 00 00 09 00 02 00 00",
     OK, "pw del id 7 subId 1 byte7 3\nac del id 9 subId 2"},
    {S, "00 0c 00 7c 00 00 06 02 | 00 28 00 08 " KEY7
        " | 00 29 00 40 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 02 00 00 00 05"
        " 00 11 22 33 44 55 66 77 88 99 aa bb 02 00 00 00 00 01 00 00 " DE24
        " | 00 2a 00 18 00 00 00 01 11 11 11 11 11 11 11 11 00 00 00 02 22 22 22 22 22 22 22 22"
        " | 00 2b 00 0c 00 00 00 03 33 33 33 33 33 33 33 33",
     OK,
     "minm op 6 id 7 subId 1 byte7 2 | 41 word0 1 word1 2 word2 3 memberCount 2 word4 5 mac.0 00:11:22:33:44:55 "
     "mac.1 66:77:88:99:aa:bb mac.2 02:00:00:00:00:01 opaque dededededededededededededededededededededededede | "
     "42 members.0.word0 1 members.0.data 1111111111111111 members.1.word0 2 members.1.data 2222222222222222 | "
     "43 word0 3 data 3333333333333333"},
    {S, "00 06 00 50 00 00 05 00 | 00 14 00 08 00 00 00 09 00 02 00 00"
        " | 00 16 00 34 00 01 00 00 00 00 00 02 03 00 00 00 00 00 00 04 00 00 00 00 00 00 00 00"
        " 11 22 33 44 55 66 77 88 00 00 00 05 00 00 00 00 00 06 00 07 00 00 00 00 ff ff ff ff"
        " | 00 90 00 08 00 0a 00 0b 00 0c 00 0d",
     OK,
     "ac add id 9 subId 2 | 22 half0 1 word0 2 byte0 3 word1 4 attr64 1234605616436508552 word2 5 half1 6 "
     "half2 7 fill 1 | 144 half0 10 half1 11 half2 12 half3 13"},
    {S, "00 09 00 0c 00 00 00 08 | 00 0a 00 08 " KEY7, OK, "mac-withdraw id 7 subId 1"},
    {S, "00 07 00 00 00 00 04 08", OK, "gr-event 4"},
    {S, "00 10 00 04 00 03 11 00 00 00 00 00 | 00 0d 00 00", OK, "ac-flag 1 tag 3 | 13"},
    {S, "00 11 00 08 00 20 12 00 00 00 00 00 | 00 01 00 00 | 00 14 00 00", OK, "ac-data query tag 32 | 1 | 20"},
    // Overlay tunnels and EBG.
    {S, "00 12 00 0c 00 00 07 07 | 00 46 00 08 00 00 00 01 00 00 00 02", OK, "tunnel del word0 1 word1 2 byte7 7"},
    {S, "00 12 00 08 00 00 0a 07 | 00 48 00 04 00 00 01 05", OK, "tunnel-if del ifIndex 261 byte7 7"},
    {S, "00 20 00 18 00 00 05 08 | 00 9a 00 04 00 00 00 2a | 00 9c 00 04 00 00 00 01 | 00 9c 00 04 00 00 00 02",
     OK, "ebg-member add ebgId 42 byte7 8 | 156 member 1 | 156 member 2"},
    {S, "00 23 00 20 00 00 07 08 | 00 ca 00 0c 00 00 00 0a 00 00 00 14 ff ff ff ff"
        " | 00 cc 00 0c 00 00 00 01 00 00 00 02 00 00 00 03",
     OK, "mpls-ebg-member del word0 10 word1 20 byte7 8 | 204 word0 1 word1 2 word2 3"},
    {S, "00 1f 00 14 00 00 05 08 | 00 99 00 10 00 00 00 01 00 00 00 02 00 00 00 03 00 00 00 04", OK,
     "ebg-df add word0 1 word1 2 word2 3 word3 4 byte7 8"},
    // Catalogue: codes sharing object type and opcode are told by their items.
    {S, "00 00 00 08 00 00 00 08 | 00 1f 00 04 00 00 00 05", OK, "cfg 2/3/10 | 31 value 5"},
    {S, "00 01 00 34 00 00 01 08 | 00 26 00 08 " KEY7
        " | 00 27 00 24 00 02 00 00 0a 00 00 01 00 00 00 00 00 00 00 00 00 00 00 00"
        " 00 11 22 33 44 55 00 06 00 07 00 00 ff ff ff ff",
     OK, "cfg 24 id 7 subId 1 | 39 ip.family 2 ip.addr 10.0.0.1 mac 00:11:22:33:44:55 half0 6 half1 7 fill 1"},
    {S, "00 04 00 38 00 00 01 08 | 00 14 00 08 " KEY7 " | 00 15 00 0c 00 00 00 01 00 02 03 01 04 00 00 00"
        " | 00 17 00 10 00 00 00 05 00 06 00 07 00 01 00 08 00 09 00 00 | 00 19 00 04 00 0a 00 0b",
     OK,
     "cfg 7 id 7 subId 1 | 21 word0 1 half0 2 byte0 3 kind 1 byte1 4 fill 0 | 23 word0 5 half0 6 half1 7 "
     "count0 1 half2 8 half3 9 count1 0 | 25 pairs.0.half0 10 pairs.0.half1 11"},
    {S, "00 01 00 18 00 00 05 08 | 00 78 00 04 00 00 00 03 | 00 7b 00 04 00 00 00 0a | 00 7b 00 04 00 00 00 0b", OK,
     "cfg 32 value 3 | 123 value 10 | 123 value 11"},
    {S, "00 01 00 20 00 00 05 08 | 00 67 00 1c 00 0a 12 34 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01"
        " 00 00 00 05 00 06 00 00",
     OK, "cfg 29 | 103 ip.family 10 ip.reserved 4660 ip.addr 2001:db8::1 word0 5 half0 6"},
    {S, "00 29 00 10 00 00 05 08 | 00 ec 00 0c 00 00 00 01 00 00 00 02 00 03 00 00", OK,
     "cfg 82/84 | 236 word0 1 word1 2 half0 3"},
    {S, "00 0e 00 0c 00 00 17 05 | 00 46 00 08 00 00 00 01 00 00 00 02", OK, "cfg 80 word0 1 word1 2"},
    {S, "00 01 00 08 00 00 17 08 | 00 20 00 04 00 00 00 05", OK, "cfg 21 value 5"},
    // Address and record items.
    {S, "00 1e 00 40 00 00 05 08 | 00 bb 00 3c 00 02 00 00 0a 00 00 01 " Z12
        " 00 0a 00 01 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 02 ab cd c0 a8 00 01 " Z12,
     OK,
     "cfg 60 | 187 ip0.family 2 ip0.reserved 0 ip0.addr 10.0.0.1 ip1.family 10 ip1.reserved 1 ip1.addr fe80::1 "
     "ip2.family 2 ip2.reserved 43981 ip2.addr 192.168.0.1"},
    {S, "00 01 00 d8 00 00 05 08 | 00 70 00 d4 00 02 00 00 0a 00 00 01 " Z12
        " 00 0a 00 00 20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 02 00 00 00 05 " PEER0 " " PEER0 " " PEER0 " " PEER0
        " " PEER0 " " PEER0 " " PEER0,
     OK,
     "cfg 34 | 112 ip.family 2 ip.addr 10.0.0.1 peers.0.ip.family 10 peers.0.ip.addr 2001:db8::2 peers.0.word0 5"
     NOPEER(1) NOPEER(2) NOPEER(3) NOPEER(4) NOPEER(5) NOPEER(6) NOPEER(7)},
    {S, "00 28 00 38 00 00 05 08 | 00 e7 00 34 00 02 00 00 0a 00 00 01 " Z12 " " FF32, OK,
     "cfg 78 | 231 ip.family 2 ip.reserved 0 ip.addr 10.0.0.1"},
    {S, "00 21 00 34 00 00 05 08 | 00 c9 00 30 00 00 00 01 00 00 00 02 00 00 00 03 04 05 12 34 " DE32, OK,
     "cfg 66 | 201 word0 1 word1 2 word2 3 byte0 4 byte1 5 pair 1234 data "
     "dededededededededededededededededededededededededededededededede"},
    {S, "00 01 00 34 00 00 06 08 | 00 ef 00 28 00 00 00 01 00 00 00 02 " DE32 " | 00 92 00 04 00 00 00 09", OK,
     "cfg 91 value 9 | 239 word0 1 word1 2 data dededededededededededededededededededededededededededededededede"},
    {S, "00 1d 00 30 00 00 05 08 | 00 b8 00 2c 00 00 00 01 00 00 00 02 00 00 00 03 " FF32, OK,
     "cfg 54 | 184 word0 1 word1 2 word2 3"},
    {S, "00 02 00 1c 00 00 01 08 | 00 8d 00 10 00 00 00 01 00 02 00 03 00 00 00 04 00 00 00 00"
        " | 00 8e 00 04 00 00 00 09",
     OK, "cfg 41 value 9 | 141 word0 1 half0 2 half1 3 word1 4"},
    {S, "00 01 00 0c 00 00 17 08 | 00 0a 00 08 " KEY7, OK, "cfg 22 id 7 subId 1"},
    // Codes of one first item are told apart by the items that follow it.
    {S, "00 1c 00 0c 00 00 01 08 | 00 b5 00 04 00 00 00 01 | 00 b7 00 00", OK, "cfg 44 value 1 | 183"},
    {S, "00 06 00 0c 00 00 17 08 | 00 14 00 08 " KEY7, OK, "cfg 23 id 7 subId 1"},
    {S, "00 01 00 80 00 00 05 08 | 00 20 00 04 00 00 00 01 | 00 21 00 74 00 00 00 01 00 00 00 02 00 00 00 03"
        " 00 04 05 06 00 00 00 07 65 74 68 30 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
        " 00 00 00 00 00 00 00 00 00 00 00 08 00 00 00 09 00 0a 00 00 00 00 00 0b 00 00 00 0c"
        " 00 00 00 0d 00 00 00 0e 00 00 00 0f 00 00 00 10 00 00 00 11 00 00 00 12 00 00 00 00 00 00 00 00"
        " 00 00 00 13 00 00 00 14 00 00 00 15",
     OK,
     "cfg 4 value 1 | 33 word0 1 word1 2 word2 3 half0 4 byte0 5 byte1 6 word3 7 name \"eth0\" word4 8 word5 9 "
     "half1 10 words.0 11 words.1 12 words.2 13 words.3 14 words.4 15 words.5 16 words.6 17 words.7 18 word6 19 "
     "word7 20 word8 21 fill 0"},
    // Replies, notices and the AC data answer.
    {FS, "00 01 00 08 00 00 01 08 | 00 25 00 04 40 01 00 01", OK, "reply result | 37 result 1073807361"},
    {FS, "00 1d 00 08 00 00 05 08 | 00 b8 00 04 00 00 12 34", OK, "reply id | 184 id 4660"},
    {FS, "00 00 00 08 00 00 00 00 | 00 24 00 04 00 00 00 07", OK, "notice | 36 value 7"},
    {FS, "00 11 00 34 00 20 12 00 00 00 00 00 | 00 11 00 2c 00 00 12 00 | 00 01 00 04 00 00 00 02"
         " | 00 14 00 20 00 00 00 01 00 02 03 04 00 05 00 06 00 00 00 07 00 00 00 0b 00 0c 0d 0e 00 0f 00 10 00 00 00 11",
     OK,
     "ac-data answer tag 32 | 1 count 2 | 20 e.0.word0 1 e.0.half0 2 e.0.byte0 3 e.0.byte1 4 e.0.half1 5 "
     "e.0.half2 6 e.0.word1 7 e.1.word0 11 e.1.half0 12 e.1.byte0 13 e.1.byte1 14 e.1.half1 15 e.1.half2 16 "
     "e.1.word1 17"},
    {FS, "00 11 00 10 00 20 12 00 00 00 00 00 | 00 11 00 08 00 00 12 00 | 00 01 00 04 00 00 00 00", OK,
     "ac-data answer tag 32 | 1 count 0"},
    {FS, "00 11 00 28 00 20 12 00 00 00 00 00 | 00 11 00 20 00 00 12 00 | 00 01 00 04 00 00 00 01"
         " | 00 14 00 14 00 00 00 01 00 02 03 04 00 05 00 06 00 00 00 07 aa bb cc dd",
     OK,
     "ac-data answer tag 32 | 1 count 1 | 20 e.0.word0 1 e.0.half0 2 e.0.byte0 3 e.0.byte1 4 e.0.half1 5 "
     "e.0.half2 6 e.0.word1 7 e.0.rest aabbccdd"},
    // The event channel, both ways.
    {E, "00 14 00 20 00 00 05 00 | 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 10 10 00 03"
        " | 00 04 00 08 00 00 00 09 10 10 00 03",
     OK,
     "evt-reg add | 1 selector.0 4294967295 selector.1 0 selector.2 0 eventMask 4112 extra16 3 | 4 eventParam 9 "
     "eventMask 4112 extra16 3"},
    {FE, "00 14 00 1f 01 02 05 00 | 00 03 00 06 00 00 00 01 00 02 | 00 09 00 01 ab"
         " | 00 02 00 0c 00 00 00 05 00 00 00 06 5d 00 00 07",
     OK,
     "event tag 258 | 3 word0 1 word1 131072 half0 0 raw0 0000 | 9 ab | 2 word0 5 word1 6 kind 93 raw0 00 half0 7 "
     "word2 0 word3 0 word4 0 half1 0 raw1 0000 word5 0 word6 0 raw2 00000000 word7 0 word8 0"},
    {FE, "00 14 00 10 00 07 00 00 | 00 02 00 0c 00 00 00 05 00 00 00 06 00 00 00 07", OK,
     "event tag 7 | 2 word0 5 word1 6 kind 0 raw0 00 half0 7 word2 0 word3 0 word4 0 half1 0 raw1 0000 "
     "word5 00000000 word6 00000000 raw2 00000000 word7 00000000 word8 00000000"},

    // Faults in the framing end the split; the messages before them stay.
    {S, "", Errc::kShortHeader, "error: empty datagram at offset 0"},
    {S, "00 01 00 08 00 00 01 08 | 00 64 00 04 00 00 00 07 | 00 01 00 08 00", Errc::kShortHeader,
     "cfg 18 value 7\nerror: short header: 5 bytes at offset 16"},
    {S, "00 01 00 0c 00 00 01 08 | 00 64 00 04 00 00 00 07", Errc::kLengthPastEnd,
     "error: length 12 past datagram end 16 at offset 2"},
    {S, "00 10 00 04 00 03 11 00 00 00 00", Errc::kShortHeader, "error: short header: 11 bytes at offset 0"},
    {FS, "00 11 00 0c 00 20 12 00 00 00 00 00 | 00 11 00 08 00 00 12 00 | 00 01 00 00", Errc::kLengthPastEnd,
     "type 17 op 18 tag 32 ! length 8 past answer end 4 at offset 14"},
    // Faults inside a message mark it; the next message is still read.
    {S, "00 03 00 0c 00 00 07 03 | 00 0a 00 09 " KEY7, Errc::kTruncatedItem,
     "type 3 op 7 ! truncated item at offset 8: item 10 length 9 past payload end 20"},
    {S, "00 01 00 0b 00 00 01 08 | 00 64 00 04 00 00 00 07 | 00 64 00", Errc::kTruncatedItem,
     "type 1 op 1 | 100 00000007 ! truncated item at offset 16"},
    {S, "00 63 00 00 00 00 05 00 || 00 01 00 08 00 00 01 08 | 00 64 00 04 00 00 00 07", Errc::kUnknownObjectType,
     "type 99 op 5 ! unknown object type 99 at offset 0\ncfg 18 value 7"},
    {S, "00 03 00 0c 00 00 06 03 | 00 0a 00 08 " KEY7, Errc::kUnknownOpcode,
     "type 3 op 6 | 10 0000000700010000 ! unknown opcode 6 for object type 3 at offset 6"},
    {S, "00 03 00 00 00 00 07 03", Errc::kMissingItem, "pw del byte7 3 ! missing item 10 in pw del at offset 0"},
    {S, "00 01 00 00 00 00 17 08", Errc::kMissingItem,
     "cfg type 1 op 23 ! missing item 10 or 32 in cfg type 1 op 23 at offset 0"},
    {FS, "00 01 00 00 00 00 01 08", Errc::kMissingItem, "reply ! missing item 36, 37 or 184 in reply at offset 0"},
    {S, "00 0c 00 50 00 00 05 02 | 00 28 00 08 " KEY7 " | 00 29 00 40 00 00 00 01 00 00 00 02 00 00 00 03"
        " 00 00 00 02 00 00 00 05 00 11 22 33 44 55 66 77 88 99 aa bb 02 00 00 00 00 01 00 00 " DE24,
     Errc::kMissingItem,
     "minm add id 7 subId 1 byte7 2 | 41 word0 1 word1 2 word2 3 memberCount 2 word4 5 mac.0 00:11:22:33:44:55 "
     "mac.1 66:77:88:99:aa:bb mac.2 02:00:00:00:00:01 opaque dededededededededededededededededededededededede "
     "! missing item 42 in minm add at offset 0"},
    {E, "00 14 00 14 00 00 05 00 | 00 01 00 10 ff ff ff ff 00 00 00 00 00 00 00 00 10 10 00 03", Errc::kMissingItem,
     "evt-reg add | 1 selector.0 4294967295 selector.1 0 selector.2 0 eventMask 4112 extra16 3 "
     "! missing item 4 in evt-reg add with mask 0x1010 at offset 0"},
    {FE, "00 14 00 08 00 00 00 00 | 00 07 00 04 00 00 00 01", Errc::kMissingItem,
     "event tag 0 | 7 00000001 ! missing item 2, 3 or 6 in event at offset 0"},
    {S, "00 06 00 18 00 00 07 00 | 00 14 00 08 " KEY7 " | 00 90 00 08 00 01 00 02 00 03 00 04",
     Errc::kUnexpectedItem, "ac del id 7 subId 1 | 144 0001000200030004 ! unexpected item 144 in ac del at offset 20"},
    {S, "00 01 00 08 00 00 01 08 | 00 1f 00 04 00 00 00 05", Errc::kUnexpectedItem,
     "cfg type 1 op 1 | 31 00000005 ! unexpected item 31 in cfg type 1 op 1 at offset 8"},
    {FS, "00 01 00 08 00 00 01 08 | 00 26 00 04 00 00 00 00", Errc::kUnexpectedItem,
     "reply | 38 00000000 ! unexpected item 38 in reply at offset 8"},
    {S, "00 09 00 0a 00 00 00 08 | 00 0a 00 06 00 00 00 07 00 01", Errc::kBadItemLength,
     "mac-withdraw | 10 000000070001 ! item 10 length 6 (expected 8) at offset 8"},
    {S, "00 03 00 24 00 00 05 03 | 00 0a 00 08 " KEY7 " | 00 0d 00 14 " FF8 FF8 "ff ff ff ff", Errc::kBadItemLength,
     "pw add id 7 subId 1 byte7 3 | 13 ffffffffffffffffffffffffffffffffffffffff "
     "! item 13 length 20 (expected 28 + 4n) at offset 20"},
    {S, "00 0e 00 40 00 00 05 05 | 00 46 00 08 00 00 00 01 00 00 00 02"
        " | 00 47 00 30 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 " FF8 FF8 FF8 "ff ff ff ff ff ff ff fe",
     Errc::kBadValue,
     "tunnel add word0 1 word1 2 byte7 5 | 71 word0 3 word1 4 word2 5 word3 6 ! byte fe not ff in item 71 at offset 71"},
    {S, "00 03 00 0c 00 00 07 03 | 00 0a 00 08 00 00 00 07 00 01 00 01", Errc::kBadValue,
     "pw del id 7 subId 1 byte7 3 ! byte 01 not 00 in item 10 at offset 19"},
    {S, "00 0e 00 0c 00 00 07 07 | 00 46 00 08 00 00 00 01 00 00 00 02", Errc::kBadValue,
     "tunnel del byte7 7 | 70 0000000100000002 ! byte7 7 with object type 14 at offset 7"},
    {S, "00 01 00 08 00 00 01 09 | 00 64 00 04 00 00 00 07", Errc::kBadValue,
     "cfg 18 | 100 00000007 ! byte7 9 in cfg 18, not 8, at offset 7"},
    {S, "00 07 00 00 00 05 03 08", Errc::kBadValue, "type 7 op 3 tag 5 ! tag 5 not 0 at offset 4"},
    {S, "00 10 00 04 00 03 11 01 00 00 00 00 | 00 0d 00 00", Errc::kBadValue,
     "type 16 op 17 tag 3 | 13 ! byte7 1 not 0 at offset 7"},
    {S, "00 07 00 00 00 00 03 05", Errc::kBadValue, "gr-event 3 ! byte7 5 in gr-event 3, not 8, at offset 7"},
    {E, "00 15 00 00 00 00 05 00", Errc::kUnknownObjectType, "type 21 op 5 ! unknown object type 21 at offset 0"},
    {FS, "00 00 00 10 00 00 00 00 | 00 24 00 04 00 00 00 07 | 00 25 00 04 00 00 00 00", Errc::kUnexpectedItem,
     "notice | 36 value 7 | 37 00000000 ! unexpected item 37 in notice at offset 16"},
    {FS, "00 11 00 19 00 20 12 00 00 00 00 00 | 00 11 00 11 00 00 12 00 | 00 01 00 04 00 00 00 02"
         " | 00 14 00 05 00 00 00 01 00",
     Errc::kBadItemLength,
     "ac-data answer tag 32 | 1 count 2 | 20 0000000100 ! entry item length 5 not a multiple of count 2 at offset 28"},
    // Items that contradict each other.
    {S, "00 04 00 28 00 00 02 08 | 00 14 00 08 " KEY7 " | 00 15 00 0c 00 00 00 01 00 02 03 02 04 00 00 00"
        " | 00 1c 00 08 00 05 00 00 00 00 00 06",
     Errc::kBadValue,
     "cfg 8 id 7 subId 1 | 21 word0 1 half0 2 byte0 3 kind 2 byte1 4 fill 0 | 28 half0 5 word0 6 "
     "! item 28 with kind 2 in cfg 8 at offset 0"},
    {S, "00 04 00 38 00 00 01 08 | 00 14 00 08 " KEY7 " | 00 15 00 0c 00 00 00 01 00 02 03 01 04 00 00 00"
        " | 00 17 00 10 00 00 00 05 00 06 00 07 00 02 00 08 00 09 00 00 | 00 19 00 04 00 0a 00 0b",
     Errc::kBadValue,
     "cfg 7 id 7 subId 1 | 21 word0 1 half0 2 byte0 3 kind 1 byte1 4 fill 0 | 23 word0 5 half0 6 half1 7 "
     "count0 2 half2 8 half3 9 count1 0 | 25 pairs.0.half0 10 pairs.0.half1 11 "
     "! item 25 holds 1 pairs but count0 is 2 in cfg 7 at offset 0"},
    {S, "00 01 00 10 00 00 07 08 | 00 78 00 04 00 00 00 03 | 00 79 00 04 00 00 00 0a", Errc::kBadValue,
     "cfg 33 value 3 | 121 value 10 ! a range and a list mixed in cfg 33 at offset 0"},
    // Control calls.
    {S, "00 0a 00 08 00 00 01 08 | 00 22 00 04 00 00 01 02", OK, "mac-reset | 34 value 258", 0x440003},
    {S, "00 07 00 00 00 00 04 08", Errc::kUnexpectedItem, "gr-event 4\nerror: not one mac-reset message at offset 0",
     0x440003},
    {S, "00 00 00 05", OK, "start value 5", 0x440005},
    {S, "00 00 00 01", Errc::kBadValue, "stop 00000001 ! stop input not zero at offset 0", 0x440006},
    {S, "0a 0b", OK, "vlan-range data 0a0b", 0x44000c},
    {FS, "00 00 00 00 00 00 00 00 04 02 05 06 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"
         " 00 00 00 00 00 00 00 00 03",
     OK, "caps fillWords13 2 fillWords21 5 fillWords22 4 fillWords33 6 fillWords39 3", 0x440002},
    {S, "", OK, "caps-query", 0x440002},
    {S, "00", Errc::kBadItemLength, "caps-query 00 ! caps-query length 1 (expected 0) at offset 0", 0x440002},
    {FS, "00 00 00 00", Errc::kBadItemLength, "caps 00000000 ! caps length 4 (expected at least 41) at offset 0",
     0x440002},
    {S, "", Errc::kUnknownOpcode, "control 0x440009 ! unknown control code 0x440009 at offset 0", 0x440009},
};

std::string Lines(const dec::Decoded &d) {
    std::string out;
    for (const std::string &line : dec::RenderLines(d)) out += (out.empty() ? "" : "\n") + line;
    return out;
}

class DecodeRow : public ::testing::TestWithParam<Row> {};

TEST_P(DecodeRow, PrintsEachMessageAndTheFirstFault) {
    const Row &row = GetParam();
    const auto bytes = dec::ParseHex(row.hex);
    ASSERT_TRUE(bytes.has_value());
    const dec::Decoded d = row.control != 0 ? dec::DecodeControl(row.control, *bytes, row.channel == FS)
                                            : dec::Decode(*bytes, row.channel);
    EXPECT_EQ(Lines(d), row.lines);
    EXPECT_EQ(dec::ErrcName(d.error.code), dec::ErrcName(row.error));
}

INSTANTIATE_TEST_SUITE_P(Datagrams, DecodeRow, ::testing::ValuesIn(kRows));

// The channel word travels in the host's order; the row is the host's own.
TEST(Decode, ChannelWordIsInHostOrder) {
    const uint32_t word = 0x01020304;
    std::vector<uint8_t> d = *dec::ParseHex("00 14 00 08 00 00 07 00 | 00 00 00 04");
    const auto *p = reinterpret_cast<const uint8_t *>(&word);
    d.insert(d.end(), p, p + 4);
    EXPECT_EQ(Lines(dec::Decode(d, E)), "evt-channel close | 0 word 16909060");
}

// What an emulated table reads: kind, codes, key and item fields by name.
TEST(Decode, JsonCarriesWhatATableNeeds) {
    const auto d = dec::Decode(*dec::ParseHex("00 29 00 10 00 00 05 08 | 00 ec 00 0c 00 00 00 01 00 00 00 02 00 03 00 00"),
                               S);
    ASSERT_EQ(d.messages.size(), 1u);
    const auto j = dec::ToJson(d.messages[0]);
    EXPECT_EQ(j["kind"], "cfg");
    EXPECT_EQ(j["codes"], nlohmann::json({82, 84}));
    EXPECT_EQ(j["answered"], true);
    EXPECT_EQ(j["items"][0]["fields"]["half0"], 3);
    EXPECT_EQ(j["items"][0]["value"], "000000010000000200030000");

    const auto pw = dec::ToJson(dec::Decode(*dec::ParseHex("00 03 00 0c 00 00 07 03 | 00 0a 00 08 " KEY7), S));
    EXPECT_EQ(pw["messages"][0]["key"], nlohmann::json({{"id", 7}, {"subId", 1}}));
    EXPECT_FALSE(pw.contains("error"));
}

TEST(Decode, ParseHexTakesPairsAndSeparatorsOnly) {
    EXPECT_EQ(dec::ParseHex("0a:0B | ff\n00"), (std::vector<uint8_t>{0x0a, 0x0b, 0xff, 0x00}));
    for (const char *bad : {"0", "0 a", "0g", "0x01"}) EXPECT_FALSE(dec::ParseHex(bad).has_value()) << bad;
}

}  // namespace
