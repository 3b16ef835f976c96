// l2vfib-decode: prints the messages of hex datagrams, given as arguments
// or one per line on stdin, or of the datagrams in a pcap capture.
//
//   l2vfib-decode 00 03 00 0c 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 00
//   l2vfib-decode --channel from-event --json < datagrams.txt
//   l2vfib-decode --pcap trace.pcap
//
// One line per message. Exit status: 0 every datagram decoded; 1 a datagram
// had a fault, stdin had a line not in hex or could not be read, the capture
// could not be read or is cut short (said on stderr after what was whole);
// 2 usage.
#include <charconv>
#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <pcap/pcap.h>

#include "l2vfib_decode.h"

namespace dec = l2vfib::decode;

namespace {

constexpr int kDecoded = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;

struct Options {
    dec::Channel channel = dec::Channel::kToService;
    bool json = false;
    std::optional<uint32_t> control;  // decode a control call's input
    bool answer = false;
};

// A control code: decimal or 0x hex, without sign, space or trailing text,
// up to 0xffffffff.
std::optional<uint32_t> ParseCode(std::string_view text) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    uint32_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || ec != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

// Prints one datagram's messages; false when it had a fault.
// With --json and a capture, each datagram's object also names its record
// ("frame", from 1) and a control call its head ("control").
bool Show(std::span<const uint8_t> datagram, dec::Channel channel, const Options &o, const std::string &prefix,
          nlohmann::json json = nlohmann::json::object()) {
    const dec::Decoded d =
        o.control ? dec::DecodeControl(*o.control, datagram, o.answer) : dec::Decode(datagram, channel);
    if (o.json) {
        json.update(dec::ToJson(d));
        if (!json.contains("channel")) json["channel"] = dec::ChannelName(channel);
        std::cout << json.dump() << '\n';
    } else {
        for (const std::string &line : dec::RenderLines(d)) std::cout << prefix << line << '\n';
    }
    return d.ok();
}

// The service ports: a UDP datagram to one of them travels to the
// service, one from it travels back.
constexpr uint16_t kServicePort = 2670;
constexpr uint16_t kEventPort = 12566;

// The UDP payload of an IPv4 packet, and its channel by port; nothing for
// any other packet.
std::optional<std::pair<std::span<const uint8_t>, dec::Channel>> Udp(std::span<const uint8_t> ip) {
    if (ip.size() < 20 || (ip[0] >> 4) != 4 || ip[9] != 17) return std::nullopt;
    const size_t ihl = static_cast<size_t>(ip[0] & 0x0F) * 4;
    if (ihl < 20 || ip.size() < ihl + 8) return std::nullopt;
    const uint8_t *udp = ip.data() + ihl;
    const uint16_t src = static_cast<uint16_t>(udp[0] << 8 | udp[1]);
    const uint16_t dst = static_cast<uint16_t>(udp[2] << 8 | udp[3]);
    dec::Channel channel;
    if (dst == kServicePort) channel = dec::Channel::kToService;
    else if (src == kServicePort) channel = dec::Channel::kFromService;
    else if (dst == kEventPort) channel = dec::Channel::kToEvent;
    else if (src == kEventPort) channel = dec::Channel::kFromEvent;
    else return std::nullopt;
    return std::pair{ip.subspan(ihl + 8), channel};
}

// One datagram of the host's control protocol: a request (24-byte head,
// the call's input) or an answer (16-byte head, the data). The control
// calls' inputs are decoded; the rest is shown as numbers.
bool ShowControl(std::span<const uint8_t> d, const Options &o, const std::string &prefix, nlohmann::json json) {
    auto be32 = [&](size_t at) {
        return static_cast<uint32_t>(d[at]) << 24 | static_cast<uint32_t>(d[at + 1]) << 16 |
               static_cast<uint32_t>(d[at + 2]) << 8 | d[at + 3];
    };
    const bool answer = d.size() >= 2 && (d[1] & 0x80) != 0;
    const size_t head = answer ? 16 : 24;
    json["channel"] = "control";
    if (d.size() < head || be32(head - 4) != d.size() - head) {
        const std::string text = fmt::format("malformed control datagram of {} bytes", d.size());
        json["error"] = {{"code", "control"}, {"offset", 0}, {"text", text}};
        if (o.json) std::cout << json.dump() << '\n';
        else std::cout << prefix << "error: " << text << '\n';
        return false;
    }
    const unsigned op = d[1] & 0x7F;
    if (answer) {
        json["control"] = {{"op", op}, {"answer", true}, {"sequence", be32(4)}, {"result", be32(8)},
                           {"data", dec::ToHex(d.subspan(16))}};
        if (o.json) std::cout << json.dump() << '\n';
        else std::cout << prefix << fmt::format("control answer op {} sequence {} result {} data {}\n", op, be32(4),
                                                be32(8), dec::ToHex(d.subspan(16)));
        return true;
    }
    json["control"] = {{"op", op},          {"answer", false},    {"sequence", be32(4)},
                       {"arg0", be32(8)},   {"arg1", be32(12)},   {"arg2", be32(16)}};
    if (!o.json) {
        std::cout << prefix << fmt::format("control op {} sequence {} arg0 {} arg1 {:#x} arg2 {}\n", op, be32(4),
                                           be32(8), be32(12), be32(16));
    }
    if (op != 1 && op != 2) {
        if (o.json) std::cout << json.dump() << '\n';
        return true;
    }
    Options call = o;
    call.control = be32(12);
    call.answer = false;
    return Show(d.subspan(24), o.channel, call, prefix + "  ", std::move(json));
}

// Datagrams of a capture. The emulated device's captures (link type USER0)
// start each record with an 8-byte pseudo-header:
//
//    0     1         2       4       6      8
//   +-----+---------+-------+-------+------+---------------------
//   | dir | service | node  | port  | 0 0  | the datagram
//   +-----+---------+-------+-------+------+---------------------
//   dir: 0 to the device, 1 from it; service: 0 forwarding, 1 event,
//   2 control
//
// Link types USER1 to USER15 hold the bare datagram (its direction from
// --channel); raw IPv4, Ethernet and Linux cooked captures hold UDP, whose
// port gives the direction.
// One record of a capture of link type link; false when it had a fault.
bool ShowRecord(int link, std::span<const uint8_t> packet, size_t n, const Options &o) {
    const std::string prefix = fmt::format("{}: ", n);
    nlohmann::json json = {{"frame", n}};
    if (link == DLT_USER0) {
        if (packet.size() < 8 || packet[0] > 1 || packet[1] > 2) {
            const char *text = "capture record without its pseudo-header";
            json["error"] = {{"code", "pseudo-header"}, {"offset", 0}, {"text", text}};
            if (o.json) std::cout << json.dump() << '\n';
            else std::cout << prefix << "error: " << text << '\n';
            return false;
        }
        const bool from = packet[0] == 1;
        const auto datagram = packet.subspan(8);
        if (packet[1] == 2) return ShowControl(datagram, o, prefix + (from ? "< " : "> "), std::move(json));
        const dec::Channel channel = packet[1] == 0 ? (from ? dec::Channel::kFromService : dec::Channel::kToService)
                                                    : (from ? dec::Channel::kFromEvent : dec::Channel::kToEvent);
        return Show(datagram, channel, o, prefix + (from ? "< " : "> "), std::move(json));
    }
    if (link > DLT_USER0 && link <= DLT_USER15) return Show(packet, o.channel, o, prefix, std::move(json));
    std::span<const uint8_t> ip;
    // IPv4 alone, or behind an Ethernet or a Linux cooked header.
    const size_t ipAt = link == DLT_EN10MB ? 14 : link == DLT_LINUX_SLL ? 16 : 0;
    if (ipAt == 0) ip = packet;
    else if (packet.size() >= ipAt && packet[ipAt - 2] == 0x08 && packet[ipAt - 1] == 0x00) ip = packet.subspan(ipAt);
    // Packets that are not UDP to or from a service are passed over.
    if (const auto udp = Udp(ip)) return Show(udp->first, udp->second, o, prefix, std::move(json));
    return true;
}

bool ReadableLink(int link) {
    return (link >= DLT_USER0 && link <= DLT_USER15) || link == DLT_RAW || link == DLT_IPV4 || link == DLT_EN10MB ||
           link == DLT_LINUX_SLL;
}

// Every record of the capture: kDecoded, or kFailed when a datagram had a
// fault or the capture cannot be read whole (said on stderr, after the
// records that were whole).
int ReadPcap(const std::string &path, const Options &o) {
    char err[PCAP_ERRBUF_SIZE] = {};
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    if (p == nullptr) {
        std::cerr << "l2vfib-decode: " << err << '\n';
        return kFailed;
    }
    const int link = pcap_datalink(p);
    if (!ReadableLink(link)) {
        std::cerr << fmt::format("l2vfib-decode: {}: link type {} holds no datagrams of the services\n", path, link);
        pcap_close(p);
        return kFailed;
    }
    bool ok = true;
    pcap_pkthdr *head = nullptr;
    const u_char *data = nullptr;
    size_t n = 1;
    int got = 0;
    for (; (got = pcap_next_ex(p, &head, &data)) == 1; ++n) {
        ok = ShowRecord(link, std::span<const uint8_t>(data, head->caplen), n, o) && ok;
    }
    if (got == PCAP_ERROR) {
        std::cout.flush();
        std::cerr << fmt::format("l2vfib-decode: {}: record {}: {}\n", path, n, pcap_geterr(p));
        ok = false;
    }
    pcap_close(p);
    return ok ? kDecoded : kFailed;
}

// The datagrams of the hex arguments, or of stdin's lines.
int ReadHex(const std::vector<std::string> &hex, const Options &o) {
    if (!hex.empty()) {
        std::string joined;
        for (const std::string &h : hex) joined += h + " ";
        const auto bytes = dec::ParseHex(joined);
        if (!bytes) {
            std::cerr << "l2vfib-decode: not a datagram in hex: " << joined << '\n';
            return kUsage;
        }
        return Show(*bytes, o.channel, o, "") ? kDecoded : kFailed;
    }
    bool ok = true;
    size_t number = 0;
    for (std::string line; std::getline(std::cin, line);) {
        ++number;
        if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') continue;
        const auto bytes = dec::ParseHex(line);
        if (!bytes) {
            std::cout.flush();
            std::cerr << fmt::format("l2vfib-decode: line {}: not a datagram in hex\n", number);
            ok = false;
            continue;
        }
        ok = Show(*bytes, o.channel, o, "") && ok;
    }
    if (std::cin.bad() || std::ferror(stdin) != 0) {
        std::cerr << fmt::format("l2vfib-decode: stdin cannot be read after line {}\n", number);
        return kFailed;
    }
    return ok ? kDecoded : kFailed;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Decodes the datagrams of the layer-2 forwarding table services, one message a line."};
    Options o;
    std::string channel = "to-service";
    std::string code;
    std::string pcapPath;
    std::vector<std::string> hex;
    app.add_option("--channel,-c", channel, "to-service, from-service, to-event or from-event")
        ->check(CLI::IsMember({"to-service", "from-service", "to-event", "from-event"}));
    app.add_flag("--json,-j", o.json, "one JSON object per datagram");
    auto *control =
        app.add_option("--control", code, "decode a control call's input for this control code (0x440005, ...)");
    app.add_flag("--answer", o.answer, "with --control: decode the call's answer instead")->needs(control);
    auto *pcap = app.add_option("--pcap", pcapPath, "read the datagrams of a pcap capture")->excludes(control);
    app.add_option("hex", hex, "one datagram in hex; without it, one datagram per line on stdin")->excludes(pcap);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e) == 0 ? kDecoded : kUsage;
    }
    o.channel = *dec::ParseChannel(channel);
    if (control->count() != 0) {
        o.control = ParseCode(code);
        if (!o.control) {
            std::cerr << "l2vfib-decode: --control: not a control code from 0 to 0xffffffff: " << code << '\n';
            return kUsage;
        }
    }
    const int status = pcap->count() != 0 ? ReadPcap(pcapPath, o) : ReadHex(hex, o);
    if (!std::cout.flush()) {
        std::cerr << "l2vfib-decode: cannot write the output\n";
        return kFailed;
    }
    return status;
}
