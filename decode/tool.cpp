// l2vfib-decode: prints the messages of hex datagrams, given as arguments
// or one per line on stdin, or of the datagrams in a pcap capture.
//
//   l2vfib-decode 00 03 00 0c 00 00 07 03 00 0a 00 08 00 00 00 07 00 01 00 00
//   l2vfib-decode --channel from-event --json < datagrams.txt
//   l2vfib-decode --pcap trace.pcap
//
// One line per message; exit status 1 when any datagram had a fault, 2 for
// unreadable input.
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

struct Options {
    dec::Channel channel = dec::Channel::kToService;
    bool json = false;
    uint32_t control = 0;
    bool answer = false;
};

// Prints one datagram's messages; false when it had a fault.
// With --json and a capture, each datagram's object also names its record
// ("frame", from 1) and a control call its head ("control").
bool Show(std::span<const uint8_t> datagram, dec::Channel channel, const Options &o, const std::string &prefix,
          nlohmann::json json = nlohmann::json::object()) {
    const dec::Decoded d =
        o.control != 0 ? dec::DecodeControl(o.control, datagram, o.answer) : dec::Decode(datagram, channel);
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
int ReadPcap(const std::string &path, const Options &o) {
    char err[PCAP_ERRBUF_SIZE] = {};
    pcap_t *p = pcap_open_offline(path.c_str(), err);
    if (p == nullptr) {
        std::cerr << "l2vfib-decode: " << err << '\n';
        return 2;
    }
    const int link = pcap_datalink(p);
    bool ok = true;
    pcap_pkthdr *head = nullptr;
    const u_char *data = nullptr;
    for (size_t n = 1; pcap_next_ex(p, &head, &data) == 1; ++n) {
        std::span<const uint8_t> packet(data, head->caplen);
        const std::string prefix = fmt::format("{}: ", n);
        nlohmann::json json = {{"frame", n}};
        if (link == DLT_USER0) {
            if (packet.size() < 8 || packet[0] > 1 || packet[1] > 2) {
                const char *text = "capture record without its pseudo-header";
                json["error"] = {{"code", "pseudo-header"}, {"offset", 0}, {"text", text}};
                if (o.json) std::cout << json.dump() << '\n';
                else std::cout << prefix << "error: " << text << '\n';
                ok = false;
                continue;
            }
            const bool from = packet[0] == 1;
            const auto datagram = packet.subspan(8);
            if (packet[1] == 2) {
                ok = ShowControl(datagram, o, prefix + (from ? "< " : "> "), std::move(json)) && ok;
                continue;
            }
            const dec::Channel channel = packet[1] == 0 ? (from ? dec::Channel::kFromService : dec::Channel::kToService)
                                                        : (from ? dec::Channel::kFromEvent : dec::Channel::kToEvent);
            ok = Show(datagram, channel, o, prefix + (from ? "< " : "> "), std::move(json)) && ok;
            continue;
        }
        if (link > DLT_USER0 && link <= DLT_USER15) {
            ok = Show(packet, o.channel, o, prefix, std::move(json)) && ok;
            continue;
        }
        std::span<const uint8_t> ip;
        if (link == DLT_RAW || link == DLT_IPV4) ip = packet;
        else if (link == DLT_EN10MB && packet.size() >= 14 && packet[12] == 0x08 && packet[13] == 0x00) ip = packet.subspan(14);
        else if (link == DLT_LINUX_SLL && packet.size() >= 16 && packet[14] == 0x08 && packet[15] == 0x00) ip = packet.subspan(16);
        if (const auto udp = Udp(ip)) ok = Show(udp->first, udp->second, o, prefix, std::move(json)) && ok;
    }
    pcap_close(p);
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{"Decodes the datagrams of the layer-2 forwarding table services, one message a line."};
    Options o;
    std::string channel = "to-service";
    std::string pcapPath;
    std::vector<std::string> hex;
    app.add_option("--channel,-c", channel, "to-service, from-service, to-event or from-event")
        ->check(CLI::IsMember({"to-service", "from-service", "to-event", "from-event"}));
    app.add_flag("--json,-j", o.json, "one JSON object per datagram");
    app.add_option("--control", o.control, "decode a control call's input for this control code (0x440005, ...)");
    app.add_flag("--answer", o.answer, "with --control: decode the call's answer instead");
    app.add_option("--pcap", pcapPath, "read the datagrams of a pcap capture");
    app.add_option("hex", hex, "one datagram in hex; without it, one datagram per line on stdin");
    CLI11_PARSE(app, argc, argv);
    o.channel = *dec::ParseChannel(channel);

    if (!pcapPath.empty()) return ReadPcap(pcapPath, o);
    std::vector<std::string> datagrams;
    if (!hex.empty()) {
        std::string joined;
        for (const std::string &h : hex) joined += h + " ";
        datagrams.push_back(joined);
    } else {
        for (std::string line; std::getline(std::cin, line);) {
            if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#') continue;
            datagrams.push_back(line);
        }
    }
    bool ok = true;
    for (const std::string &text : datagrams) {
        const auto bytes = dec::ParseHex(text);
        if (!bytes) {
            std::cerr << "l2vfib-decode: not hex: " << text << '\n';
            return 2;
        }
        ok = Show(*bytes, o.channel, o, "") && ok;
    }
    return ok ? 0 : 1;
}
