// The format tables (internal.h): every message format the services
// exchange, as rows. The decoder reads messages by them (decode.cpp), and
// lua_tables.cpp writes them out as the Wireshark dissector's tables, so a
// format changed here changes in every reader.
#include <algorithm>
#include <array>

#include "internal.h"

namespace l2vfib::decode::detail {

namespace {

constexpr Channel S = Channel::kToService, FS = Channel::kFromService, E = Channel::kToEvent,
                  FE = Channel::kFromEvent;
constexpr Family kEnt = Family::kEntry, kReg = Family::kEventReg, kRep = Family::kReply;

constexpr const char *kKey = "id:u32 subId:u16 -2";
constexpr const char *kWord = "value:u32";
constexpr const char *kHalf = "value:u16";
constexpr const char *kPairs = "pairs[half0:u16 half1:u16]*";

// Item layouts by family and type, one line of tokens each (internal.h).
constexpr ItemLayout kItemLayouts[] = {
    {kEnt, 10, kKey}, {kEnt, 20, kKey}, {kEnt, 38, kKey}, {kEnt, 40, kKey},
    {kEnt, 12, "sub[word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word3:u32]*"},
    {kEnt, 13, "attr64[:u64]2 attr32:u32 attr16[:u16]3 attr8:u8 -1 fill:ff"},
    {kEnt, 21, "word0:u32 half0:u16 byte0:u8 kind:u8 byte1:u8 -3 fill:ff"},
    {kEnt, 22, "half0:u16 -2 word0:u32 byte0:u8 -3 word1:u32 -8 attr64:u64 word2:u32 -4 half1:u16 half2:u16 -4 "
               "fill:ff"},
    {kEnt, 23, "word0:u32 half0:u16 half1:u16 count0:u16 half2:u16 half3:u16 count1:u16"},
    {kEnt, 24, "word0:u32 half0:u16 -2 sub[word0:u32 half0:u16 half1:u16 half2:u16 half3:u16 half4:u16 half5:u16]2"},
    {kEnt, 25, kPairs}, {kEnt, 26, kPairs},
    {kEnt, 27, "word0:u32 word1:u32 half0:u16 byte0:u8 -1"},
    {kEnt, 28, "half0:u16 -2 word0:u32"},
    {kEnt, 29, "mac:mac"},
    {kEnt, 33, "word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 word3:u32 name:str32 "
               "word4:u32 word5:u32 half1:u16 -2 words[:u32]8 -8 word6:u32 word7:u32 word8:u32 fill:ff"},
    {kEnt, 39, "ip:addrz mac:mac half0:u16 half1:u16 -2 fill:ff"},
    {kEnt, 41, "word0:u32 word1:u32 word2:u32 memberCount:u32 word4:u32 mac[:mac]3 -2 opaque:hex24"},
    {kEnt, 42, "members[word0:u32 data:hex8]*"},
    {kEnt, 43, "word0:u32 data:hex8"},
    {kEnt, 70, "word0:u32 word1:u32"},
    {kEnt, 71, "word0:u32 word1:u32 word2:u32 word3:u32 ff32"},
    {kEnt, 72, "ifIndex:u32"},
    {kEnt, 83, "-2 value:u16"},
    {kEnt, 103, "ip:addr word0:u32 half0:u16 -2"},
    {kEnt, 105, ""}, {kEnt, 106, ""}, {kEnt, 182, ""}, {kEnt, 183, ""}, {kEnt, 186, ""},
    {kEnt, 112, "ip:addrz peers[ip:addrz word0:u32]8"},
    {kEnt, 141, "word0:u32 half0:u16 half1:u16 word1:u32 -4"},
    {kEnt, 144, "half0:u16 half1:u16 half2:u16 half3:u16"},
    {kEnt, 145, "word0:u32 half0:u16 half1:u16"},
    {kEnt, 153, "word0:u32 word1:u32 word2:u32 word3:u32"},
    {kEnt, 154, "ebgId:u32"},
    {kEnt, 156, "member:u32"},
    {kEnt, 180, "word0:u32 word1:u32"},
    {kEnt, 184, "word0:u32 word1:u32 word2:u32 ff32"},
    {kEnt, 187, "ip0:addr ip1:addr ip2:addr"},
    {kEnt, 201, "word0:u32 word1:u32 word2:u32 byte0:u8 byte1:u8 pair:hex2 data:hex32"},
    {kEnt, 202, "word0:u32 word1:u32 ff4"},
    {kEnt, 204, "word0:u32 word1:u32 word2:u32"},
    {kEnt, 218, kHalf}, {kEnt, 234, kHalf}, {kEnt, 235, kHalf}, {kEnt, 238, kHalf},
    {kEnt, 231, "ip:addr ff32"},
    {kEnt, 236, "word0:u32 word1:u32 half0:u16 -2"},
    {kEnt, 239, "word0:u32 word1:u32 data:hex32"},
    {kEnt, 31, kWord}, {kEnt, 32, kWord}, {kEnt, 34, kWord}, {kEnt, 44, kWord}, {kEnt, 100, kWord},
    {kEnt, 102, kWord}, {kEnt, 120, kWord}, {kEnt, 121, kWord}, {kEnt, 122, kWord}, {kEnt, 123, kWord},
    {kEnt, 140, kWord}, {kEnt, 142, kWord}, {kEnt, 143, kWord}, {kEnt, 146, kWord}, {kEnt, 181, kWord},
    {kEnt, 185, kWord}, {kEnt, 189, kWord}, {kEnt, 190, kWord}, {kEnt, 215, kWord}, {kEnt, 217, kWord},
    {kEnt, 230, kWord}, {kEnt, 237, kWord},
    // The event service's registrations: the channel word travels in the
    // host's order.
    {kReg, 0, "word:h32"},
    {kReg, 1, "selector[:u32]3 eventMask:u16 extra16:u16"},
    {kReg, 4, "eventParam:u32 eventMask:u16 extra16:u16"},
    // Replies and notices.
    {kRep, 36, "value:u32"}, {kRep, 37, "result:u32"}, {kRep, 184, "id:u32"},
};

// Events: item 2 of kind 93 makes four more words numbers.
constexpr EventRecord kEventRecords[] = {
    {3, 12, "word0:u32 word1:u32 half0:u16 raw0:hex2"},
    {6, 40, "word0:u32 word1:u32 raw0:hex32"},
    {2, 48,
     "word0:u32 word1:u32 kind:u8 raw0:hex1 half0:u16 word2:u32 word3:u32 word4:u32 half1:u16 raw1:hex2 "
     "word5:hex4 word6:hex4 raw2:hex4 word7:hex4 word8:hex4",
     8, 93,
     "word0:u32 word1:u32 kind:u8 raw0:hex1 half0:u16 word2:u32 word3:u32 word4:u32 half1:u16 raw1:hex2 "
     "word5:u32 word6:u32 raw2:hex4 word7:u32 word8:u32"},
};

constexpr KindInfo kKinds[] = {
    {Kind::kCatalogue, "cfg", false},         {Kind::kPw, "pw", true},
    {Kind::kMinM, "minm", true},              {Kind::kAc, "ac", false},
    {Kind::kAcFlag, "ac-flag", false},        {Kind::kAcQuery, "ac-data-query", false},
    {Kind::kMacWithdraw, "mac-withdraw", false}, {Kind::kMacReset, "mac-reset", false},
    {Kind::kGrEvent, "gr-event", false},      {Kind::kOverlayTunnel, "tunnel", true},
    {Kind::kTunnelIfDel, "tunnel-if", true},  {Kind::kEbgMember, "ebg-member", true},
    {Kind::kMplsEbgMember, "mpls-ebg-member", true}, {Kind::kEbgDf, "ebg-df", true},
    {Kind::kEventChannel, "evt-channel", false}, {Kind::kEventReg, "evt-reg", false},
    {Kind::kReply, "reply", false},           {Kind::kNotice, "notice", false},
    {Kind::kAcDataAnswer, "ac-data-answer", false}, {Kind::kEvent, "event", false},
    {Kind::kControl, "control", false},
};

constexpr HeadRule kHeadRules[] = {
    {.channel = S, .headSize = 8, .tag = 0},
    {.channel = S, .headSize = 12, .byte7 = 0, .extWord = 0},
};

// ---------------------------------------------------------------------------
// The catalogue: each code's object type, opcode and payload shape.
// ---------------------------------------------------------------------------

enum ShapeId : uint8_t {
    kNone, kTlv31, kInstanceCfg, kVariant, kTlv44, kTlv83, kTlv100, kTlv32, kTlv10, kTlv20,
    kHostEntry, kTlv102, kAddrParam, kRangeOrList, kAddrSet, kTlv140, kTlv143With142,
    kTlv141With142, kMark182, kMark183, kTlv180, kTlv145With146, kAcInfo, kMacEntry, kTlv184,
    kTlv185, kMark186, kAddrTriple, kTlv105, kTlv189, kTlv190, kTlv201, kTlv215, kTlv106,
    kTlv217, kTlv230, kTlv218, kTlv234, kAddrFill, kTlv70, kTlv235, kTlv236, kTlv237, kTlv238,
    kTlv239With146, kShapeCount
};

struct CompactCode {
    uint16_t objType;
    uint8_t opcode;
    ShapeId shape;
};

// Indexed by code; codes 0, 1, 13 and 14 build nothing.
constexpr std::array<CompactCode, 92> kCatalogue = {{
    {0, 0, kNone}, {0, 0, kNone}, {0, 0, kTlv31}, {0, 0, kTlv31},
    {1, 5, kInstanceCfg}, {1, 7, kInstanceCfg}, {1, 6, kInstanceCfg},
    {4, 1, kVariant}, {4, 2, kVariant}, {4, 6, kVariant}, {0, 0, kTlv31},
    {2, 6, kInstanceCfg}, {5, 1, kVariant}, {0, 0, kNone}, {0, 0, kNone},
    {13, 1, kTlv44}, {13, 2, kTlv44}, {15, 2, kTlv83},
    {1, 1, kTlv100}, {1, 2, kTlv100}, {2, 1, kTlv100},
    {1, 23, kTlv32}, {1, 23, kTlv10}, {6, 23, kTlv20},
    {1, 1, kHostEntry}, {1, 2, kHostEntry},
    {1, 1, kTlv102}, {1, 2, kTlv102}, {2, 1, kTlv102},
    {1, 5, kAddrParam}, {1, 7, kAddrParam}, {2, 5, kAddrParam},
    {1, 5, kRangeOrList}, {1, 7, kRangeOrList},
    {1, 5, kAddrSet}, {1, 7, kAddrSet}, {2, 5, kAddrSet},
    {1, 6, kTlv140}, {2, 6, kTlv140}, {1, 6, kTlv143With142},
    {2, 2, kTlv141With142}, {2, 1, kTlv141With142},
    {28, 1, kMark182}, {28, 2, kMark182}, {28, 1, kMark183}, {28, 2, kMark183},
    {28, 6, kTlv180},
    {1, 1, kTlv145With146}, {1, 2, kTlv145With146}, {2, 1, kTlv145With146},
    {22, 5, kAcInfo}, {22, 7, kAcInfo}, {21, 5, kMacEntry}, {21, 7, kMacEntry},
    {29, 5, kTlv184}, {29, 7, kTlv184}, {1, 6, kTlv185}, {2, 6, kTlv185},
    {28, 1, kMark186}, {28, 2, kMark186}, {30, 5, kAddrTriple},
    {1, 1, kTlv105}, {1, 2, kTlv105}, {2, 1, kTlv105},
    {1, 6, kTlv189}, {2, 6, kTlv190}, {33, 5, kTlv201}, {33, 7, kTlv201},
    {36, 5, kTlv215}, {37, 1, kVariant}, {37, 2, kVariant},
    {1, 1, kTlv106}, {1, 2, kTlv106}, {2, 1, kTlv106},
    {1, 6, kTlv217}, {1, 6, kTlv230}, {39, 5, kTlv218}, {1, 6, kTlv234},
    {40, 5, kAddrFill}, {40, 7, kAddrFill}, {14, 23, kTlv70},
    {42, 6, kTlv235}, {41, 5, kTlv236}, {41, 7, kTlv236}, {41, 5, kTlv236}, {42, 6, kTlv235},
    {43, 1, kTlv237}, {43, 2, kTlv237}, {43, 1, kTlv237},
    {1, 6, kTlv238}, {2, 6, kTlv238}, {1, 6, kTlv239With146},
}};

// The codes whose request is answered when it is not batched.
constexpr std::array<uint8_t, 25> kAnswered = {4,  6,  7,  8,  18, 19, 26, 27, 29, 30, 34, 35, 42,
                                               44, 50, 51, 52, 53, 60, 81, 82, 83, 86, 87, 91};

}  // namespace

std::span<const ItemLayout> ItemLayouts() { return kItemLayouts; }

const char *LayoutFor(Family family, uint16_t type) {
    // Indexed once: every item of every message looks its layout up.
    using Index = std::array<std::array<const char *, 256>, 3>;
    static const Index index = [] {
        Index t{};
        for (const ItemLayout &row : kItemLayouts) t[static_cast<size_t>(row.family)][row.type] = row.layout;
        return t;
    }();
    return type < 256 ? index[static_cast<size_t>(family)][type] : nullptr;
}

std::string_view FamilyName(Family family) {
    switch (family) {
        case Family::kEntry: return "entry";
        case Family::kEventReg: return "event-reg";
        case Family::kReply: return "reply";
    }
    return "?";
}

std::span<const EventRecord> EventRecords() { return kEventRecords; }

const EventRecord *FindEventRecord(uint16_t type) {
    for (const EventRecord &r : kEventRecords) {
        if (r.type == type) return &r;
    }
    return nullptr;
}

std::span<const KindInfo> Kinds() { return kKinds; }

std::string_view RuleName(Rule rule) {
    switch (rule) {
        case Rule::kNone: return "";
        case Rule::kTunnelByte7: return "tunnel-byte7";
        case Rule::kFirstItem: return "first-item";
        case Rule::kAcAnswer: return "ac-answer";
        case Rule::kEvents: return "events";
        case Rule::kVariant: return "variant";
        case Rule::kRangeOrList: return "range-or-list";
        case Rule::kMinmMembers: return "minm-members";
        case Rule::kEventMask: return "event-mask";
    }
    return "?";
}

std::span<const HeadRule> HeadRules() { return kHeadRules; }

const std::vector<Format> &Formats() {
    using enum Kind;
    using enum Rule;
    static const std::vector<Format> rows = {
        // Forwarding entries and the messages sent alone.
        {.channel = S, .objType = 3, .opcode = 5, .kind = kPw, .name = "pw add",
         .slots = {{10}, {13, 0}, {12, 0}}, .keyType = 10},
        {.channel = S, .objType = 3, .opcode = 7, .kind = kPw, .name = "pw del",
         .slots = {{10}}, .keyType = 10},
        {.channel = S, .objType = 6, .opcode = 5, .kind = kAc, .name = "ac add", .byte7 = 0,
         .slots = {{20}, {22}, {144, 0}}, .keyType = 20},
        {.channel = S, .objType = 6, .opcode = 7, .kind = kAc, .name = "ac del", .byte7 = 0,
         .slots = {{20}}, .keyType = 20},
        {.channel = S, .objType = 7, .opcode = 3, .kind = kGrEvent, .name = "gr-event 3", .byte7 = 8},
        {.channel = S, .objType = 7, .opcode = 4, .kind = kGrEvent, .name = "gr-event 4", .byte7 = 8},
        {.channel = S, .objType = 9, .opcode = 0, .kind = kMacWithdraw, .name = "mac-withdraw", .byte7 = 8,
         .slots = {{10}}, .keyType = 10},
        {.channel = S, .objType = 10, .opcode = 1, .kind = kMacReset, .name = "mac-reset", .byte7 = 8,
         .slots = {{34}}},
        {.channel = S, .objType = 12, .kind = kMinM, .name = "minm {op}",
         .slots = {{40}, {41, 0}, {42, 0}, {43, 0}}, .keyType = 40, .rule = kMinmMembers},
        // Overlay tunnels: byte 7 chooses the object type, 7 for 18 and any
        // other for 14; a switch deletes with the attributes of the old one.
        {.channel = S, .objType = 14, .opcode = 10, .kind = kTunnelIfDel, .name = "tunnel-if del", .byte7 = 5,
         .slots = {{72}}, .keyType = 72},
        {.channel = S, .objType = 18, .opcode = 10, .kind = kTunnelIfDel, .name = "tunnel-if del", .byte7 = 7,
         .slots = {{72}}, .keyType = 72},
        {.channel = S, .objType = 14, .opcode = 5, .kind = kOverlayTunnel, .name = "tunnel add",
         .slots = {{70}, {71}}, .keyType = 70, .rule = kTunnelByte7},
        {.channel = S, .objType = 14, .opcode = 7, .kind = kOverlayTunnel, .name = "tunnel del",
         .slots = {{70}, {71, 0}}, .keyType = 70, .rule = kTunnelByte7},
        {.channel = S, .objType = 18, .opcode = 5, .kind = kOverlayTunnel, .name = "tunnel add",
         .slots = {{70}, {71}}, .keyType = 70, .rule = kTunnelByte7},
        {.channel = S, .objType = 18, .opcode = 7, .kind = kOverlayTunnel, .name = "tunnel del",
         .slots = {{70}, {71, 0}}, .keyType = 70, .rule = kTunnelByte7},
        {.channel = S, .objType = 31, .kind = kEbgDf, .name = "ebg-df {op}",
         .slots = {{153}}, .keyType = 153},
        {.channel = S, .objType = 32, .kind = kEbgMember, .name = "ebg-member {op}",
         .slots = {{154}, {156, 0, kMany}}, .keyType = 154},
        {.channel = S, .objType = 35, .kind = kMplsEbgMember, .name = "mpls-ebg-member {op}",
         .slots = {{202}, {204, 0, kMany}}, .keyType = 202},
        // The 12-byte header: the AC flag and the AC data query.
        {.channel = S, .headSize = 12, .objType = 16, .opcode = 16, .kind = kAcFlag, .name = "ac-flag 0", .tag = 3,
         .slots = {{13, 1, 1, ""}}},
        {.channel = S, .headSize = 12, .objType = 16, .opcode = 17, .kind = kAcFlag, .name = "ac-flag 1", .tag = 3,
         .slots = {{13, 1, 1, ""}}},
        {.channel = S, .headSize = 12, .objType = 17, .opcode = 18, .kind = kAcQuery, .name = "ac-data query",
         .tag = 32, .slots = {{1, 1, 1, ""}, {20, 1, 1, ""}}},
        // The event channel (item 0) and registrations.
        {.channel = E, .objType = 20, .opcode = 5, .first = 0, .kind = kEventChannel, .name = "evt-channel open",
         .tag = 0, .byte7 = 0, .slots = {{0}}, .family = kReg},
        {.channel = E, .objType = 20, .opcode = 7, .first = 0, .kind = kEventChannel, .name = "evt-channel close",
         .tag = 0, .byte7 = 0, .slots = {{0}}, .family = kReg},
        {.channel = E, .objType = 20, .opcode = 5, .kind = kEventReg, .name = "evt-reg add", .tag = 0, .byte7 = 0,
         .slots = {{1}, {4, 0}}, .rule = kEventMask, .family = kReg},
        {.channel = E, .objType = 20, .opcode = 7, .kind = kEventReg, .name = "evt-reg del", .tag = 0, .byte7 = 0,
         .slots = {{1}, {4, 0}}, .rule = kEventMask, .family = kReg},
        // Replies and notices, told by their item; the AC data answer by its
        // object type and 12-byte header.
        {.channel = FS, .first = 36, .kind = kNotice, .name = "notice", .slots = {{36}}, .family = kRep},
        {.channel = FS, .first = 37, .kind = kReply, .name = "reply result", .slots = {{37}}, .family = kRep},
        {.channel = FS, .first = 184, .kind = kReply, .name = "reply id", .slots = {{184}}, .family = kRep},
        {.channel = FS, .kind = kReply, .name = "reply", .rule = kFirstItem, .family = kRep},
        {.channel = FS, .headSize = 12, .objType = 17, .kind = kAcDataAnswer, .name = "ac-data answer",
         .rule = kAcAnswer},
        // Events: items 2, 3 and 6 as records, others passed over.
        {.channel = FE, .kind = kEvent, .name = "event", .rule = kEvents},
    };
    return rows;
}

size_t HeadSize(Channel channel, uint16_t objType) {
    for (const Format &f : Formats()) {
        if (f.channel == channel && f.objType == objType && f.headSize == 12) return 12;
    }
    return 8;
}

const std::vector<Shape> &Shapes() {
    static const std::vector<Shape> shapes = [] {
        std::vector<Shape> t(kShapeCount);
        auto one = [&](ShapeId sh, uint16_t type, uint16_t key = 0) { t[sh] = {{{type}}, key}; };
        one(kTlv31, 31);
        t[kInstanceCfg] = {{{32}, {33, 0}}, 32};
        // A variant entry: the kind in item 21 says which items follow it,
        // and a list item holds as many pairs as item 23 counts.
        t[kVariant] = {{{20}, {21, 0}, {23, 0}, {24, 0}, {25, 0}, {26, 0}, {27, 0}, {28, 0}}, 20, Rule::kVariant};
        one(kTlv44, 44, 44);
        one(kTlv83, 83);
        one(kTlv100, 100, 100);
        one(kTlv32, 32, 32);
        one(kTlv10, 10, 10);
        one(kTlv20, 20, 20);
        t[kHostEntry] = {{{38}, {39, 0}}, 38};
        one(kTlv102, 102);
        one(kAddrParam, 103);
        // A range (items 121 and 122) or a list (items 123), never both.
        t[kRangeOrList] = {{{120}, {121, 0}, {122, 0}, {123, 0, kMany}}, 120, Rule::kRangeOrList};
        one(kAddrSet, 112);
        one(kTlv140, 140);
        t[kTlv143With142] = {{{143}, {142}}, 142};
        t[kTlv141With142] = {{{141}, {142}}, 142};
        t[kMark182] = {{{181}, {182}}, 181};
        t[kMark183] = {{{181}, {183}}, 181};
        one(kTlv180, 180);
        t[kTlv145With146] = {{{145}, {146}}, 146};
        t[kAcInfo] = {{{20}, {22, 0}}, 20};
        t[kMacEntry] = {{{20}, {29}}, 20};
        one(kTlv184, 184);
        one(kTlv185, 185);
        t[kMark186] = {{{181}, {186}}, 181};
        one(kAddrTriple, 187);
        one(kTlv105, 105);
        one(kTlv189, 189);
        one(kTlv190, 190);
        one(kTlv201, 201);
        one(kTlv215, 215);
        one(kTlv106, 106);
        one(kTlv217, 217);
        one(kTlv230, 230);
        one(kTlv218, 218);
        one(kTlv234, 234);
        one(kAddrFill, 231);
        one(kTlv70, 70, 70);
        one(kTlv235, 235);
        one(kTlv236, 236);
        one(kTlv237, 237);
        one(kTlv238, 238);
        t[kTlv239With146] = {{{239}, {146}}, 146};
        return t;
    }();
    return shapes;
}

std::span<const CatalogueCode> CatalogueCodes() {
    static const std::vector<CatalogueCode> codes = [] {
        std::vector<CatalogueCode> t;
        for (size_t code = 0; code < kCatalogue.size(); ++code) {
            const CompactCode &c = kCatalogue[code];
            if (c.shape == kNone) continue;
            const bool answered = std::find(kAnswered.begin(), kAnswered.end(), code) != kAnswered.end();
            // Code 80, the overlay tunnel's configuration, has byte 7 of a
            // tunnel of object type 14.
            t.push_back({static_cast<uint8_t>(code), c.objType, c.opcode, static_cast<uint8_t>(code == 80 ? 5 : 8),
                         answered, c.shape});
        }
        return t;
    }();
    return codes;
}

}  // namespace l2vfib::decode::detail
