// How the emulated device applies what it receives. Entry tables follow
// the opcode: 5 adds or replaces, 7 deletes, and any other opcode (one the
// library only carries) is logged and the object kept as sent, with the
// opcode beside it. Member sets (EBG, MPLS EBG) grow with 5 and shrink with
// 7; a delete without members removes the group. Logs (MAC, graceful
// restart, tunnel interfaces, control calls) keep every message in order.
#include "device.h"

#include <fmt/format.h>

#include <ctime>

#include <algorithm>
#include <array>
#include <cstddef>

#include "control_proto.h"
#include "wire.h"

namespace l2vfib::emu {

using decode::Field;
using decode::FieldKind;
using decode::Item;
using decode::Kind;
using decode::Message;

namespace {

constexpr uint8_t kAdd = 5;
constexpr uint8_t kDelete = 7;
constexpr size_t kLogRecords = 1024;
// The result a bad request gets (the library's code for any failure).
constexpr uint32_t kBadRequestResult = 0x40010001;
// The most 16-byte entries one 4096-byte AC data answer holds.
constexpr size_t kAcDataMax = (host::kMaxDatagram - 12 - 8 - 8 - 4) / 16;

Json FieldJson(const Field &field) {
    if (field.kind == FieldKind::kNumber) return field.number;
    return field.Text();
}

// An item's decoded fields as one object (a repeated name gets "#2", ...),
// or its value in hex when the decoder named nothing in it.
Json ItemJson(const Item &item) {
    if (item.fields.empty()) return decode::ToHex(item.value);
    Json object = Json::object();
    for (const Field &field : item.fields) {
        std::string name = field.name;
        for (int n = 2; object.contains(name); ++n) name = fmt::format("{}#{}", field.name, n);
        object[name] = FieldJson(field);
    }
    return object;
}

// Every item but the key item, as "tlvNN": fields.
void PutItems(Json &fields, const Message &message, uint16_t skip) {
    for (const Item &item : message.items) {
        if (item.type == skip) continue;
        std::string name = fmt::format("tlv{}", item.type);
        for (int n = 2; fields.contains(name); ++n) name = fmt::format("tlv{}#{}", item.type, n);
        fields[name] = ItemJson(item);
    }
}

// A key as numbers (for order) and as text ("7/1").
struct Key {
    std::vector<uint64_t> numbers;
    std::string text;
};

void AddToKey(Key &key, const Field &field) {
    if (!key.text.empty()) key.text += '/';
    key.text += field.Text();
    uint64_t number = field.number;
    if (field.kind != FieldKind::kNumber) {
        number = 0;
        for (size_t i = 0; i < field.bytes.size() && i < 8; ++i) number = (number << 8) | field.bytes[i];
    }
    key.numbers.push_back(number);
}

Key KeyOf(const std::vector<Field> &fields) {
    Key key;
    for (const Field &field : fields) AddToKey(key, field);
    return key;
}

// The key of a message: the decoder's, or else the numbers of its first
// item (a catalogue object named by its only value).
Key MessageKey(const Message &message) {
    if (!message.key.empty()) return KeyOf(message.key);
    if (!message.items.empty()) return KeyOf(message.items.front().fields);
    return {};
}

// The key a table files a message under. A member set's is its key item,
// a designated forwarder's the words of item 153, a catalogue object's its
// object type before its key item ("2:100"). (An MPLS EBG key ends in an
// all-ones fill that the decoder names nothing, so it is not in the key.)
Key FiledKey(const Message &message) {
    const uint16_t keyItem = message.kind == Kind::kEbgMember       ? 154
                             : message.kind == Kind::kMplsEbgMember ? 202
                             : message.kind == Kind::kEbgDf         ? 153
                                                                    : 0;
    if (keyItem != 0) {
        const Item *item = message.FindItem(keyItem);
        return item ? KeyOf(item->fields) : MessageKey(message);
    }
    Key key = MessageKey(message);
    if (message.kind == Kind::kCatalogue) {
        key.numbers.insert(key.numbers.begin(), message.objType);
        key.text = fmt::format("{}:{}", message.objType, key.text.empty() ? "-" : key.text);
    }
    return key;
}

uint16_t KeyItemOf(Kind kind) {
    switch (kind) {
        case Kind::kPw: return 10;
        case Kind::kMinM: return 40;
        case Kind::kAc: return 20;
        case Kind::kOverlayTunnel: return 70;
        default: return 0;
    }
}


}  // namespace

bool IsAnsweredCode(uint32_t code) {
    static const std::set<uint32_t> kAnswered{4,  6,  7,  8,  18, 19, 26, 27, 29, 30, 34, 35, 42,
                                              44, 50, 51, 52, 53, 60, 81, 82, 83, 86, 87, 91};
    return kAnswered.contains(code);
}

namespace {

// An entry table's row, from the message that made it: the key as text,
// the object type of a tunnel, header byte 7, the opcode when it is not an
// add, and every item but the key item.
std::optional<Row> EntryRow(std::span<const uint8_t> bytes) {
    const decode::Decoded decoded = decode::Decode(bytes, decode::Channel::kToService);
    if (!decoded.ok() || decoded.messages.size() != 1) return std::nullopt;
    const Message &message = decoded.messages.front();
    Row row{MessageKey(message).text};
    if (message.kind == Kind::kOverlayTunnel) row.fields["objtype"] = message.objType;
    row.fields["byte7"] = message.byte7;
    if (message.opcode != kAdd) row.fields["op"] = message.opcode;
    PutItems(row.fields, message, KeyItemOf(message.kind));
    return row;
}

// The tables by the kinds of message they keep.
std::string_view TableName(Kind kind) {
    switch (kind) {
        case Kind::kCatalogue: return "cfg";
        case Kind::kPw: return "pw";
        case Kind::kMinM: return "minm";
        case Kind::kAc: return "ac";
        case Kind::kAcFlag: return "ac-flag";
        case Kind::kMacWithdraw:
        case Kind::kMacReset: return "mac";
        case Kind::kGrEvent: return "gr";
        case Kind::kOverlayTunnel: return "tunnel";
        case Kind::kTunnelIfDel: return "tunnel-if";
        case Kind::kEbgMember: return "ebg";
        case Kind::kMplsEbgMember: return "mpls-ebg";
        case Kind::kEbgDf: return "ebg-df";
        case Kind::kEventChannel: return "channel";
        case Kind::kEventReg: return "reg";
        case Kind::kControl: return "control";
        default: return "";
    }
}

int64_t WallMs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

}  // namespace

std::string ClockText(int64_t wallMs) {
    const time_t seconds = static_cast<time_t>(wallMs / 1000);
    tm local{};
    localtime_r(&seconds, &local);
    return fmt::format("{:02}:{:02}:{:02}.{:03}", local.tm_hour, local.tm_min, local.tm_sec, wallMs % 1000);
}

std::string PeerLine(const Peer &peer, bool fromDevice, const std::string &text) {
    return fmt::format("{} {} {}", PeerText(peer), fromDevice ? '<' : '>', text);
}

std::string MessageLine(const Peer &peer, bool fromDevice, const Message &message) {
    return PeerLine(peer, fromDevice, decode::Render(message));
}

std::string TableOf(const Message &message) { return std::string(TableName(message.kind)); }

std::string TableKeyOf(const Peer &peer, const Message &message) {
    if (message.kind == Kind::kEventChannel || message.kind == Kind::kEventReg) return PeerText(peer);
    return FiledKey(message).text;
}

Device::Device(std::function<void(const std::string &)> log)
    : log_(std::move(log)),
      pw_("pw", "pseudowires: key id/subId, header byte 7, TLV 13 and 12", EntryRow),
      minm_("minm", "MAC-in-MAC entries: key id/subId, TLV 41, 42 and 43", EntryRow),
      ac_("ac", "attachment circuits: key id/subId, TLV 22 information, TLV 144 option", EntryRow),
      tunnel_("tunnel", "overlay tunnels: key words of TLV 70, object type 14 or 18, TLV 71", EntryRow),
      ring_(kLogRecords) {
    order_ = {{nullptr, &pw_}, {nullptr, &minm_}, {nullptr, &ac_}, {&acFlag_, nullptr},
              {nullptr, &tunnel_}, {&tunnelIf_, nullptr}, {&ebg_, nullptr}, {&mplsEbg_, nullptr},
              {&ebgDf_, nullptr}, {&mac_, nullptr}, {&gr_, nullptr}, {&cfg_, nullptr},
              {&channel_, nullptr}, {&reg_, nullptr}, {&control_, nullptr}};
}

LogRecord &Device::NextRecord() {
    LogRecord &record = ring_[ringNext_];
    ringNext_ = (ringNext_ + 1) % ring_.size();
    record.seq = ++logSeq_;
    record.timeMs = WallMs();
    return record;
}

void Device::Log(const std::string &line) {
    if (log_) log_(line);
    LogRecord &record = NextRecord();
    record.what = LogRecord::What::kText;
    record.peer.clear();
    record.text = line;
    record.bytes.clear();
}

void Device::Keep(LogRecord::What what, const Peer &peer, std::span<const uint8_t> datagram) {
    LogRecord &record = NextRecord();
    record.what = what;
    record.peer = peer;
    record.text.clear();
    record.bytes.assign(datagram.begin(), datagram.end());
    if (!logMessages_ || !log_) return;
    const auto channel = what == LogRecord::What::kToService ? decode::Channel::kToService
                                                             : decode::Channel::kToEvent;
    for (const Message &message : decode::Decode(datagram, channel).messages)
        if (!message.error) log_(MessageLine(peer, false, message));
}

std::vector<std::string> Device::LogLines() const {
    std::vector<std::string> lines;
    for (size_t n = 0; n < ring_.size(); ++n) {
        const LogRecord &record = ring_[(ringNext_ + n) % ring_.size()];
        if (record.seq == 0) continue;
        const std::string when = ClockText(record.timeMs);
        if (record.what == LogRecord::What::kText) {
            lines.push_back(fmt::format("{} {}", when, record.text));
            continue;
        }
        const auto channel = record.what == LogRecord::What::kToService ? decode::Channel::kToService
                                                                        : decode::Channel::kToEvent;
        for (const Message &message : decode::Decode(record.bytes, channel).messages)
            if (!message.error)
                lines.push_back(fmt::format("{} {}", when, MessageLine(record.peer, false, message)));
    }
    return lines;
}

void Device::Keep(MessageTable &table, const MessageTable::Key &key, std::span<const uint8_t> message) {
    if (!table.Put(key, message))
        Refuse(fmt::format("{}: a table holds at most {} rows", table.Name(), kMaxRows));
}

void Device::Refuse(const std::string &why) {
    // Logged once per kind of refusal, counted always.
    if (counters_.rowsRefused++ == 0 || refusedWhy_ != why) Log(fmt::format("refused: {}", why));
    refusedWhy_ = why;
}

void Device::CountRefused(uint32_t uid, int32_t pid) {
    ++counters_.refused;
    Log(fmt::format("steering refused: the peer (uid {}, pid {}) is not this device's user", uid, pid));
}

void Device::CountPeerRefused(const std::string &line) {
    ++counters_.peersRefused;
    if (!line.empty()) Log(line);
}

void Device::DropClient(const Peer &peer) {
    if (std::erase(clients_, peer) != 0) Log(fmt::format("{} is gone", PeerText(peer)));
}

const Device::TableRef *Device::FindTable(const std::string &name) const {
    for (const TableRef &table : order_)
        if (table.Name() == name) return &table;
    return nullptr;
}

void Device::Tick(int64_t nowMs) {
    if (faults_.busy && faults_.busyUntilMs != 0 && nowMs >= faults_.busyUntilMs) {
        faults_.busy = false;
        faults_.busyUntilMs = 0;
        Log("fault busy off: its time is up");
    }
}

void Device::Restarted() {
    restartAsked_ = false;
    for (const TableRef &table : order_) table.Clear();
    acData_.clear();
    clients_.clear();
    channelIds_.clear();
    nextChannelId_ = 1;
    nextReg_ = 1;
    acFlagMessages_ = 0;
    ++counters_.restarts;
    Log("service restarted: every table and event channel emptied, every connection closed");
}

// ---------------------------------------------------------------------------
// Forwarding service
// ---------------------------------------------------------------------------

namespace {

uint16_t Be16(const uint8_t *p) { return static_cast<uint16_t>((p[0] << 8) | p[1]); }

// True when the message at m (size bytes, header included) is a pseudowire
// add or delete that the decoder accepts: object type 3, tag 0, opcode 5
// with item 10 then at most one item 13 and one item 12, or opcode 7 with
// item 10 alone; item 10 eight bytes ending in two zeros, item 13 at least
// 28 bytes (byte 27 zero, the rest all ones, in whole words), item 12
// whole 24-byte sub-records.
bool SoundPw(const uint8_t *m, size_t size) {
    if (Be16(m) != 3 || Be16(m + 4) != 0) return false;
    const uint8_t opcode = m[6];
    if (opcode != kAdd && opcode != kDelete) return false;
    size_t pos = 8;
    if (size - pos < 12 || Be16(m + pos) != 10 || Be16(m + pos + 2) != 8 || m[pos + 10] != 0 ||
        m[pos + 11] != 0)
        return false;
    pos += 12;
    if (opcode == kDelete) return pos == size;
    if (size - pos >= 4 && Be16(m + pos) == 13) {
        const size_t length = Be16(m + pos + 2);
        if (length < 28 || (length - 28) % 4 != 0 || size - pos - 4 < length || m[pos + 4 + 27] != 0)
            return false;
        for (size_t k = 28; k < length; ++k)
            if (m[pos + 4 + k] != 0xFF) return false;
        pos += 4 + length;
    }
    if (size - pos >= 4 && Be16(m + pos) == 12) {
        const size_t length = Be16(m + pos + 2);
        if (length % 24 != 0 || size - pos - 4 < length) return false;
        pos += 4 + length;
    }
    return pos == size;
}

}  // namespace

bool Device::FastPw(std::span<const uint8_t> datagram) {
    const uint8_t *d = datagram.data();
    const size_t n = datagram.size();
    size_t pos = 0;
    while (pos < n) {
        if (n - pos < 8) return false;
        const size_t size = 8 + static_cast<size_t>(Be16(d + pos + 2));
        if (n - pos < size || !SoundPw(d + pos, size)) return false;
        pos += size;
    }
    if (n == 0) return false;
    for (pos = 0; pos < n;) {
        const uint8_t *m = d + pos;
        const size_t size = 8 + static_cast<size_t>(Be16(m + 2));
        const MessageTable::Key key{wire::Get32(m + 12), Be16(m + 16), 0};
        ++counters_.messages;
        if (m[6] == kAdd)
            Keep(pw_, key, {m, size});
        else if (!pw_.Erase(key))
            Log(fmt::format("pw {}/{}: delete of an unknown entry", key[0], key[1]));
        pos += size;
    }
    return true;
}

std::vector<Outgoing> Device::Forwarding(const Peer &from, bool fresh, std::span<const uint8_t> datagram) {
    ++counters_.datagrams;
    if (faults_.dropLeft > 0) {
        --faults_.dropLeft;
        ++counters_.dropped;
        Log(fmt::format("fault drop: datagram from {} ({} bytes) dropped, {} more to drop", PeerText(from),
                        datagram.size(), faults_.dropLeft));
        return {};
    }
    Keep(LogRecord::What::kToService, from, datagram);
    // A batch of pseudowires never answers and comes from a daemon's
    // service socket.
    if (FastPw(datagram)) {
        if (std::find(clients_.begin(), clients_.end(), from) == clients_.end()) clients_.push_back(from);
        return {};
    }
    const decode::Decoded decoded = decode::Decode(datagram, decode::Channel::kToService);
    bool messageFault = false;
    for (const Message &message : decoded.messages) {
        if (!Accept(message, fmt::format("message from {} ({} bytes)", PeerText(from),
                                         datagram.size()))) {
            messageFault = true;
            continue;
        }
        Apply(message, datagram);
    }
    if (decoded.error && !messageFault) {
        ++counters_.errors;
        Log(fmt::format("bad datagram from {} ({} bytes): {} [{} at offset {}]", PeerText(from),
                        datagram.size(), decoded.error.text, decode::ErrcName(decoded.error.code),
                        decoded.error.offset));
    }

    std::vector<Outgoing> out;
    if (decoded.ok() && decoded.messages.size() == 1) {
        if (auto answer = Answer(from, decoded.messages.front(), fresh)) out.push_back(std::move(*answer));
    } else if (!decoded.ok() && fresh && decoded.messages.size() <= 1) {
        // A bad request on a fresh socket: its sender waits for a reply, so
        // it gets a failure rather than silence.
        const uint16_t objType = decoded.messages.empty() ? 0 : decoded.messages.front().objType;
        const uint8_t opcode = decoded.messages.empty() ? 0 : decoded.messages.front().opcode;
        ++counters_.replies;
        Log(fmt::format("{} < reply 37 result {:#x} to a bad request", PeerText(from), kBadRequestResult));
        out.push_back(Outgoing{from, wire::WordMessage(objType, opcode, 37, kBadRequestResult)});
    }
    // Every sender but a fresh socket that waits for its reply is a
    // daemon's service socket: notices go there.
    const bool requestSocket =
        fresh && !out.empty() && (decoded.messages.empty() || decoded.messages.front().kind != Kind::kAcQuery);
    if (!requestSocket && std::find(clients_.begin(), clients_.end(), from) == clients_.end())
        clients_.push_back(from);
    return out;
}

// The answers. The AC data query is answered on the socket it came on. A
// request that waits for a reply comes alone from a fresh socket: an
// answered catalogue command gets item 37, an identifier allocation
// (object type 29) item 184. Everything else is not answered.
std::optional<Outgoing> Device::Answer(const Peer &from, const Message &message, bool fresh) {
    if (message.kind == Kind::kAcQuery) {
        ++counters_.acAnswers;
        Log(fmt::format("{} < ac data answer, {} entries", PeerText(from),
                        std::min(acData_.size(), kAcDataMax)));
        return Outgoing{from, AcDataAnswer()};
    }
    if (!fresh || message.kind != Kind::kCatalogue) return std::nullopt;
    if (message.objType == 29) {
        const uint32_t identifier = settings_.nextIdentifier++;
        ++counters_.replies;
        Log(fmt::format("{} < reply 184 identifier {}", PeerText(from), identifier));
        return Outgoing{from, wire::WordMessage(message.objType, message.opcode, 184, identifier)};
    }
    for (uint8_t code : message.codes) {
        if (!IsAnsweredCode(code)) continue;
        const auto set = settings_.answers.find(code);
        const uint32_t result = set == settings_.answers.end() ? 0 : set->second;
        ++counters_.replies;
        Log(fmt::format("{} < reply 37 cfg {} result {:#x}", PeerText(from), code, result));
        return Outgoing{from, wire::WordMessage(message.objType, message.opcode, 37, result)};
    }
    return std::nullopt;
}

Bytes Device::AcDataAnswer() const {
    Bytes entries;
    uint32_t count = 0;
    for (const auto &[key, entry] : acData_) {
        if (count == kAcDataMax) break;
        entries.insert(entries.end(), entry.begin(), entry.end());
        ++count;
    }
    return wire::AcDataAnswer(entries, count);
}

void Device::ApplyEntry(MessageTable &table, const Message &message, std::span<const uint8_t> datagram,
                        const std::vector<uint64_t> &key, const std::string &keyText) {
    if (message.opcode == kDelete) {
        if (!table.Erase(MessageTable::Pack(key))) Log(fmt::format("{} {}: delete of an unknown entry", table.Name(), keyText));
        return;
    }
    if (message.opcode != kAdd)
        Log(fmt::format("{} {}: opcode {} carried, kept as sent", table.Name(), keyText, message.opcode));
    Keep(table, MessageTable::Pack(key), datagram.subspan(message.offset, message.size));
}

void Device::ApplyMembers(Table &table, const Message &message, uint16_t memberItem) {
    const Key key = FiledKey(message);
    std::vector<std::string> members;
    for (const Item &item : message.items) {
        if (item.type != memberItem) continue;
        members.push_back(KeyOf(item.fields).text);
    }
    Row *row = table.Find(key.numbers);
    std::vector<std::string> set;
    if (row != nullptr)
        for (const auto &member : row->fields["members"]) set.push_back(member.get<std::string>());
    if (message.opcode == kDelete) {
        if (members.empty()) {
            table.Erase(key.numbers);
            return;
        }
        std::erase_if(set, [&](const std::string &m) {
            return std::find(members.begin(), members.end(), m) != members.end();
        });
        if (set.empty()) {
            table.Erase(key.numbers);
            return;
        }
    } else {
        if (message.opcode != kAdd)
            Log(fmt::format("{} {}: opcode {} carried, kept as sent", table.Name(), key.text,
                            message.opcode));
        for (const auto &member : members) {
            if (std::find(set.begin(), set.end(), member) != set.end()) continue;
            if (set.size() >= kMaxMembers) {
                Refuse(fmt::format("{} {}: a set holds at most {} members", table.Name(), key.text, kMaxMembers));
                break;
            }
            set.push_back(member);
        }
    }
    Row updated{key.text};
    updated.fields["byte7"] = message.byte7;
    if (message.opcode != kAdd && message.opcode != kDelete) updated.fields["op"] = message.opcode;
    updated.fields["count"] = set.size();
    updated.fields["members"] = set;
    table.Put(key.numbers, std::move(updated));
}

void Device::Apply(const Message &message, std::span<const uint8_t> datagram) {
    switch (message.kind) {
        case Kind::kPw:
        case Kind::kMinM:
        case Kind::kOverlayTunnel: {
            MessageTable &table = message.kind == Kind::kPw     ? pw_
                                  : message.kind == Kind::kMinM ? minm_
                                                                : tunnel_;
            Key key = MessageKey(message);
            if (&table == &tunnel_) key.numbers.insert(key.numbers.begin(), message.objType);
            ApplyEntry(table, message, datagram, key.numbers, key.text);
            return;
        }
        case Kind::kAc: {
            const Key key = MessageKey(message);
            ApplyEntry(ac_, message, datagram, key.numbers, key.text);
            if (message.opcode == kDelete) {
                acData_.erase(key.numbers);
                return;
            }
            // The AC data entry: word0 id, half0 subId, byte0 the
            // information's byte0, byte1 1 with an option, half1 and half2
            // the information's half1 and half2, word1 its word0.
            std::array<uint8_t, 16> entry{};
            const uint32_t id = key.numbers.size() > 0 ? static_cast<uint32_t>(key.numbers[0]) : 0;
            const uint32_t sub = key.numbers.size() > 1 ? static_cast<uint32_t>(key.numbers[1]) : 0;
            Bytes be;
            wire::Put32(be, id);
            wire::Put16(be, static_cast<uint16_t>(sub));
            if (const Item *info = message.FindItem(22); info && info->value.size() >= 44) {
                const auto &v = info->value;
                be.push_back(v[8]);
                be.push_back(message.FindItem(144) ? 1 : 0);
                be.insert(be.end(), v.begin() + 40, v.begin() + 44);
                be.insert(be.end(), v.begin() + 4, v.begin() + 8);
            }
            be.resize(16, 0);
            std::copy(be.begin(), be.end(), entry.begin());
            acData_[key.numbers] = entry;
            return;
        }
        case Kind::kAcFlag: {
            ++acFlagMessages_;
            const bool set = message.opcode == 17;
            acFlag_.Put({0}, Row{"flag", Json{{"state", set ? "set" : "clear"},
                                              {"opcode", message.opcode},
                                              {"messages", acFlagMessages_}}});
            return;
        }
        case Kind::kAcQuery: return;  // answered, changes nothing
        case Kind::kMacWithdraw: {
            Row row{"", Json{{"action", "withdraw"}, {"entry", MessageKey(message).text}}};
            mac_.Append(std::move(row));
            return;
        }
        case Kind::kGrEvent:
            gr_.Append(Row{"", Json{{"opcode", message.opcode},
                                    {"event", message.opcode == 3 ? "kind 3" : "kind 4"},
                                    {"byte7", message.byte7}}});
            return;
        case Kind::kTunnelIfDel: {
            const Item *index = message.FindItem(72);
            const uint32_t ifIndex = index && index->value.size() == 4 ? wire::Get32(index->value.data()) : 0;
            tunnelIf_.Append(Row{"", Json{{"ifindex", ifIndex},
                                          {"objtype", message.objType},
                                          {"byte7", message.byte7}}});
            return;
        }
        case Kind::kEbgMember: ApplyMembers(ebg_, message, 156); return;
        case Kind::kMplsEbgMember: ApplyMembers(mplsEbg_, message, 204); return;
        case Kind::kEbgDf: {
            const Key key = FiledKey(message);
            if (message.opcode == kDelete) {
                if (!ebgDf_.Erase(key.numbers)) Log(fmt::format("ebg-df {}: delete of an unknown entry", key.text));
                return;
            }
            Row row{key.text, Json{{"byte7", message.byte7}}};
            if (message.opcode != kAdd) {
                row.fields["op"] = message.opcode;
                Log(fmt::format("ebg-df {}: opcode {} carried, kept as sent", key.text, message.opcode));
            }
            ebgDf_.Put(key.numbers, std::move(row));
            return;
        }
        case Kind::kCatalogue: {
            const Key key = FiledKey(message);
            const std::string &text = key.text;
            if (message.opcode == kDelete) {
                if (!cfg_.Erase(key.numbers)) Log(fmt::format("cfg {}: delete of an unknown object", text));
                return;
            }
            Row row{text};
            std::vector<int> codes(message.codes.begin(), message.codes.end());
            row.fields["cmd"] = codes;
            row.fields["op"] = message.opcode;
            if (message.opcode != kAdd)
                Log(fmt::format("cfg {}: opcode {} carried, kept as sent", text, message.opcode));
            PutItems(row.fields, message, 0);
            cfg_.Put(key.numbers, std::move(row));
            return;
        }
        default:
            Log(fmt::format("{}: not a forwarding message, ignored", message.name));
            return;
    }
}

// ---------------------------------------------------------------------------
// Event service
// ---------------------------------------------------------------------------

bool Device::Accept(const Message &message, const std::string &what) {
    ++counters_.messages;
    if (!message.error) return true;
    ++counters_.errors;
    Log(fmt::format("bad {}: {} [{} at offset {}], skipped", what, message.error.text,
                    decode::ErrcName(message.error.code), message.error.offset));
    return false;
}

void Device::Event(const Peer &from, std::span<const uint8_t> datagram) {
    ++counters_.datagrams;
    const decode::Decoded decoded = decode::Decode(datagram, decode::Channel::kToEvent);
    auto [slot, added] = channelIds_.try_emplace(from, nextChannelId_);
    if (added) ++nextChannelId_;
    const uint64_t id = slot->second;
    const std::string who = PeerText(from);
    Keep(LogRecord::What::kToEvent, from, datagram);
    bool messageFault = false;
    for (const Message &message : decoded.messages) {
        if (!Accept(message, "event message from " + who)) {
            messageFault = true;
            continue;
        }
        if (message.kind == Kind::kEventChannel) {
            const Item *word = message.FindItem(0);
            // The channel word travels in the client's own byte order; the
            // decoder reads it as this host's.
            const uint64_t value = word && !word->fields.empty() ? word->fields.front().number : 0;
            if (message.opcode == kDelete) {
                channel_.Erase({id});
                for (auto it = reg_.Rows().begin(); it != reg_.Rows().end();) {
                    auto next = std::next(it);
                    if (it->first.front() == id) reg_.Erase(it->first);
                    it = next;
                }
                Log(fmt::format("channel {} closed (word {})", who, value));
            } else {
                channel_.Put({id}, Row{who, Json{{"word", value}, {"state", "open"}}});
            }
        } else if (message.kind == Kind::kEventReg) {
            const Item *reg = message.FindItem(1);
            const Item *param = message.FindItem(4);
            std::vector<uint64_t> selector;
            uint64_t mask = 0, extra = 0;
            if (reg != nullptr && reg->value.size() >= 16) {
                for (int i = 0; i < 3; ++i) selector.push_back(wire::Get32(reg->value.data() + 4 * i));
                mask = wire::Get16(reg->value.data() + 12);
                extra = wire::Get16(reg->value.data() + 14);
            }
            const uint64_t eventParam =
                param != nullptr && param->value.size() >= 4 ? wire::Get32(param->value.data()) : 0;
            if (message.opcode == kDelete) {
                // A deregistration names selector word 0 and the mask.
                bool removed = false;
                for (auto it = reg_.Rows().begin(); it != reg_.Rows().end();) {
                    auto next = std::next(it);
                    const Json &f = it->second.fields;
                    if (it->first.front() == id && !selector.empty() &&
                        f["selector"][0] == selector[0] && f["mask"] == mask) {
                        reg_.Erase(it->first);
                        removed = true;
                    }
                    it = next;
                }
                if (!removed) Log(fmt::format("deregistration from {} matches nothing", who));
            } else {
                if (!channel_.Find({id})) Log(fmt::format("registration from {} without an open channel", who));
                Json fields{{"selector", selector}, {"mask", mask}, {"param", eventParam}, {"extra", extra}};
                reg_.Put({id, nextReg_}, Row{fmt::format("{}/{}", who, nextReg_), fields});
                ++nextReg_;
            }
        }
    }
    if (decoded.error && !messageFault) {
        ++counters_.errors;
        Log(fmt::format("bad event datagram from {}: {} [{} at offset {}]", who, decoded.error.text,
                        decode::ErrcName(decoded.error.code), decoded.error.offset));
    }
}

// ---------------------------------------------------------------------------
// Control calls and device services
// ---------------------------------------------------------------------------

std::optional<Bytes> Device::Control(std::span<const uint8_t> request) {
    host::ControlRequest call{};
    if (!host::DecodeRequest(request.data(), request.size(), &call)) {
        ++counters_.errors;
        Log(fmt::format("bad control request ({} bytes), dropped", request.size()));
        return std::nullopt;
    }
    ++counters_.controls;
    host::ControlAnswer answer{};
    answer.op = call.op;
    answer.sequence = call.sequence;
    Bytes data;
    const std::span<const uint8_t> input(call.input, call.inputLength);
    switch (call.op) {
        case host::kOpIoctl:
        case host::kOpIoctlAsync: {
            const bool async = call.op == host::kOpIoctlAsync;
            std::string what = fmt::format("code {:#x}", call.arg1);
            switch (call.arg1) {
                case 0x440002: {
                    what = "capabilities";
                    data.assign(64, 0);
                    data[8] = settings_.fill22;
                    data[9] = settings_.fill13;
                    data[10] = settings_.fill21;
                    data[11] = settings_.fill33;
                    data[40] = settings_.fill39;
                    if (data.size() > call.arg2) data.resize(call.arg2);
                    break;
                }
                case 0x440003: {
                    what = "mac reset";
                    const decode::Decoded reset = decode::DecodeControl(call.arg1, input);
                    uint64_t value = 0;
                    if (!reset.ok()) {
                        ++counters_.errors;
                        Log(fmt::format("bad mac reset for node {:#06x}: {}", call.arg0, reset.error.text));
                        answer.result = 1;
                    } else if (const Item *item = reset.messages.front().FindItem(34);
                               item && item->value.size() == 4) {
                        value = wire::Get32(item->value.data());
                    }
                    if (reset.ok())
                        mac_.Append(Row{"", Json{{"action", "reset"},
                                                 {"node", fmt::format("{:#06x}", call.arg0)},
                                                 {"value", value}}});
                    break;
                }
                case 0x440005: what = "start"; break;
                case 0x440006: what = "stop"; break;
                case 0x44000c: what = "vlan range check"; break;
                default: answer.result = 1; break;
            }
            Json fields{{"call", what},
                        {"node", fmt::format("{:#06x}", call.arg0)},
                        {"async", async},
                        {"input", input.empty() ? std::string("-") : decode::ToHex(input)},
                        {"result", answer.result}};
            control_.Append(Row{"", std::move(fields)});
            Log(fmt::format("control {} to node {:#06x} ({} input bytes): result {}", what, call.arg0,
                            input.size(), answer.result));
            if (async) return std::nullopt;
            break;
        }
        case host::kOpGetAllNodes: {
            std::vector<uint16_t> nodes;
            for (const auto &[node, up] : settings_.nodes) nodes.push_back(static_cast<uint16_t>(node));
            data.resize(nodes.size() * 2);
            host::EncodeNodeList(nodes.data(), static_cast<uint32_t>(nodes.size()), data.data(), data.size());
            break;
        }
        case host::kOpIsNodeUp: {
            const auto node = settings_.nodes.find(call.arg0);
            answer.result = node != settings_.nodes.end() && node->second ? 1 : 0;
            break;
        }
        case host::kOpGetLocalLip: answer.result = settings_.localNode; break;
        case host::kOpTunnelGetMode: {
            const auto mode = settings_.tunnelModes.find(call.arg0);
            if (mode == settings_.tunnelModes.end()) {
                answer.result = 1;
                Log(fmt::format("tunnel mode of unknown interface {}", call.arg0));
            } else {
                data.resize(4);
                host::PutWord(mode->second, data.data());
            }
            break;
        }
        default: return std::nullopt;
    }
    answer.data = data.data();
    answer.dataLength = static_cast<uint32_t>(data.size());
    Bytes out(host::kMaxDatagram);
    const size_t length = host::EncodeAnswer(answer, out.data(), out.size());
    if (length == 0) return std::nullopt;
    out.resize(length);
    return out;
}

}  // namespace l2vfib::emu
