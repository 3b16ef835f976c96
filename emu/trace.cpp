// The trace's records on the steering stream, and the client that follows
// them: each datagram decoded, filtered by table and key, and printed as
// the log prints it or as JSON lines.
#include "trace.h"

#include <fmt/format.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <nlohmann/json.hpp>

#include "control_proto.h"
#include "device.h"
#include "server.h"
#include "wire.h"

namespace l2vfib::emu {

namespace {

constexpr size_t kHead = 4 + 12;  // the size field and the fixed fields
constexpr size_t kMaxRecord = 12 + 255 + 65536;

void PutHead(std::string &out, uint32_t size, uint8_t kind, uint8_t dir, uint8_t service,
             uint8_t peerLength, int64_t timeUs) {
    uint8_t head[kHead];
    for (int i = 0; i < 4; ++i) head[i] = static_cast<uint8_t>(size >> (24 - 8 * i));
    head[4] = kind;
    head[5] = dir;
    head[6] = service;
    head[7] = peerLength;
    const auto time = static_cast<uint64_t>(timeUs);
    for (int i = 0; i < 8; ++i) head[8 + i] = static_cast<uint8_t>(time >> (56 - 8 * i));
    out.append(reinterpret_cast<const char *>(head), sizeof head);
}

uint64_t Be64(const uint8_t *in) {
    return static_cast<uint64_t>(wire::Get32(in)) << 32 | wire::Get32(in + 4);
}

}  // namespace

size_t TraceRecordSize(std::string_view peer, size_t datagram) {
    return kHead + std::min<size_t>(peer.size(), 255) + datagram;
}

void AppendTraceRecord(std::string &out, bool fromDevice, int service, std::string_view peer,
                       int64_t timeUs, std::span<const uint8_t> datagram) {
    const size_t peerLength = std::min<size_t>(peer.size(), 255);
    PutHead(out, static_cast<uint32_t>(TraceRecordSize(peer, datagram.size()) - 4), 0, fromDevice ? 1 : 0,
            static_cast<uint8_t>(service), static_cast<uint8_t>(peerLength), timeUs);
    out.append(peer.data(), peerLength);
    out.append(reinterpret_cast<const char *>(datagram.data()), datagram.size());
}

void AppendDroppedRecord(std::string &out, uint64_t count, int64_t timeUs) {
    PutHead(out, kDroppedRecordSize - 4, 1, 0, 0, 0, timeUs);
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>(count >> (56 - 8 * i)));
}

std::optional<TraceRecord> TakeTraceRecord(std::string &in, bool *bad) {
    *bad = false;
    if (in.size() < kHead) return std::nullopt;
    const auto *p = reinterpret_cast<const uint8_t *>(in.data());
    const uint32_t size = wire::Get32(p);
    if (size < kHead - 4 || size > kMaxRecord || p[4] > 1 || p[5] > 1 || p[6] > 2 ||
        size < kHead - 4 + p[7] || (p[4] == 1 && size != kDroppedRecordSize - 4)) {
        *bad = true;
        return std::nullopt;
    }
    if (in.size() < 4 + size) return std::nullopt;
    TraceRecord record;
    record.dropped = p[4] == 1;
    record.fromDevice = p[5] == 1;
    record.service = p[6];
    record.timeUs = static_cast<int64_t>(Be64(p + 8));
    record.peer.assign(in.data() + kHead, p[7]);
    record.datagram.assign(p + kHead + p[7], p + 4 + size);
    if (record.dropped) record.count = Be64(record.datagram.data());
    in.erase(0, 4 + size);
    return record;
}

