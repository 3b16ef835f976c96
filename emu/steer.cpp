// The steering commands of a running emulated device: one JSON object in,
// one JSON object out ({"ok": true, ...} or {"ok": false, "error": text}).
//
//   {"cmd": "show", "table": NAME}          rows and aligned text ("all": every table;
//                                           "log": the log ring, decoded now)
//   {"cmd": "show", "table": NAME, "key": K} one row, K as shown ("7/1")
//   {"cmd": "count", "table": NAME}         rows per table, none rendered (no table: all)
//   {"cmd": "fault", "fault": "busy", "state": "on"|"off", "ms": N}
//   {"cmd": "fault", "fault": "slow", "us": N} / {"fault": "drop", "count": N}
//   {"cmd": "fault", "fault": "clear"} / {"fault": "restart"}
//   {"cmd": "log", "messages": true|false}  every message as a decoded line in the log
//   {"cmd": "answer", "code": C, "result": R}   item-37 result for code C (null: back to 0)
//   {"cmd": "notice", "value": V}           a notice (item 36) to every client
//   {"cmd": "event", "type": 2|3|6, "tag": T, "hex": H, "words": [...], "mask": M}
//   {"cmd": "node", "node": N, "state": "up"|"down"|"remove"}
//   {"cmd": "tunnel-mode", "ifindex": I, "mode": M}   (mode null: forget I)
//   {"cmd": "caps", "fill13": n, "fill21": n, "fill22": n, "fill33": n, "fill39": n}
//   {"cmd": "ident", "next": N}             the next identifier to allocate
//   {"cmd": "clear"}                        empty every table and the counters
//   {"cmd": "status"} / {"cmd": "stop"}
//   {"cmd": "trace", "buffer": BYTES}      the connection becomes a trace
//                                           subscriber (emu/trace.h; the server
//                                           serves it)
// Any request with "sync": true is answered only once the services (every
// forwarding and event connection, the control endpoint) have been read to
// their end, so that what was sent before it has been applied.
#include <fmt/format.h>

#include <ctime>

#include "device.h"
#include "wire.h"

