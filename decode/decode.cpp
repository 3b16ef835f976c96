// Splitting datagrams into messages, telling each message's format by its
// object type, opcode and first item, and checking its items against the
// format. The formats are tables: a message format is a list of item slots
// (type, how often), an item format one layout line (internal.h).
//
//   datagram:  | message | message | ... |      each: | head | items |
//   message:   head 8 bytes (12: AC flag, AC query, AC data answer)
//   item:      | type be16 | length be16 | value |
//
//   AC data answer:
//    0          12         20                      12 + L
//   +----------+----------+-----------------------+
//   | head 12  | head 8   | count item, entry item |   P <= L - 8
//   | len L    | len P    |                        |
//   +----------+----------+-----------------------+
#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "internal.h"

namespace l2vfib::decode {

using detail::Fault;
using detail::NumberField;
using detail::ReadBe;

namespace detail {
Error Fault(Errc code, size_t offset, std::string text) {
    Error e;
    e.code = code;
    e.offset = offset;
    e.text = std::move(text);
    return e;
}
}  // namespace detail

namespace {

constexpr uint8_t kMany = 0xFF;

// One place in a format: an item type, how often it may occur in a row,
// and its layout when it differs from the item type's own.
struct Slot {
    uint16_t type;
    uint8_t min = 1;
    uint8_t max = 1;
    const char *layout = nullptr;
};

// The item layouts of the forwarding service's messages, by item type.
const char *EntryLayout(uint16_t type) {
    switch (type) {
        case 10:
        case 20:
        case 38:
        case 40: return "id:u32 subId:u16 -2";
        case 12: return "sub[word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word3:u32]*";
        case 13: return "attr64[:u64]2 attr32:u32 attr16[:u16]3 attr8:u8 -1 fill:ff";
        case 21: return "word0:u32 half0:u16 byte0:u8 kind:u8 byte1:u8 -3 fill:ff";
        case 22: return "half0:u16 -2 word0:u32 byte0:u8 -3 word1:u32 -8 attr64:u64 word2:u32 -4 half1:u16 half2:u16 -4 fill:ff";
        case 23: return "word0:u32 half0:u16 half1:u16 count0:u16 half2:u16 half3:u16 count1:u16";
        case 24: return "word0:u32 half0:u16 -2 sub[word0:u32 half0:u16 half1:u16 half2:u16 half3:u16 half4:u16 half5:u16]2";
        case 25:
        case 26: return "pairs[half0:u16 half1:u16]*";
        case 27: return "word0:u32 word1:u32 half0:u16 byte0:u8 -1";
        case 28: return "half0:u16 -2 word0:u32";
        case 29: return "mac:mac";
        case 33: return "word0:u32 word1:u32 word2:u32 half0:u16 byte0:u8 byte1:u8 word3:u32 name:str32 "
                        "word4:u32 word5:u32 half1:u16 -2 words[:u32]8 -8 word6:u32 word7:u32 word8:u32 fill:ff";
        case 39: return "ip:addrz mac:mac half0:u16 half1:u16 -2 fill:ff";
        case 41: return "word0:u32 word1:u32 word2:u32 memberCount:u32 word4:u32 mac[:mac]3 -2 opaque:hex24";
        case 42: return "members[word0:u32 data:hex8]*";
        case 43: return "word0:u32 data:hex8";
        case 70: return "word0:u32 word1:u32";
        case 71: return "word0:u32 word1:u32 word2:u32 word3:u32 ff32";
        case 72: return "ifIndex:u32";
        case 83: return "-2 value:u16";
        case 103: return "ip:addr word0:u32 half0:u16 -2";
        case 105:
        case 106:
        case 182:
        case 183:
        case 186: return "";
        case 112: return "ip:addrz peers[ip:addrz word0:u32]8";
        case 141: return "word0:u32 half0:u16 half1:u16 word1:u32 -4";
        case 144: return "half0:u16 half1:u16 half2:u16 half3:u16";
        case 145: return "word0:u32 half0:u16 half1:u16";
        case 153: return "word0:u32 word1:u32 word2:u32 word3:u32";
        case 154: return "ebgId:u32";
        case 156: return "member:u32";
        case 180: return "word0:u32 word1:u32";
        case 184: return "word0:u32 word1:u32 word2:u32 ff32";
        case 187: return "ip0:addr ip1:addr ip2:addr";
        case 201: return "word0:u32 word1:u32 word2:u32 byte0:u8 byte1:u8 pair:hex2 data:hex32";
        case 202: return "word0:u32 word1:u32 ff4";
        case 204: return "word0:u32 word1:u32 word2:u32";
        case 218:
        case 234:
        case 235:
        case 238: return "value:u16";
        case 231: return "ip:addr ff32";
        case 236: return "word0:u32 word1:u32 half0:u16 -2";
        case 239: return "word0:u32 word1:u32 data:hex32";
        case 31:
        case 32:
        case 34:
        case 44:
        case 100:
        case 102:
        case 120:
        case 121:
        case 122:
        case 123:
        case 140:
        case 142:
        case 143:
        case 146:
        case 181:
        case 185:
        case 189:
        case 190:
        case 215:
        case 217:
        case 230:
        case 237: return "value:u32";
        default: return nullptr;
    }
}

// Event items: a record of fixed size; a shorter value is read as if
// padded with zeros, a longer one as cut to the record.
struct EventRecord {
    size_t size;
    const char *layout;
};
std::optional<EventRecord> EventLayout(uint16_t type, const std::vector<uint8_t> &value) {
    switch (type) {
        case 3: return EventRecord{12, "word0:u32 word1:u32 half0:u16 raw0:hex2"};
        case 6: return EventRecord{40, "word0:u32 word1:u32 raw0:hex32"};
        case 2: {
            // Kind 93 makes four more words numbers.
            const bool kind93 = value.size() > 8 && value[8] == 93;
            return EventRecord{48, kind93 ? "word0:u32 word1:u32 kind:u8 raw0:hex1 half0:u16 word2:u32 word3:u32 "
                                            "word4:u32 half1:u16 raw1:hex2 word5:u32 word6:u32 raw2:hex4 word7:u32 word8:u32"
                                          : "word0:u32 word1:u32 kind:u8 raw0:hex1 half0:u16 word2:u32 word3:u32 "
                                            "word4:u32 half1:u16 raw1:hex2 word5:hex4 word6:hex4 raw2:hex4 word7:hex4 word8:hex4"};
        }
        default: return std::nullopt;
    }
}

// ---------------------------------------------------------------------------
// The catalogue: each code's object type, opcode and payload shape.
// ---------------------------------------------------------------------------

enum Shape : uint8_t {
    kNone, kTlv31, kInstanceCfg, kVariant, kTlv44, kTlv83, kTlv100, kTlv32, kTlv10, kTlv20,
    kHostEntry, kTlv102, kAddrParam, kRangeOrList, kAddrSet, kTlv140, kTlv143With142,
    kTlv141With142, kMark182, kMark183, kTlv180, kTlv145With146, kAcInfo, kMacEntry, kTlv184,
    kTlv185, kMark186, kAddrTriple, kTlv105, kTlv189, kTlv190, kTlv201, kTlv215, kTlv106,
    kTlv217, kTlv230, kTlv218, kTlv234, kAddrFill, kTlv70, kTlv235, kTlv236, kTlv237, kTlv238,
    kTlv239With146,
};

struct ShapeDef {
    std::vector<Slot> slots;
    uint16_t keyType;  // the item that names the object, 0 for none
};

const ShapeDef &ShapeOf(Shape s) {
    static const std::array<ShapeDef, kTlv239With146 + 1> shapes = [] {
        std::array<ShapeDef, kTlv239With146 + 1> t{};
        auto one = [&](Shape sh, uint16_t type, uint16_t key = 0) { t[sh] = {{{type}}, key}; };
        one(kTlv31, 31);
        t[kInstanceCfg] = {{{32}, {33, 0}}, 32};
        t[kVariant] = {{{20}, {21, 0}, {23, 0}, {24, 0}, {25, 0}, {26, 0}, {27, 0}, {28, 0}}, 20};
        one(kTlv44, 44, 44);
        one(kTlv83, 83);
        one(kTlv100, 100, 100);
        one(kTlv32, 32, 32);
        one(kTlv10, 10, 10);
        one(kTlv20, 20, 20);
        t[kHostEntry] = {{{38}, {39, 0}}, 38};
        one(kTlv102, 102);
        one(kAddrParam, 103);
        t[kRangeOrList] = {{{120}, {121, 0}, {122, 0}, {123, 0, kMany}}, 120};
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
    return shapes[s];
}

struct CatalogueRow {
    uint16_t objType;
    uint8_t opcode;
    Shape shape;
};

// Indexed by code; codes 0, 1, 13 and 14 build nothing.
constexpr std::array<CatalogueRow, 92> kCatalogue = {{
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

uint8_t CatalogueByte7(size_t code) { return code == 80 ? 5 : 8; }

// ---------------------------------------------------------------------------
// Checking a message against its format.
// ---------------------------------------------------------------------------

// Which table an item's layout comes from.
enum class Family : uint8_t { kEntry, kEventReg, kReply };

const char *LayoutFor(Family family, uint16_t type) {
    switch (family) {
        case Family::kEntry: return EntryLayout(type);
        case Family::kEventReg:
            return type == 0   ? "word:h32"
                   : type == 1 ? "selector[:u32]3 eventMask:u16 extra16:u16"
                   : type == 4 ? "eventParam:u32 eventMask:u16 extra16:u16"
                               : nullptr;
        case Family::kReply:
            return type == 36 ? "value:u32" : type == 37 ? "result:u32" : type == 184 ? "id:u32" : nullptr;
    }
    return nullptr;
}

Error DecodeItem(Item &item, const char *layout) {
    if (layout == nullptr) {
        return Fault(Errc::kUnexpectedItem, item.offset,
                     fmt::format("unknown item {} at offset {}", item.type, item.offset));
    }
    return detail::DecodeLayout(layout, item);
}

// Matches the items to the slots in order and decodes each.
Error MatchSlots(Message &m, const std::vector<Slot> &slots, Family family) {
    size_t i = 0;
    for (const Slot &slot : slots) {
        unsigned count = 0;
        while (i < m.items.size() && m.items[i].type == slot.type && count < slot.max) {
            Item &item = m.items[i];
            if (Error e = DecodeItem(item, slot.layout != nullptr ? slot.layout : LayoutFor(family, item.type))) {
                return e;
            }
            ++count;
            ++i;
        }
        if (count < slot.min) {
            return Fault(Errc::kMissingItem, i < m.items.size() ? m.items[i].offset : m.offset + m.size,
                         fmt::format("missing item {} in {} at offset {}", slot.type, m.name, m.offset));
        }
    }
    if (i < m.items.size()) {
        const Item &item = m.items[i];
        return Fault(Errc::kUnexpectedItem, item.offset,
                     fmt::format("unexpected item {} in {} at offset {}", item.type, m.name, item.offset));
    }
    return {};
}

void TakeKey(Message &m, uint16_t keyType) {
    if (const Item *k = m.FindItem(keyType); keyType != 0 && k != nullptr) m.key = k->fields;
}

Error HeadValue(const Message &m, const char *field, size_t at, uint64_t got, uint64_t want) {
    if (got == want) return {};
    return Fault(Errc::kBadValue, m.offset + at,
                 fmt::format("{} {} in {}, not {}, at offset {}", field, got, m.name, want, m.offset + at));
}

std::string OpName(const char *base, uint8_t opcode) {
    if (opcode == 5) return fmt::format("{} add", base);
    if (opcode == 7) return fmt::format("{} del", base);
    return fmt::format("{} op {}", base, opcode);
}

Error UnknownOpcode(const Message &m) {
    return Fault(Errc::kUnknownOpcode, m.offset + 6,
                 fmt::format("unknown opcode {} for object type {} at offset {}", m.opcode, m.objType,
                             m.offset + 6));
}

Error Mismatch(const Message &m, const std::string &what) {
    return Fault(Errc::kBadValue, m.offset, fmt::format("{} in {} at offset {}", what, m.name, m.offset));
}

// A variant entry: the kind in item 21 says which items follow it, and a
// list item holds as many pairs as item 23 counts.
Error CheckVariant(const Message &m) {
    const Item *common = m.FindItem(21);
    if (common == nullptr) {
        return m.items.size() == 1 ? Error{} : Mismatch(m, fmt::format("item {} without item 21", m.items[1].type));
    }
    const uint64_t kind = common->Number("kind");
    const uint16_t expected = kind == 1 ? 23 : kind == 2 || kind == 3 ? 27 : kind == 4 ? 28 : 0;
    for (size_t i = 2; i < m.items.size(); ++i) {
        const uint16_t type = m.items[i].type;
        const bool fits = type == expected || (kind == 1 && type >= 24 && type <= 26);
        if (!fits) return Mismatch(m, fmt::format("item {} with kind {}", type, kind));
    }
    if (expected != 0 && m.FindItem(expected) == nullptr) {
        return Fault(Errc::kMissingItem, m.offset,
                     fmt::format("missing item {} in {} at offset {}", expected, m.name, m.offset));
    }
    const Item *v1 = m.FindItem(23);
    for (const auto &[type, count] : {std::pair<uint16_t, const char *>{25, "count0"}, {26, "count1"}}) {
        const Item *list = m.FindItem(type);
        if (list != nullptr && list->value.size() / 4 != v1->Number(count)) {
            return Mismatch(m, fmt::format("item {} holds {} pairs but {} is {}", type, list->value.size() / 4, count,
                                           v1->Number(count)));
        }
    }
    return {};
}

// A range (items 121 and 122) or a list (items 123), never both.
Error CheckRangeOrList(const Message &m) {
    const bool low = m.FindItem(121) != nullptr, high = m.FindItem(122) != nullptr;
    if (low != high || (low && m.FindItem(123) != nullptr)) return Mismatch(m, "a range and a list mixed");
    return {};
}

Error Catalogue(Message &m) {
    m.kind = Kind::kCatalogue;
    bool typeKnown = false, opKnown = false;
    for (size_t code = 0; code < kCatalogue.size(); ++code) {
        const CatalogueRow &row = kCatalogue[code];
        if (row.shape == kNone || row.objType != m.objType) continue;
        typeKnown = true;
        if (row.opcode != m.opcode) continue;
        opKnown = true;
        if (!m.items.empty() && ShapeOf(row.shape).slots[0].type == m.items[0].type) {
            m.codes.push_back(static_cast<uint8_t>(code));
        }
    }
    if (!typeKnown) {
        return Fault(Errc::kUnknownObjectType, m.offset,
                     fmt::format("unknown object type {} at offset {}", m.objType, m.offset));
    }
    if (!opKnown) return UnknownOpcode(m);
    m.name = fmt::format("cfg type {} op {}", m.objType, m.opcode);
    if (m.codes.empty()) {
        if (m.items.empty()) {
            return Fault(Errc::kMissingItem, m.offset + m.size,
                         fmt::format("missing item in {} at offset {}", m.name, m.offset));
        }
        return Fault(Errc::kUnexpectedItem, m.items[0].offset,
                     fmt::format("unexpected item {} in {} at offset {}", m.items[0].type, m.name,
                                 m.items[0].offset));
    }
    std::string codes;
    for (uint8_t c : m.codes) {
        codes += fmt::format("{}{}", codes.empty() ? "" : "/", c);
        m.answered = m.answered || std::find(kAnswered.begin(), kAnswered.end(), c) != kAnswered.end();
    }
    m.name = "cfg " + codes;
    if (Error e = HeadValue(m, "byte7", 7, m.byte7, CatalogueByte7(m.codes[0]))) return e;
    const Shape shape = kCatalogue[m.codes[0]].shape;
    Error e = MatchSlots(m, ShapeOf(shape).slots, Family::kEntry);
    TakeKey(m, ShapeOf(shape).keyType);
    if (e) return e;
    if (shape == kVariant) return CheckVariant(m);
    if (shape == kRangeOrList) return CheckRangeOrList(m);
    return {};
}

// A direct message: kind, name, slots and key item.
Error Direct(Message &m, Kind kind, std::string name, const std::vector<Slot> &slots, uint16_t keyType) {
    m.kind = kind;
    m.name = std::move(name);
    Error e = MatchSlots(m, slots, Family::kEntry);
    TakeKey(m, keyType);
    return e;
}

Error ToService(Message &m) {
    if (m.headSize == 12) {
        if (Error e = HeadValue(m, "byte7", 7, m.byte7, 0)) return e;
        if (Error e = HeadValue(m, "extWord", 8, m.extWord, 0)) return e;
        if (m.objType == 16) {
            if (m.opcode != 16 && m.opcode != 17) return UnknownOpcode(m);
            m.kind = Kind::kAcFlag;
            m.name = m.opcode == 17 ? "ac-flag 1" : "ac-flag 0";
            if (Error e = HeadValue(m, "tag", 4, m.tag, 3)) return e;
            return MatchSlots(m, {{13, 1, 1, ""}}, Family::kEntry);
        }
        if (m.opcode != 18) return UnknownOpcode(m);
        m.kind = Kind::kAcQuery;
        m.name = "ac-data query";
        if (Error e = HeadValue(m, "tag", 4, m.tag, 32)) return e;
        return MatchSlots(m, {{1, 1, 1, ""}, {20, 1, 1, ""}}, Family::kEntry);
    }
    if (m.tag != 0) {
        return Fault(Errc::kBadValue, m.offset + 4,
                     fmt::format("tag {} not 0 at offset {}", m.tag, m.offset + 4));
    }
    switch (m.objType) {
        case 3:
            if (m.opcode == 5) return Direct(m, Kind::kPw, "pw add", {{10}, {13, 0}, {12, 0}}, 10);
            if (m.opcode == 7) return Direct(m, Kind::kPw, "pw del", {{10}}, 10);
            return UnknownOpcode(m);
        case 6:
            if (m.opcode == 23) return Catalogue(m);
            if (m.opcode != 5 && m.opcode != 7) return UnknownOpcode(m);
            m.kind = Kind::kAc;
            m.name = m.opcode == 5 ? "ac add" : "ac del";
            if (Error e = HeadValue(m, "byte7", 7, m.byte7, 0)) return e;
            if (m.opcode == 5) return Direct(m, Kind::kAc, m.name, {{20}, {22}, {144, 0}}, 20);
            return Direct(m, Kind::kAc, m.name, {{20}}, 20);
        case 7:
            if (m.opcode != 3 && m.opcode != 4) return UnknownOpcode(m);
            m.kind = Kind::kGrEvent;
            m.name = fmt::format("gr-event {}", m.opcode);
            if (Error e = HeadValue(m, "byte7", 7, m.byte7, 8)) return e;
            return Direct(m, Kind::kGrEvent, m.name, {}, 0);
        case 9:
            if (m.opcode != 0) return UnknownOpcode(m);
            m.kind = Kind::kMacWithdraw;
            m.name = "mac-withdraw";
            if (Error e = HeadValue(m, "byte7", 7, m.byte7, 8)) return e;
            return Direct(m, Kind::kMacWithdraw, m.name, {{10}}, 10);
        case 10:
            if (m.opcode != 1) return UnknownOpcode(m);
            m.kind = Kind::kMacReset;
            m.name = "mac-reset";
            if (Error e = HeadValue(m, "byte7", 7, m.byte7, 8)) return e;
            return Direct(m, Kind::kMacReset, m.name, {{34}}, 0);
        case 12: {
            if (Error e = Direct(m, Kind::kMinM, OpName("minm", m.opcode), {{40}, {41, 0}, {42, 0}, {43, 0}}, 40)) {
                return e;
            }
            // A block names its member count twice: in item 41 and as the
            // length of item 42.
            const Item *entry = m.FindItem(41);
            const Item *members = m.FindItem(42);
            if (entry == nullptr && members == nullptr && m.FindItem(43) == nullptr) return {};
            if (entry == nullptr || members == nullptr) {
                return Fault(Errc::kMissingItem, m.offset,
                             fmt::format("missing item {} in {} at offset {}", entry == nullptr ? 41 : 42,
                                         m.name, m.offset));
            }
            const uint64_t count = entry->Number("memberCount");
            if (count == 0 || members->value.size() != count * 12) {
                return Fault(Errc::kBadValue, members->offset,
                             fmt::format("member count {} but item 42 length {} at offset {}", count,
                                         members->value.size(), members->offset));
            }
            return {};
        }
        case 14:
        case 18: {
            if (m.objType == 14 && m.opcode == 23) return Catalogue(m);
            const bool is18 = m.objType == 18;
            if (m.opcode == 10) {
                m.kind = Kind::kTunnelIfDel;
                m.name = "tunnel-if del";
                if (Error e = HeadValue(m, "byte7", 7, m.byte7, is18 ? 7 : 5)) return e;
                return Direct(m, Kind::kTunnelIfDel, m.name, {{72}}, 72);
            }
            if (m.opcode != 5 && m.opcode != 7) return UnknownOpcode(m);
            m.kind = Kind::kOverlayTunnel;
            m.name = m.opcode == 5 ? "tunnel add" : "tunnel del";
            // Byte 7 chooses the object type: 7 is type 18, any other 14.
            if ((m.byte7 == 7) != is18) {
                return Fault(Errc::kBadValue, m.offset + 7,
                             fmt::format("byte7 {} with object type {} at offset {}", m.byte7, m.objType,
                                         m.offset + 7));
            }
            // A switch deletes with the attributes of the old tunnel.
            if (m.opcode == 5) return Direct(m, Kind::kOverlayTunnel, m.name, {{70}, {71}}, 70);
            return Direct(m, Kind::kOverlayTunnel, m.name, {{70}, {71, 0}}, 70);
        }
        case 31: return Direct(m, Kind::kEbgDf, OpName("ebg-df", m.opcode), {{153}}, 153);
        case 32:
            return Direct(m, Kind::kEbgMember, OpName("ebg-member", m.opcode), {{154}, {156, 0, kMany}}, 154);
        case 35:
            return Direct(m, Kind::kMplsEbgMember, OpName("mpls-ebg-member", m.opcode), {{202}, {204, 0, kMany}},
                          202);
        default: return Catalogue(m);
    }
}

Error ToEvent(Message &m) {
    if (m.objType != 20) {
        return Fault(Errc::kUnknownObjectType, m.offset,
                     fmt::format("unknown object type {} at offset {}", m.objType, m.offset));
    }
    if (m.opcode != 5 && m.opcode != 7) return UnknownOpcode(m);
    const bool channel = !m.items.empty() && m.items[0].type == 0;
    m.kind = channel ? Kind::kEventChannel : Kind::kEventReg;
    m.name = channel ? (m.opcode == 5 ? "evt-channel open" : "evt-channel close")
                     : (m.opcode == 5 ? "evt-reg add" : "evt-reg del");
    if (Error e = HeadValue(m, "tag", 4, m.tag, 0)) return e;
    if (Error e = HeadValue(m, "byte7", 7, m.byte7, 0)) return e;
    if (channel) return MatchSlots(m, {{0}}, Family::kEventReg);
    if (Error e = MatchSlots(m, {{1}, {4, 0}}, Family::kEventReg)) return e;
    // Item 4 travels exactly when the mask has 0x0010 and 0x1000 or 0x2000.
    const uint64_t mask = m.items[0].Number("eventMask");
    const bool wanted = (mask & 0x0010) != 0 && (mask & 0x3000) != 0;
    if (wanted != (m.FindItem(4) != nullptr)) {
        return Fault(wanted ? Errc::kMissingItem : Errc::kUnexpectedItem, m.offset,
                     fmt::format("{} item 4 in {} with mask {:#06x} at offset {}", wanted ? "missing" : "unexpected",
                                 m.name, mask, m.offset));
    }
    return {};
}

Error FromEvent(Message &m) {
    m.kind = Kind::kEvent;
    m.name = "event";
    if (m.payloadLen < 8) {
        return Fault(Errc::kBadValue, m.offset + 2,
                     fmt::format("event payload length {} below 8 at offset {}", m.payloadLen, m.offset + 2));
    }
    bool known = false;
    for (Item &item : m.items) {
        const auto record = EventLayout(item.type, item.value);
        if (!record) continue;  // passed over, as the daemon does
        known = true;
        Item padded = item;
        padded.value.resize(record->size, 0);
        if (Error e = detail::DecodeLayout(record->layout, padded)) return e;
        item.fields = std::move(padded.fields);
    }
    if (!known) {
        return Fault(Errc::kMissingItem, m.offset,
                     fmt::format("missing item 2, 3 or 6 in event at offset {}", m.offset));
    }
    return {};
}

// The AC data answer: the count item, then N entries of S bytes each.
Error AcDataAnswer(Message &m) {
    m.kind = Kind::kAcDataAnswer;
    m.name = "ac-data answer";
    if (m.items.empty()) {
        return Fault(Errc::kMissingItem, m.offset + 20,
                     fmt::format("missing count item in {} at offset {}", m.name, m.offset));
    }
    Item &count = m.items[0];
    if (Error e = DecodeItem(count, "count:u32")) return e;
    const uint64_t n = count.Number("count");
    if (n == 0) {
        if (m.items.size() > 1) {
            return Fault(Errc::kUnexpectedItem, m.items[1].offset,
                         fmt::format("unexpected item {} in {} at offset {}", m.items[1].type, m.name,
                                     m.items[1].offset));
        }
        return {};
    }
    if (m.items.size() < 2) {
        return Fault(Errc::kMissingItem, m.offset + m.size,
                     fmt::format("missing entry item in {} at offset {}", m.name, m.offset));
    }
    if (m.items.size() > 2) {
        return Fault(Errc::kUnexpectedItem, m.items[2].offset,
                     fmt::format("unexpected item {} in {} at offset {}", m.items[2].type, m.name,
                                 m.items[2].offset));
    }
    Item &entries = m.items[1];
    if (entries.value.size() % n != 0 || entries.value.empty()) {
        return Fault(Errc::kBadItemLength, entries.offset,
                     fmt::format("entry item length {} not a multiple of count {} at offset {}",
                                 entries.value.size(), n, entries.offset));
    }
    const size_t size = entries.value.size() / n;
    const std::string layout =
        size >= 16 ? fmt::format("e[word0:u32 half0:u16 byte0:u8 byte1:u8 half1:u16 half2:u16 word1:u32{}]*",
                                 size > 16 ? fmt::format(" rest:hex{}", size - 16) : "")
                   : fmt::format("e[raw:hex{}]*", size);
    return DecodeItem(entries, layout.c_str());
}

Error FromService(Message &m) {
    if (m.headSize == 12) return AcDataAnswer(m);
    if (m.items.empty()) {
        m.kind = Kind::kReply;
        m.name = "reply";
        return Fault(Errc::kMissingItem, m.offset + 8,
                     fmt::format("missing item 36, 37 or 184 in reply at offset {}", m.offset));
    }
    const uint16_t first = m.items[0].type;
    m.kind = first == 36 ? Kind::kNotice : Kind::kReply;
    m.name = first == 36 ? "notice" : first == 37 ? "reply result" : first == 184 ? "reply id" : "reply";
    return MatchSlots(m, {{first}}, Family::kReply);
}

// Reads the items of [from, to) into m; a truncated one ends the walk.
Error WalkItems(std::span<const uint8_t> d, size_t from, size_t to, Message &m) {
    size_t pos = from;
    while (pos < to) {
        if (to - pos < 4) {
            return Fault(Errc::kTruncatedItem, pos, fmt::format("truncated item at offset {}", pos));
        }
        Item item;
        item.type = static_cast<uint16_t>(ReadBe(&d[pos], 2));
        const size_t length = ReadBe(&d[pos + 2], 2);
        item.offset = pos;
        if (to - pos - 4 < length) {
            return Fault(Errc::kTruncatedItem, pos,
                         fmt::format("truncated item at offset {}: item {} length {} past payload end {}",
                                     pos, item.type, length, to));
        }
        item.value.assign(d.begin() + static_cast<std::ptrdiff_t>(pos + 4),
                          d.begin() + static_cast<std::ptrdiff_t>(pos + 4 + length));
        m.items.push_back(std::move(item));
        pos += 4 + length;
    }
    return {};
}

size_t HeadSize(Channel channel, uint16_t objType) {
    if (channel == Channel::kToService && (objType == 16 || objType == 17)) return 12;
    if (channel == Channel::kFromService && objType == 17) return 12;
    return 8;
}

void Note(Decoded &out, const Error &e) {
    if (!out.error) out.error = e;
}

}  // namespace

const Field *Item::Find(std::string_view name) const {
    for (const Field &f : fields) {
        if (f.name == name) return &f;
    }
    return nullptr;
}

uint64_t Item::Number(std::string_view name, uint64_t otherwise) const {
    const Field *f = Find(name);
    return f != nullptr && f->kind == FieldKind::kNumber ? f->number : otherwise;
}

const Item *Message::FindItem(uint16_t type) const {
    for (const Item &item : items) {
        if (item.type == type) return &item;
    }
    return nullptr;
}

Decoded Decode(std::span<const uint8_t> d, Channel channel) {
    Decoded out;
    if (d.empty()) {
        out.error = Fault(Errc::kShortHeader, 0, "empty datagram at offset 0");
        return out;
    }
    size_t pos = 0;
    while (pos < d.size()) {
        const size_t left = d.size() - pos;
        if (left < 8) {
            Note(out, Fault(Errc::kShortHeader, pos,
                            fmt::format("short header: {} bytes at offset {}", left, pos)));
            break;
        }
        Message m;
        m.offset = pos;
        m.objType = static_cast<uint16_t>(ReadBe(&d[pos], 2));
        m.payloadLen = static_cast<uint16_t>(ReadBe(&d[pos + 2], 2));
        m.tag = static_cast<uint16_t>(ReadBe(&d[pos + 4], 2));
        m.opcode = d[pos + 6];
        m.byte7 = d[pos + 7];
        m.headSize = static_cast<uint8_t>(HeadSize(channel, m.objType));
        if (left < m.headSize) {
            Note(out, Fault(Errc::kShortHeader, pos,
                            fmt::format("short header: {} bytes at offset {}", left, pos)));
            break;
        }
        if (m.headSize == 12) m.extWord = static_cast<uint32_t>(ReadBe(&d[pos + 8], 4));
        if (left - m.headSize < m.payloadLen) {
            Note(out, Fault(Errc::kLengthPastEnd, pos + 2,
                            fmt::format("length {} past datagram end {} at offset {}", m.payloadLen,
                                        d.size(), pos + 2)));
            break;
        }
        m.size = m.headSize + m.payloadLen;
        size_t itemsFrom = pos + m.headSize;
        size_t itemsTo = pos + m.size;
        Error e;
        if (channel == Channel::kFromService && m.headSize == 12) {
            // The answer wraps an 8-byte header and its items.
            if (m.payloadLen < 12) {
                e = Fault(Errc::kBadValue, pos + 2,
                          fmt::format("answer length {} below 12 at offset {}", m.payloadLen, pos + 2));
            } else {
                const uint8_t *in = &d[pos + 12];
                const uint16_t innerLen = static_cast<uint16_t>(ReadBe(in + 2, 2));
                const char *names[] = {"objType", "payloadLen", "tag", "opcode", "byte7"};
                const uint64_t values[] = {ReadBe(in, 2), innerLen, ReadBe(in + 4, 2), in[6], in[7]};
                for (size_t i = 0; i < 5; ++i) {
                    Field f;
                    f.name = names[i];
                    f.number = values[i];
                    m.inner.push_back(std::move(f));
                }
                itemsFrom = pos + 20;
                if (innerLen > m.payloadLen - 8) {
                    e = Fault(Errc::kLengthPastEnd, pos + 14,
                              fmt::format("length {} past answer end {} at offset {}", innerLen,
                                          m.payloadLen - 8, pos + 14));
                } else {
                    itemsTo = itemsFrom + innerLen;
                }
            }
        }
        if (!e) e = WalkItems(d, itemsFrom, itemsTo, m);
        if (!e) {
            switch (channel) {
                case Channel::kToService: e = ToService(m); break;
                case Channel::kFromService: e = FromService(m); break;
                case Channel::kToEvent: e = ToEvent(m); break;
                case Channel::kFromEvent: e = FromEvent(m); break;
            }
        }
        if (m.name.empty()) m.name = fmt::format("type {} op {}", m.objType, m.opcode);
        if (e) {
            m.error = e;
            Note(out, e);
        }
        pos += m.size;
        out.messages.push_back(std::move(m));
    }
    return out;
}

Decoded DecodeControl(uint32_t code, std::span<const uint8_t> bytes, bool answer) {
    if (code == 0x440003 && !answer) {
        Decoded out = Decode(bytes, Channel::kToService);
        if (out.ok() && (out.messages.size() != 1 || out.messages[0].kind != Kind::kMacReset)) {
            out.error = Fault(Errc::kUnexpectedItem, 0, "not one mac-reset message at offset 0");
        }
        return out;
    }
    Decoded out;
    Message m;
    m.kind = Kind::kControl;
    m.size = bytes.size();
    Item item;
    item.value.assign(bytes.begin(), bytes.end());
    auto length = [&](size_t want, bool atLeast) {
        if (atLeast ? bytes.size() >= want : bytes.size() == want) return true;
        m.error = Fault(Errc::kBadItemLength, 0,
                        fmt::format("{} length {} (expected {}{}) at offset 0", m.name, bytes.size(),
                                    atLeast ? "at least " : "", want));
        return false;
    };
    if (answer && code == 0x440002) {
        // The five capability counts the library reads from the answer.
        m.name = "caps";
        if (length(41, true)) {
            const std::pair<const char *, size_t> counts[] = {
                {"fillWords13", 9}, {"fillWords21", 10}, {"fillWords22", 8}, {"fillWords33", 11}, {"fillWords39", 40}};
            for (const auto &[name, at] : counts) item.fields.push_back(NumberField(name, bytes[at]));
        }
    } else if (!answer && code == 0x440002) {
        // The capability query asks with no input.
        m.name = "caps-query";
        length(0, false);
    } else if (!answer && code == 0x440005) {
        m.name = "start";
        if (length(4, false)) item.fields.push_back(NumberField("value", ReadBe(bytes.data(), 4)));
    } else if (!answer && code == 0x440006) {
        m.name = "stop";
        if (length(4, false) && ReadBe(bytes.data(), 4) != 0) {
            m.error = Fault(Errc::kBadValue, 0, "stop input not zero at offset 0");
        }
    } else if (!answer && code == 0x44000c) {
        m.name = "vlan-range";
        Field data;
        data.name = "data";
        data.kind = FieldKind::kHex;
        data.bytes = item.value;
        item.fields.push_back(std::move(data));
    } else {
        m.name = fmt::format("control {:#x}", code);
        m.error = Fault(Errc::kUnknownOpcode, 0,
                        fmt::format("unknown control code {:#x}{} at offset 0", code, answer ? " answer" : ""));
    }
    m.items.push_back(std::move(item));
    out.error = m.error;
    out.messages.push_back(std::move(m));
    return out;
}

}  // namespace l2vfib::decode