namespace {

// One line of the trace: where the device files what it shows, the line as
// the log prints it, and its JSON form.
struct Shown {
    std::string table, kind, key, line;
    nlohmann::json json;
};

nlohmann::json Frame(const TraceRecord &r, const std::string &channel) {
    return {{"time", ClockText(r.timeUs / 1000)},
            {"peer", r.peer},
            {"direction", r.fromDevice ? "out" : "in"},
            {"channel", channel}};
}

void AddMessages(const TraceRecord &r, const decode::Decoded &decoded, const std::string &channel,
                 std::vector<Shown> *out) {
    bool faultShown = false;
    for (const decode::Message &m : decoded.messages) {
        Shown s{TableOf(m), std::string(decode::KindName(m.kind)), TableKeyOf(r.peer, m),
                MessageLine(r.peer, r.fromDevice, m), Frame(r, channel)};
        s.json["table"] = s.table;
        s.json["key"] = s.key;
        s.json["message"] = decode::ToJson(m);
        faultShown = faultShown || m.error.text == decoded.error.text;
        out->push_back(std::move(s));
    }
    if (decoded.error && !faultShown) {
        Shown s{"", "", "", PeerLine(r.peer, r.fromDevice, decode::Render(decoded.error)), Frame(r, channel)};
        s.json["error"] = decode::ToJson(decoded.error);
        out->push_back(std::move(s));
    }
}

// A control datagram: a call's input decoded (capabilities, start, stop,
// MAC reset, VLAN range check), the head of the other calls and of
// answers, as l2vfib-decode names them.
void AddControl(const TraceRecord &r, std::vector<Shown> *out) {
    const std::span<const uint8_t> d(r.datagram);
    auto line = [&](const std::string &text, nlohmann::json json) {
        Shown s{"control", "control", "", PeerLine(r.peer, r.fromDevice, text), Frame(r, "control")};
        s.json["control"] = std::move(json);
        out->push_back(std::move(s));
    };
    host::ControlAnswer answer{};
    host::ControlRequest call{};
    if (r.fromDevice && host::DecodeAnswer(d.data(), d.size(), &answer)) {
        const std::span<const uint8_t> data(answer.data, answer.dataLength);
        line(fmt::format("answer op {} sequence {} result {} data {}", answer.op, answer.sequence,
                         answer.result, decode::ToHex(data)),
             {{"op", answer.op}, {"answer", true}, {"sequence", answer.sequence}, {"result", answer.result},
              {"data", decode::ToHex(data)}});
    } else if (!r.fromDevice && host::DecodeRequest(d.data(), d.size(), &call)) {
        if (call.op == host::kOpIoctl || call.op == host::kOpIoctlAsync) {
            AddMessages(r, decode::DecodeControl(call.arg1, {call.input, call.inputLength}), "control", out);
            return;
        }
        line(fmt::format("op {} sequence {} arg0 {} arg1 {:#x} arg2 {}", call.op, call.sequence,
                         call.arg0, call.arg1, call.arg2),
             {{"op", call.op}, {"answer", false}, {"sequence", call.sequence}, {"arg0", call.arg0},
              {"arg1", call.arg1}, {"arg2", call.arg2}});
    } else {
        const std::string text = fmt::format("malformed control datagram of {} bytes", d.size());
        Shown s{"", "", "", PeerLine(r.peer, r.fromDevice, "error: " + text), Frame(r, "control")};
        s.json["error"] = {{"code", "control"}, {"offset", 0}, {"text", text}};
        out->push_back(std::move(s));
    }
}

std::vector<Shown> Show(const TraceRecord &r) {
    std::vector<Shown> out;
    if (r.service == 2) {
        AddControl(r, &out);
        return out;
    }
    const decode::Channel channel = r.service == 0
                                        ? (r.fromDevice ? decode::Channel::kFromService : decode::Channel::kToService)
                                        : (r.fromDevice ? decode::Channel::kFromEvent : decode::Channel::kToEvent);
    AddMessages(r, decode::Decode(r.datagram, channel), std::string(decode::ChannelName(channel)), &out);
    return out;
}

// A line passes the filters when its table or its message kind is the one
// asked for, and its key is the one asked for. Faults name no table: they
// show only without filters.
bool Passes(const Shown &s, const TraceOptions &o) {
    if (!o.table.empty() && o.table != s.table && o.table != s.kind) return false;
    return o.key.empty() || o.key == s.key;
}

volatile sig_atomic_t gEnd = 0;
void OnEnd(int) { gEnd = 1; }

}  // namespace

int RunTrace(const TraceOptions &options) {
    // Ctrl-C interrupts the wait for records (no SA_RESTART).
    struct sigaction action {};
    action.sa_handler = OnEnd;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Json request{{"cmd", "trace"}};
    if (options.buffer != 0) request["buffer"] = options.buffer;
    std::string error, pending;
    Json response;
    const int fd = SteerConnection(request, &error, &response, &pending);
    if (fd < 0) {
        fmt::print(stderr, "l2vfib-emu: {}\n", error);
        return 1;
    }
    if (!response.value("ok", false)) {
        fmt::print(stderr, "l2vfib-emu: {}\n", response.value("error", "refused"));
        close(fd);
        return 1;
    }
    fmt::print(stderr, "l2vfib-emu: tracing the device in {}; Ctrl-C ends it\n", DeviceDirectory());
    std::fflush(stderr);
    uint64_t datagrams = 0, dropped = 0;
    int status = 0;
    std::vector<char> chunk(65536);
    while (!gEnd) {
        bool bad = false;
        while (auto record = TakeTraceRecord(pending, &bad)) {
            if (record->dropped) {
                dropped += record->count;
                if (options.json)
                    std::printf("%s\n", nlohmann::json{{"time", ClockText(record->timeUs / 1000)},
                                                       {"dropped", record->count}}.dump().c_str());
                else
                    std::printf("%s trace: %llu datagrams dropped, the trace did not keep up\n",
                                ClockText(record->timeUs / 1000).c_str(),
                                static_cast<unsigned long long>(record->count));
                continue;
            }
            ++datagrams;
            for (const Shown &s : Show(*record)) {
                if (!Passes(s, options)) continue;
                if (options.json)
                    std::printf("%s\n", s.json.dump().c_str());
                else
                    std::printf("%s %s\n", ClockText(record->timeUs / 1000).c_str(), s.line.c_str());
            }
        }
        if (bad) {
            fmt::print(stderr, "l2vfib-emu: the device sent a record that is not one; trace ended\n");
            status = 1;
            break;
        }
        if (std::fflush(stdout) != 0) break;  // nobody reads the lines any more
        const ssize_t n = recv(fd, chunk.data(), chunk.size(), 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            fmt::print(stderr, "l2vfib-emu: the device stopped\n");
            break;
        }
        pending.append(chunk.data(), static_cast<size_t>(n));
    }
    close(fd);
    fmt::print(stderr, "l2vfib-emu: trace ended: {} datagrams, {} dropped\n", datagrams, dropped);
    return status;
}

}  // namespace l2vfib::emu
