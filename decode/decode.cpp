// Splitting datagrams into messages, telling each message's format by its
// direction, object type, opcode and first item, and checking the message
// against it. The formats are the rows of tables.cpp: a message format is
// fixed header fields, a list of item slots (type, how often) and a rule
// across items, an item format one layout line (internal.h); this file is
// the engine that reads them, as the dissector's Lua engine does.
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

using detail::Format;
using detail::Rule;
using detail::Slot;
using detail::kAny;

// ---------------------------------------------------------------------------
// Checking a message against its format (tables.cpp).
// ---------------------------------------------------------------------------

Error DecodeItem(Item &item, const char *layout) {
    if (layout == nullptr) {
        return Fault(Errc::kUnexpectedItem, item.offset,
                     fmt::format("unknown item {} at offset {}", item.type, item.offset));
    }
    return detail::DecodeLayout(layout, item);
}

// Matches the items to the slots in order and decodes each.
Error MatchSlots(Message &m, const std::vector<Slot> &slots, detail::Family family) {
    size_t i = 0;
    for (const Slot &slot : slots) {
        unsigned count = 0;
        while (i < m.items.size() && m.items[i].type == slot.type && count < slot.max) {
            Item &item = m.items[i];
            const char *layout = slot.layout != nullptr ? slot.layout : detail::LayoutFor(family, item.type);
            if (Error e = DecodeItem(item, layout)) return e;
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

// Whether the item types fill the slots, as MatchSlots would take them.
bool Fits(const Message &m, const std::vector<Slot> &slots) {
    size_t i = 0;
    for (const Slot &slot : slots) {
        unsigned count = 0;
        for (; i < m.items.size() && m.items[i].type == slot.type && count < slot.max; ++i) ++count;
        if (count < slot.min) return false;
    }
    return i == m.items.size();
}

void TakeKey(Message &m, uint16_t keyType) {
    if (const Item *k = m.FindItem(keyType); keyType != 0 && k != nullptr) m.key = k->fields;
}

// A header field against the value that a direction (before the message is
// named) or its format (after) fixes.
Error HeadValue(const Message &m, const char *field, size_t at, uint64_t got, int64_t want) {
    if (want == kAny || got == static_cast<uint64_t>(want)) return {};
    const size_t offset = m.offset + at;
    if (m.name.empty()) {
        return Fault(Errc::kBadValue, offset, fmt::format("{} {} not {} at offset {}", field, got, want, offset));
    }
    return Fault(Errc::kBadValue, offset,
                 fmt::format("{} {} in {}, not {}, at offset {}", field, got, m.name, want, offset));
}

std::string Name(std::string_view name, uint8_t opcode) {
    const size_t at = name.find("{op}");
    if (at == std::string_view::npos) return std::string(name);
    const std::string op = opcode == 5 ? "add" : opcode == 7 ? "del" : fmt::format("op {}", opcode);
    return fmt::format("{}{}{}", name.substr(0, at), op, name.substr(at + 4));
}

Error UnknownObjectType(const Message &m) {
    return Fault(Errc::kUnknownObjectType, m.offset,
                 fmt::format("unknown object type {} at offset {}", m.objType, m.offset));
}

Error UnknownOpcode(const Message &m) {
    return Fault(Errc::kUnknownOpcode, m.offset + 6,
                 fmt::format("unknown opcode {} for object type {} at offset {}", m.opcode, m.objType,
                             m.offset + 6));
}

// No format takes the first item: none is there, or another one is.
Error FirstItemFault(const Message &m, const std::vector<uint16_t> &firsts) {
    if (m.items.empty()) {
        std::string list;
        for (size_t i = 0; i < firsts.size(); ++i) {
            list += fmt::format("{}{}", i == 0 ? "" : i + 1 == firsts.size() ? " or " : ", ", firsts[i]);
        }
        return Fault(Errc::kMissingItem, m.offset + m.size,
                     fmt::format("missing item {} in {} at offset {}", list, m.name, m.offset));
    }
    return Fault(Errc::kUnexpectedItem, m.items[0].offset,
                 fmt::format("unexpected item {} in {} at offset {}", m.items[0].type, m.name, m.items[0].offset));
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

// A MAC-in-MAC block names its member count twice: in item 41 and as the
// length of item 42.
Error CheckMinmMembers(const Message &m) {
    const Item *entry = m.FindItem(41);
    const Item *members = m.FindItem(42);
    if (entry == nullptr && members == nullptr && m.FindItem(43) == nullptr) return {};
    if (entry == nullptr || members == nullptr) {
        return Fault(Errc::kMissingItem, m.offset,
                     fmt::format("missing item {} in {} at offset {}", entry == nullptr ? 41 : 42, m.name, m.offset));
    }
    const uint64_t count = entry->Number("memberCount");
    if (count == 0 || members->value.size() != count * 12) {
        return Fault(Errc::kBadValue, members->offset,
                     fmt::format("member count {} but item 42 length {} at offset {}", count, members->value.size(),
                                 members->offset));
    }
    return {};
}

// Item 4 of a registration travels exactly when the mask has 0x0010 and
// 0x1000 or 0x2000.
Error CheckEventMask(const Message &m) {
    const uint64_t mask = m.items[0].Number("eventMask");
    const bool wanted = (mask & 0x0010) != 0 && (mask & 0x3000) != 0;
    if (wanted == (m.FindItem(4) != nullptr)) return {};
    return Fault(wanted ? Errc::kMissingItem : Errc::kUnexpectedItem, m.offset,
                 fmt::format("{} item 4 in {} with mask {:#06x} at offset {}", wanted ? "missing" : "unexpected",
                             m.name, mask, m.offset));
}

// Byte 7 chooses an overlay tunnel's object type: 7 is type 18, any other 14.
Error CheckTunnelByte7(const Message &m) {
    if ((m.byte7 == 7) == (m.objType == 18)) return {};
    return Fault(Errc::kBadValue, m.offset + 7,
                 fmt::format("byte7 {} with object type {} at offset {}", m.byte7, m.objType, m.offset + 7));
}

// Events: a record of fixed size per known item; a shorter value is read as
// if padded with zeros, a longer one as cut to the record.
Error Events(Message &m) {
    if (m.payloadLen < 8) {
        return Fault(Errc::kBadValue, m.offset + 2,
                     fmt::format("event payload length {} below 8 at offset {}", m.payloadLen, m.offset + 2));
    }
    bool known = false;
    for (Item &item : m.items) {
        const detail::EventRecord *record = detail::FindEventRecord(item.type);
        if (record == nullptr) continue;  // passed over, as the daemon does
        known = true;
        Item padded = item;
        padded.value.resize(record->size, 0);
        const bool switched = record->switchLayout != nullptr && item.value.size() > record->switchAt &&
                              item.value[record->switchAt] == record->switchByte;
        if (Error e = detail::DecodeLayout(switched ? record->switchLayout : record->layout, padded)) return e;
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
    if (m.items.empty()) {
        return Fault(Errc::kMissingItem, m.offset + 20,
                     fmt::format("missing count item in {} at offset {}", m.name, m.offset));
    }
    Item &count = m.items[0];
    if (Error e = DecodeItem(count, detail::kAcCountLayout)) return e;
    const uint64_t n = count.Number("count");
    const size_t extra = n == 0 ? 1 : 2;
    if (m.items.size() > extra) {
        const Item &item = m.items[extra];
        return Fault(Errc::kUnexpectedItem, item.offset,
                     fmt::format("unexpected item {} in {} at offset {}", item.type, m.name, item.offset));
    }
    if (n == 0) return {};
    if (m.items.size() < 2) {
        return Fault(Errc::kMissingItem, m.offset + m.size,
                     fmt::format("missing entry item in {} at offset {}", m.name, m.offset));
    }
    Item &entries = m.items[1];
    if (entries.value.size() % n != 0 || entries.value.empty()) {
        return Fault(Errc::kBadItemLength, entries.offset,
                     fmt::format("entry item length {} not a multiple of count {} at offset {}",
                                 entries.value.size(), n, entries.offset));
    }
    const size_t size = entries.value.size() / n;
    const std::string layout =
        size >= detail::kAcEntrySize
            ? fmt::format("e[{}{}]*", detail::kAcEntryLayout,
                          size > detail::kAcEntrySize ? fmt::format(" rest:hex{}", size - detail::kAcEntrySize) : "")
            : fmt::format("e[raw:hex{}]*", size);
    return DecodeItem(entries, layout.c_str());
}

// The first item types that tell the formats of a direction apart.
std::vector<uint16_t> FirstItems(Channel channel, uint8_t headSize) {
    std::vector<uint16_t> firsts;
    for (const Format &f : detail::Formats()) {
        if (f.channel == channel && f.headSize == headSize && f.first != kAny) {
            firsts.push_back(static_cast<uint16_t>(f.first));
        }
    }
    return firsts;
}

// Checks a message against its format: header fields, slots, key, rule.
Error Apply(Message &m, const Format &f) {
    m.kind = f.kind;
    m.name = Name(f.name, m.opcode);
    if (Error e = HeadValue(m, "tag", 4, m.tag, f.tag)) return e;
    if (Error e = HeadValue(m, "byte7", 7, m.byte7, f.byte7)) return e;
    switch (f.rule) {
        case Rule::kTunnelByte7:
            if (Error e = CheckTunnelByte7(m)) return e;
            break;
        case Rule::kFirstItem: return FirstItemFault(m, FirstItems(f.channel, f.headSize));
        case Rule::kAcAnswer: return AcDataAnswer(m);
        case Rule::kEvents: return Events(m);
        default: break;
    }
    Error e = MatchSlots(m, f.slots, f.family);
    TakeKey(m, f.keyType);
    if (e) return e;
    switch (f.rule) {
        case Rule::kVariant: return CheckVariant(m);
        case Rule::kRangeOrList: return CheckRangeOrList(m);
        case Rule::kMinmMembers: return CheckMinmMembers(m);
        case Rule::kEventMask: return CheckEventMask(m);
        default: return {};
    }
}

// A catalogue command: its codes are those of its object type and opcode
// whose items it has (by the first item when none has them all).
Error Catalogue(Message &m, bool typeKnown) {
    m.kind = Kind::kCatalogue;
    bool opKnown = false;
    std::vector<uint16_t> firsts;
    std::vector<const detail::CatalogueCode *> named, whole;
    for (const detail::CatalogueCode &c : detail::CatalogueCodes()) {
        if (c.objType != m.objType) continue;
        typeKnown = true;
        if (c.opcode != m.opcode) continue;
        opKnown = true;
        const detail::Shape &shape = detail::Shapes()[c.shape];
        firsts.push_back(shape.slots[0].type);
        if (m.items.empty() || shape.slots[0].type != m.items[0].type) continue;
        named.push_back(&c);
        if (Fits(m, shape.slots)) whole.push_back(&c);
    }
    if (!typeKnown) return UnknownObjectType(m);
    if (!opKnown) return UnknownOpcode(m);
    m.name = fmt::format("cfg type {} op {}", m.objType, m.opcode);
    if (named.empty()) {
        std::sort(firsts.begin(), firsts.end());
        firsts.erase(std::unique(firsts.begin(), firsts.end()), firsts.end());
        return FirstItemFault(m, firsts);
    }
    if (!whole.empty()) named = whole;
    m.name = "cfg ";
    for (const detail::CatalogueCode *c : named) {
        m.name += fmt::format("{}{}", m.codes.empty() ? "" : "/", c->code);
        m.codes.push_back(c->code);
        m.answered = m.answered || c->answered;
    }
    if (Error e = HeadValue(m, "byte7", 7, m.byte7, named[0]->byte7)) return e;
    const detail::Shape &shape = detail::Shapes()[named[0]->shape];
    Error e = MatchSlots(m, shape.slots, detail::Family::kEntry);
    TakeKey(m, shape.keyType);
    if (e) return e;
    if (shape.rule == Rule::kVariant) return CheckVariant(m);
    if (shape.rule == Rule::kRangeOrList) return CheckRangeOrList(m);
    return {};
}

// Finds the message's format by direction, header size, object type,
// opcode and first item, and checks the message against it.
Error Classify(Message &m, Channel channel) {
    for (const detail::HeadRule &r : detail::HeadRules()) {
        if (r.channel != channel || r.headSize != m.headSize) continue;
        if (Error e = HeadValue(m, "tag", 4, m.tag, r.tag)) return e;
        if (Error e = HeadValue(m, "byte7", 7, m.byte7, r.byte7)) return e;
        if (Error e = HeadValue(m, "extWord", 8, m.extWord, r.extWord)) return e;
    }
    bool typeKnown = false;
    for (const Format &f : detail::Formats()) {
        if (f.channel != channel || f.headSize != m.headSize || (f.objType != kAny && f.objType != m.objType)) {
            continue;
        }
        typeKnown = true;
        if (f.opcode != kAny && f.opcode != m.opcode) continue;
        if (f.first != kAny && (m.items.empty() || m.items[0].type != f.first)) continue;
        return Apply(m, f);
    }
    if (channel == Channel::kToService) return Catalogue(m, typeKnown);
    return typeKnown ? UnknownOpcode(m) : UnknownObjectType(m);
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
        m.headSize = static_cast<uint8_t>(detail::HeadSize(channel, m.objType));
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
        if (!e) e = Classify(m, channel);
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