namespace l2vfib::emu {

namespace {

int64_t NowMs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

Json Fail(const std::string &text) { return Json{{"ok", false}, {"error", text}}; }

// A number member, or otherwise when it is absent; throws on a wrong type
// (the caller turns that into an error answer).
uint64_t Number(const Json &request, const char *name, uint64_t otherwise) {
    if (!request.contains(name) || request[name].is_null()) return otherwise;
    return request[name].get<uint64_t>();
}

// An event record laid out from numbers, big-endian, in the widths of its
// item type (bytes not named stay zero):
//   3: word0 word1 half0                   (12 bytes)
//   6: word0 word1                         (40 bytes)
//   2: word0 word1 kind half0 word2 word3 word4 half1 word5 word6 word7 word8 (48 bytes)
std::optional<Bytes> EventValue(uint32_t type, const std::vector<uint64_t> &numbers) {
    struct Slot {
        size_t offset, width;
    };
    std::vector<Slot> slots;
    size_t size = 0;
    if (type == 3) {
        slots = {{0, 4}, {4, 4}, {8, 2}};
        size = 12;
    } else if (type == 6) {
        slots = {{0, 4}, {4, 4}};
        size = 40;
    } else if (type == 2) {
        slots = {{0, 4}, {4, 4}, {8, 1}, {10, 2}, {12, 4}, {16, 4},
                 {20, 4}, {24, 2}, {28, 4}, {32, 4}, {40, 4}, {44, 4}};
        size = 48;
    } else {
        return std::nullopt;
    }
    if (numbers.size() > slots.size()) return std::nullopt;
    Bytes value(size, 0);
    for (size_t i = 0; i < numbers.size(); ++i)
        for (size_t b = 0; b < slots[i].width; ++b)
            value[slots[i].offset + b] =
                static_cast<uint8_t>(numbers[i] >> (8 * (slots[i].width - 1 - b)));
    return value;
}

}  // namespace

Table Device::CountersTable() const {
    Table table("counters", "datagrams, messages and faults received; answers sent");
    const Counters &c = counters_;
    const std::pair<const char *, uint64_t> rows[] = {
        {"datagrams", c.datagrams}, {"messages", c.messages}, {"errors", c.errors},
        {"replies", c.replies},     {"ac-answers", c.acAnswers}, {"notices", c.notices},
        {"events", c.events},       {"controls", c.controls}, {"dropped", c.dropped},
        {"busy-spells", c.busySpells}, {"restarts", c.restarts}, {"steering-refused", c.refused},
        {"rows-refused", c.rowsRefused}, {"peers-refused", c.peersRefused},
        {"fault-busy", faults_.busy ? 1u : 0u}, {"fault-slow-us", faults_.slowUs},
        {"fault-drop-left", faults_.dropLeft}};
    uint64_t n = 0;
    for (const auto &[name, value] : rows) table.Put({n++}, Row{name, Json{{"value", value}}});
    return table;
}

Table Device::SettingsTable(const std::string &name) const {
    Table table(name, "");
    const Settings &s = settings_;
    if (name == "caps") {
        table.Put({0}, Row{"capabilities", Json{{"fill13", s.fill13}, {"fill21", s.fill21},
                                                {"fill22", s.fill22}, {"fill33", s.fill33},
                                                {"fill39", s.fill39},
                                                {"next-identifier", s.nextIdentifier},
                                                {"local-node", fmt::format("{:#06x}", s.localNode)}}});
    } else if (name == "answer") {
        for (const auto &[code, result] : s.answers)
            table.Put({code}, Row{fmt::format("cfg {}", code), Json{{"result", fmt::format("{:#x}", result)}}});
    } else if (name == "node") {
        for (const auto &[node, up] : s.nodes)
            table.Put({node}, Row{fmt::format("{:#06x}", node), Json{{"state", up ? "up" : "down"}}});
    } else if (name == "tunnel-mode") {
        for (const auto &[index, mode] : s.tunnelModes)
            table.Put({index}, Row{std::to_string(index), Json{{"mode", mode}}});
    }
    return table;
}

Json Device::ShowTable(const std::string &name) {
    auto render = [](const Table &table) {
        return Json{{"ok", true}, {"table", table.Name()}, {"rows", table.ToJson()}, {"text", table.Text()}};
    };
    if (name == "counters") return render(CountersTable());
    if (name == "caps" || name == "answer" || name == "node" || name == "tunnel-mode")
        return render(SettingsTable(name));
    if (name == "log") {
        Table log("log", "the device's log");
        for (const std::string &line : LogLines()) log.Append(Row{"", Json{{"text", line}}});
        return render(log);
    }
    auto rendered = [](const TableRef &table) { return table.rows ? *table.rows : table.messages->Rendered(); };
    if (name == "all") {
        Json tables = Json::object();
        std::string text;
        for (const TableRef &ref : order_) {
            const Table table = rendered(ref);
            tables[table.Name()] = table.ToJson();
            if (table.Size() == 0) continue;
            text += fmt::format("{} ({}):\n{}\n", table.Name(), table.About(), table.Text());
        }
        return Json{{"ok", true}, {"table", "all"}, {"tables", tables}, {"text", text}};
    }
    if (const TableRef *table = FindTable(name)) return render(rendered(*table));
    return Fail(fmt::format("no table '{}'", name));
}

bool Device::IsStreamed(const std::string &name) const {
    const TableRef *table = FindTable(name);
    return table != nullptr && table->messages != nullptr;
}

bool Device::StreamRows(const std::string &name, MessageTable::Key *from, size_t limit, bool json,
                        std::string *out) const {
    const TableRef *table = FindTable(name);
    if (table == nullptr || table->messages == nullptr) return false;
    Table block(name, "");
    const auto next = table->messages->RenderFrom(*from, limit, block);
    if (json) {
        for (const Json &row : block.ToJson()) {
            out->append(row.dump());
            out->push_back('\n');
        }
    } else {
        out->append(block.Text());
    }
    if (!next) return false;
    *from = *next;
    return true;
}

Json Device::ShowRow(const std::string &name, const std::string &key) {
    const TableRef *table = FindTable(name);
    if (table == nullptr) return Fail(fmt::format("no table '{}'", name));
    Table one(table->Name(), table->About());
    if (table->messages != nullptr) {
        // The key as shown: numbers joined by '/'. A tunnel is filed behind
        // its object type, 14 or 18, which the key does not show.
        std::vector<uint64_t> numbers;
        for (size_t from = 0; from <= key.size();) {
            const size_t slash = std::min(key.find('/', from), key.size());
            uint64_t value = 0;
            if (!ParseNumber(key.substr(from, slash - from), &value))
                return Fail(fmt::format("key '{}': numbers joined by '/'", key));
            numbers.push_back(value);
            from = slash + 1;
        }
        std::vector<std::vector<uint64_t>> keys{numbers};
        if (table->messages == &tunnel_) {
            keys = {numbers, numbers};
            keys[0].insert(keys[0].begin(), 14);
            keys[1].insert(keys[1].begin(), 18);
        }
        for (const auto &full : keys)
            if (auto row = table->messages->RenderOne(MessageTable::Pack(full))) one.Put(full, std::move(*row));
    } else {
        for (const auto &[numbers, row] : table->rows->Rows())
            if (row.key == key) one.Put(numbers, row);
    }
    if (one.Size() == 0) return Fail(fmt::format("{}: no row {}", name, key));
    return Json{{"ok", true}, {"table", name}, {"rows", one.ToJson()}, {"text", one.Text()}};
}

Json Device::CountTables(const std::string &name) {
    Json rows = Json::array();
    std::string text;
    for (const TableRef &table : order_) {
        if (!name.empty() && table.Name() != name) continue;
        rows.push_back(Json{{"key", table.Name()}, {"rows", table.Size()}});
        text += fmt::format("{:<10} {}\n", table.Name(), table.Size());
    }
    if (rows.empty()) return Fail(fmt::format("no table '{}'", name));
    return Json{{"ok", true}, {"rows", rows}, {"text", text}};
}

Json Device::SteerFault(const Json &request) {
    const std::string fault = request.value("fault", "");
    if (fault == "busy") {
        const std::string state = request.value("state", "on");
        if (state != "on" && state != "off") return Fail("busy: on, off, or --for MS");
        const uint64_t ms = Number(request, "ms", 0);
        if (state == "on") {
            if (!faults_.busy) ++counters_.busySpells;
            faults_.busy = true;
            faults_.busyUntilMs = ms == 0 ? 0 : NowMs() + static_cast<int64_t>(ms);
            Log(ms == 0 ? std::string("fault busy on: the forwarding service is not read")
                        : fmt::format("fault busy on for {} ms: the forwarding service is not read", ms));
        } else {
            faults_.busy = false;
            faults_.busyUntilMs = 0;
            Log("fault busy off");
        }
    } else if (fault == "slow") {
        const uint64_t us = Number(request, "us", 0);
        if (us > 10'000'000) return Fail("slow: at most 10000000 microseconds a datagram");
        faults_.slowUs = static_cast<uint32_t>(us);
        Log(fmt::format("fault slow: one forwarding datagram every {} us at most", us));
    } else if (fault == "drop") {
        faults_.dropLeft = Number(request, "count", 0);
        Log(fmt::format("fault drop: the next {} forwarding datagrams are dropped", faults_.dropLeft));
    } else if (fault == "clear") {
        faults_ = {};
        Log("fault clear: every fault ended");
    } else if (fault == "restart") {
        restartAsked_ = true;
        Log("fault restart: the services restart");
    } else {
        return Fail(fmt::format("unknown fault '{}': busy, slow, drop, clear or restart", fault));
    }
    return ShowTable("counters");
}

Json Device::SendEvent(const Json &request, std::vector<Outgoing> *toChannels) {
    const auto type = static_cast<uint32_t>(Number(request, "type", 0));
    const auto tag = static_cast<uint16_t>(Number(request, "tag", 0));
    std::optional<Bytes> value;
    if (request.contains("hex")) {
        value = decode::ParseHex(request["hex"].get<std::string>());
        if (!value) return Fail("hex: pairs of hex digits expected");
    } else {
        std::vector<uint64_t> words;
        if (request.contains("words")) words = request["words"].get<std::vector<uint64_t>>();
        value = EventValue(type, words);
        if (!value) return Fail(fmt::format("event type {}: types 2, 3 and 6, with at most their fields", type));
    }
    if (value->size() > 1400 - 12) return Fail("event value longer than a datagram");
    Bytes payload;
    wire::PutItem(payload, static_cast<uint16_t>(type), *value);
    const Bytes message = wire::Message(20, tag, 5, 0, payload);
    // The channels registered for it: every channel with a registration
    // whose mask shares a bit with the given mask (any registration when no
    // mask is given).
    const bool anyMask = !request.contains("mask");
    const uint64_t mask = Number(request, "mask", 0);
    std::set<uint64_t> targets;
    for (const auto &[key, row] : reg_.Rows())
        if (anyMask || (row.fields["mask"].get<uint64_t>() & mask) != 0) targets.insert(key.front());
    uint64_t sent = 0;
    for (const auto &[peer, id] : channelIds_) {
        if (!targets.contains(id) || !channel_.Find({id})) continue;
        toChannels->push_back(Outgoing{peer, message});
        ++sent;
        ++counters_.events;
        Log(fmt::format("{} < event item {} tag {} ({} bytes)", PeerText(peer), type, tag, value->size()));
    }
    return Json{{"ok", true}, {"sent", sent}};
}

Json Device::SetCaps(const Json &request) {
    uint8_t *counts[] = {&settings_.fill13, &settings_.fill21, &settings_.fill22, &settings_.fill33,
                         &settings_.fill39};
    const char *names[] = {"fill13", "fill21", "fill22", "fill33", "fill39"};
    for (size_t i = 0; i < 5; ++i) {
        const uint64_t value = Number(request, names[i], *counts[i]);
        if (value > 255) return Fail(fmt::format("{}: a count of 0 to 255", names[i]));
        *counts[i] = static_cast<uint8_t>(value);
    }
    return ShowTable("caps");
}

Json Device::Steer(const Json &request, std::vector<Outgoing> *toClients,
                   std::vector<Outgoing> *toChannels) {
    try {
        const std::string cmd = request.value("cmd", "");
        if (cmd == "status") return Json{{"ok", true}, {"counters", CountersTable().ToJson()}};
        if (cmd == "show") {
            if (request.contains("key")) return ShowRow(request.value("table", ""), request.value("key", ""));
            return ShowTable(request.value("table", "all"));
        }
        if (cmd == "count") return CountTables(request.value("table", ""));
        if (cmd == "fault") return SteerFault(request);
        if (cmd == "log") {
            logMessages_ = request.value("messages", false);
            Log(logMessages_ ? "every message is logged" : "messages are kept in the ring only");
            return Json{{"ok", true}};
        }
        if (cmd == "stop") {
            stopAsked_ = true;
            return Json{{"ok", true}};
        }
        if (cmd == "answer") {
            const auto code = static_cast<uint32_t>(Number(request, "code", 1000));
            if (!IsAnsweredCode(code)) return Fail(fmt::format("code {} is not answered", code));
            if (!request.contains("result") || request["result"].is_null())
                settings_.answers.erase(code);
            else
                settings_.answers[code] = static_cast<uint32_t>(Number(request, "result", 0));
            return ShowTable("answer");
        }
        if (cmd == "notice") {
            const auto value = static_cast<uint32_t>(Number(request, "value", 0));
            for (const Peer &client : clients_) {
                toClients->push_back(Outgoing{client, wire::WordMessage(1, 6, 36, value)});
                ++counters_.notices;
                Log(fmt::format("{} < notice {:#x}", PeerText(client), value));
            }
            return Json{{"ok", true}, {"sent", clients_.size()}};
        }
        if (cmd == "event") return SendEvent(request, toChannels);
        if (cmd == "node") {
            const auto node = static_cast<uint32_t>(Number(request, "node", 0x10000));
            if (node > 0xFFFF) return Fail("node: a number of 0 to 0xffff");
            const std::string state = request.value("state", "up");
            if (state == "remove")
                settings_.nodes.erase(node);
            else if (state == "up" || state == "down")
                settings_.nodes[node] = state == "up";
            else
                return Fail("state: up, down or remove");
            return ShowTable("node");
        }
        if (cmd == "tunnel-mode") {
            const auto index = static_cast<uint32_t>(Number(request, "ifindex", 0));
            if (!request.contains("mode") || request["mode"].is_null())
                settings_.tunnelModes.erase(index);
            else
                settings_.tunnelModes[index] = static_cast<uint32_t>(Number(request, "mode", 0));
            return ShowTable("tunnel-mode");
        }
        if (cmd == "caps") return SetCaps(request);
        if (cmd == "ident") {
            settings_.nextIdentifier = static_cast<uint32_t>(Number(request, "next", 1));
            return ShowTable("caps");
        }
        if (cmd == "clear") {
            for (const TableRef &table : order_) table.Clear();
            acData_.clear();
            counters_ = {};
            return Json{{"ok", true}};
        }
        return Fail(fmt::format("unknown command '{}'", cmd));
    } catch (const nlohmann::json::exception &e) {
        return Fail(std::string("bad request: ") + e.what());
    }
}

}  // namespace l2vfib::emu
