// l2vfib-emu: the emulated device on a Linux host, and the commands that
// look into it and steer it while it runs.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cstdio>
#include <stdexcept>

#include "server.h"
#include "table.h"
#include "trace.h"

using l2vfib::emu::Json;

namespace {

// Sends request to the running device and prints its answer: text as is,
// or the JSON rows with json. Returns the exit status.
int Ask(const Json &request, bool json = false, const char *member = "rows") {
    std::string error;
    const auto response = l2vfib::emu::SteerStreamed(request, &error, stdout);
    if (!response) {
        fmt::print(stderr, "l2vfib-emu: {}\n", error);
        return 1;
    }
    if (!response->value("ok", false)) {
        fmt::print(stderr, "l2vfib-emu: {}\n", response->value("error", "refused"));
        return 1;
    }
    if (response->value("stream", false)) return 0;
    if (json) {
        const Json &rows = response->contains(member) ? (*response)[member] : *response;
        fmt::print("{}\n", rows.dump(2));
    } else if (response->contains("text")) {
        fmt::print("{}", (*response)["text"].get<std::string>());
    } else if (response->contains("sent")) {
        fmt::print("sent to {}\n", (*response)["sent"].get<uint64_t>());
    }
    return 0;
}

// A number as typed: decimal, or hex with 0x.
uint64_t Number(const std::string &text, const char *what) {
    uint64_t value = 0;
    if (!l2vfib::emu::ParseNumber(text, &value))
        throw std::runtime_error(fmt::format("{}: not a number: '{}'", what, text));
    return value;
}

}  // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "l2vfib-emu: the emulated forwarding table device (forwarding service, event service,\n"
        "control calls) in the device directory: $L2VFIB_DEVICE_DIR, else $XDG_RUNTIME_DIR/l2vfib,\n"
        "else /tmp/l2vfib-<uid>."};
    app.require_subcommand(1);
    int status = 0;

    l2vfib::emu::StartOptions start;
    auto *startCmd = app.add_subcommand("start", "run the emulated device (in the background unless --foreground)");
    startCmd->add_flag("--foreground,-f", start.foreground, "stay in the foreground, log to stderr");
    startCmd->add_option("--capture", start.capture, "write every datagram to this pcap file (mode 0600)");
    std::string captureMax;
    startCmd->add_option("--capture-max", captureMax,
                         "a capture file's bound (K, M, G; default 1G): then FILE becomes FILE.1, and\n"
                         "FILE.1 to FILE.3 are kept");
    startCmd->callback([&] {
        if (!captureMax.empty() && (!l2vfib::emu::ParseSize(captureMax, &start.captureMax) || start.captureMax == 0))
            throw std::runtime_error(fmt::format("--capture-max: not a size: '{}'", captureMax));
        status = l2vfib::emu::Start(start);
    });

    app.add_subcommand("stop", "stop the running device and remove its sockets")->callback([&] {
        status = l2vfib::emu::Stop();
    });

    app.add_subcommand("status", "tell whether a device runs, and its counters")->callback([&] {
        std::string error;
        const auto response = l2vfib::emu::Steer(Json{{"cmd", "status"}}, &error);
        if (!response) {
            fmt::print("{}\n", error);
            status = 1;
            return;
        }
        fmt::print("running in {}\n", l2vfib::emu::DeviceDirectory());
        status = Ask(Json{{"cmd", "show"}, {"table", "counters"}});
    });

    std::string table = "all";
    std::string rowKey;
    bool json = false;
    auto *show = app.add_subcommand("show", "print a table, or one row of it");
    show->add_option("table", table,
                     "all, pw, minm, ac, ac-flag, tunnel, tunnel-if, ebg, mpls-ebg, ebg-df, mac, gr,\n"
                     "cfg, channel, reg, control, node, tunnel-mode, caps, answer, counters, log")
        ->capture_default_str();
    show->add_option("key", rowKey, "one row's key, as shown (7/1)");
    show->add_flag("--json,-j", json, "JSON instead of aligned text");
    show->callback([&] {
        Json request{{"cmd", "show"}, {"table", table}};
        if (!rowKey.empty()) request["key"] = rowKey;
        else if (table != "all") request.update(Json{{"stream", true}, {"json", json}});
        status = Ask(request, json, table == "all" ? "tables" : "rows");
    });

    std::string countTable;
    auto *count = app.add_subcommand("count", "the rows of each table, none rendered");
    count->add_option("table", countTable, "one table only");
    count->add_flag("--json,-j", json, "JSON instead of text");
    count->callback([&] {
        Json request{{"cmd", "count"}};
        if (!countTable.empty()) request["table"] = countTable;
        status = Ask(request, json);
    });

    auto *fault = app.add_subcommand("fault", "inject a fault: busy, slow, drop, restart; clear ends them");
    fault->require_subcommand(1);
    std::string busyState;
    uint64_t busyFor = 0;
    auto *busy = fault->add_subcommand("busy", "stop reading the forwarding service, so its queue fills");
    busy->add_option("state", busyState, "on or off")->check(CLI::IsMember({"on", "off"}));
    busy->add_option("--for", busyFor, "on for this many milliseconds, then off");
    busy->callback([&] {
        if (busyState.empty() && busy->count("--for") == 0) throw std::runtime_error("fault busy: on, off or --for MS");
        status = Ask(Json{{"cmd", "fault"}, {"fault", "busy"}, {"state", busyState.empty() ? "on" : busyState},
                          {"ms", busyFor}});
    });
    uint64_t slowUs = 0;
    auto *slow = fault->add_subcommand("slow", "process each forwarding datagram no faster than this");
    slow->add_option("usec", slowUs, "microseconds a datagram (0 ends it)")->required();
    slow->callback([&] { status = Ask(Json{{"cmd", "fault"}, {"fault", "slow"}, {"us", slowUs}}); });
    uint64_t dropCount = 0;
    auto *drop = fault->add_subcommand("drop", "drop the next N forwarding datagrams, counted and logged");
    drop->add_option("count", dropCount, "how many")->required();
    drop->callback([&] { status = Ask(Json{{"cmd", "fault"}, {"fault", "drop"}, {"count", dropCount}}); });
    fault->add_subcommand("restart", "restart the services: tables and channels emptied, connections closed")
        ->callback([&] { status = Ask(Json{{"cmd", "fault"}, {"fault", "restart"}}); });
    fault->add_subcommand("clear", "end every fault")->callback([&] {
        status = Ask(Json{{"cmd", "fault"}, {"fault", "clear"}});
    });

    std::string logState;
    auto *logCmd = app.add_subcommand("log", "log every message as a decoded line (slow), or not");
    logCmd->add_option("messages", logState, "on or off")->required()->check(CLI::IsMember({"on", "off"}));
    logCmd->callback([&] { status = Ask(Json{{"cmd", "log"}, {"messages", logState == "on"}}); });

    auto *counters = app.add_subcommand("counters", "datagrams, messages, faults and answers");
    counters->add_flag("--json,-j", json, "JSON instead of aligned text");
    counters->callback([&] { status = Ask(Json{{"cmd", "show"}, {"table", "counters"}}, json); });

    uint32_t code = 0;
    std::string result;
    auto *answer = app.add_subcommand("answer", "set the result (item 37) that an answered command gets");
    answer->add_option("code", code, "catalogue code")->required();
    answer->add_option("result", result, "the result, a number (0x.. for hex); 'default' for 0")->required();
    answer->callback([&] {
        Json request{{"cmd", "answer"}, {"code", code}, {"result", nullptr}};
        if (result != "default") request["result"] = Number(result, "result");
        status = Ask(request);
    });

    std::string value;
    auto *notice = app.add_subcommand("notice", "send a notice (item 36) to every client");
    notice->add_option("value", value, "the notice's value")->required();
    notice->callback([&] { status = Ask(Json{{"cmd", "notice"}, {"value", Number(value, "value")}}); });

    uint32_t type = 3;
    std::string tag = "0", hex, mask;
    std::vector<std::string> words;
    auto *event = app.add_subcommand("event", "send an event to the channels registered for it");
    event->add_option("type", type, "event item type: 2, 3 or 6")->required();
    event->add_option("--tag", tag, "the header's tag");
    event->add_option("--words,-w", words,
                      "the record's numbers in order (3: word0 word1 half0; 6: word0 word1;\n"
                      "2: word0 word1 kind half0 word2 word3 word4 half1 word5 word6 word7 word8)");
    event->add_option("--hex", hex, "the item's value as hex bytes instead");
    event->add_option("--mask", mask, "only channels whose registration mask shares a bit");
    event->callback([&] {
        Json request{{"cmd", "event"}, {"type", type}, {"tag", Number(tag, "tag")}};
        if (!hex.empty()) request["hex"] = hex;
        Json numbers = Json::array();
        for (const auto &w : words) numbers.push_back(Number(w, "word"));
        request["words"] = numbers;
        if (!mask.empty()) request["mask"] = Number(mask, "mask");
        status = Ask(request);
    });

    std::string node, state;
    auto *nodeCmd = app.add_subcommand("node", "set a node up or down, or remove it from the node list");
    nodeCmd->add_option("node", node, "node number (0x.. for hex)")->required();
    nodeCmd->add_option("state", state, "up, down or remove")->required();
    nodeCmd->callback([&] {
        status = Ask(Json{{"cmd", "node"}, {"node", Number(node, "node")}, {"state", state}});
    });

    uint32_t ifIndex = 0;
    std::string mode;
    auto *tunnel = app.add_subcommand("tunnel-mode", "set the tunnel mode of a tunnel interface");
    tunnel->add_option("ifindex", ifIndex, "interface index")->required();
    tunnel->add_option("mode", mode, "the mode; 'none' forgets the interface")->required();
    tunnel->callback([&] {
        Json request{{"cmd", "tunnel-mode"}, {"ifindex", ifIndex}, {"mode", nullptr}};
        if (mode != "none") request["mode"] = Number(mode, "mode");
        status = Ask(request);
    });

    std::map<std::string, int> fills;
    auto *caps = app.add_subcommand("caps", "set the capability counts (words of all-ones fill)");
    for (const char *name : {"fill13", "fill21", "fill22", "fill33", "fill39"})
        caps->add_option(std::string("--") + name, fills[name], std::string("words for ") + name);
    caps->callback([&] {
        Json request{{"cmd", "caps"}};
        for (const auto &[name, count] : fills)
            if (caps->count(std::string("--") + name) != 0) request[name] = count;
        status = Ask(request);
    });

    uint32_t next = 1;
    auto *ident = app.add_subcommand("ident", "set the next identifier to allocate (item 184)");
    ident->add_option("next", next, "the next identifier")->required();
    ident->callback([&] { status = Ask(Json{{"cmd", "ident"}, {"next", next}}); });

    app.add_subcommand("clear", "empty every table and the counters")->callback([&] {
        status = Ask(Json{{"cmd", "clear"}});
    });

    l2vfib::emu::TraceOptions trace;
    auto *traceCmd = app.add_subcommand("trace", "follow the running device: every message in and out, as it happens");
    traceCmd->add_flag("--json,-j", trace.json, "JSON lines instead of the log's lines");
    traceCmd->add_option("--table", trace.table, "only the messages filed in this table (pw, cfg, ...) or of this kind (reply, notice, event)");
    traceCmd->add_option("--key", trace.key, "only the messages of this key, as the table's key column shows it (7/1)");
    traceCmd->add_option("--buffer", trace.buffer, "bytes the device holds for this trace before it drops (default 4 MiB)");
    traceCmd->callback([&] { status = l2vfib::emu::RunTrace(trace); });

    l2vfib::emu::ReplayOptions replay;
    bool fastest = false;
    auto *replayCmd = app.add_subcommand("replay", "send a capture's datagrams to the running device, then compare its tables with the capture's");
    replayCmd->add_option("capture", replay.capture, "a capture of `start --capture`")->required()->check(CLI::ExistingFile);
    auto *speedOption = replayCmd->add_option("--speed", replay.speed, "the capture's pace times this (default 1)")
                            ->check(CLI::PositiveNumber);
    replayCmd->add_flag("--as-fast-as-possible", fastest, "ignore the capture's timing")->excludes(speedOption);
    replayCmd->callback([&] {
        if (fastest) replay.speed = 0;
        status = l2vfib::emu::RunReplay(replay);
    });

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        return app.exit(e);
    } catch (const std::exception &e) {
        fmt::print(stderr, "l2vfib-emu: {}\n", e.what());
        return 2;
    }
    return status;
}
