// l2vfib_lua_tables: writes the Wireshark dissector, the generic engine
// (tools/wireshark/l2vfib.lua.in) with the decoder's format tables
// (tables.cpp) in place of its "-- @TABLES@" line, so that the dissector
// reads every message by the rows the decoder reads it by.
//
//   l2vfib_lua_tables ENGINE OUTPUT
//
// Run by the build; exit 0 written, 1 a file could not be read or written
// or the engine has no "-- @TABLES@" line, 2 usage.
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

#include <fmt/format.h>

#include "internal.h"

namespace dec = l2vfib::decode;
namespace detail = l2vfib::decode::detail;

namespace {

constexpr std::string_view kMarker = "-- @TABLES@\n";

std::string Quote(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

// A number, or a free field left out: ", name = 5" or "".
std::string Fixed(std::string_view name, int64_t value) {
    return value == detail::kAny ? std::string{} : fmt::format(", {} = {}", name, value);
}

std::string Slots(const std::vector<detail::Slot> &slots) {
    std::string out;
    for (const detail::Slot &s : slots) {
        out += fmt::format("{}{{ type = {}, min = {}, max = {}{} }}", out.empty() ? "" : ", ", s.type, s.min, s.max,
                           s.layout != nullptr ? ", layout = " + Quote(s.layout) : "");
    }
    return "{ " + out + (out.empty() ? "}" : " }");
}

std::string Layouts() {
    std::string out = "local LAYOUT = {\n";
    for (const auto family : {detail::Family::kEntry, detail::Family::kEventReg, detail::Family::kReply}) {
        out += fmt::format("    [{}] = {{\n", Quote(detail::FamilyName(family)));
        for (const detail::ItemLayout &row : detail::ItemLayouts()) {
            if (row.family == family) out += fmt::format("        [{}] = {},\n", row.type, Quote(row.layout));
        }
        out += "    },\n";
    }
    out += "}\n\nlocal EVENT_RECORD = {\n";
    for (const detail::EventRecord &r : detail::EventRecords()) {
        out += fmt::format("    [{}] = {{ size = {}, layout = {}", r.type, r.size, Quote(r.layout));
        if (r.switchLayout != nullptr) {
            out += fmt::format(",\n           switch_at = {}, switch_byte = {}, switch_layout = {}", r.switchAt,
                               r.switchByte, Quote(r.switchLayout));
        }
        out += " },\n";
    }
    out += fmt::format("}}\n\nlocal AC_ANSWER = {{ count = {}, entry = {}, entry_size = {} }}\n\n",
                       Quote(detail::kAcCountLayout), Quote(detail::kAcEntryLayout), detail::kAcEntrySize);
    return out;
}

std::string Formats() {
    std::string out = "local SHOWS_BYTE7 = {";
    for (const detail::KindInfo &k : detail::Kinds()) {
        if (k.showsByte7) out += fmt::format(" [{}] = true,", Quote(k.name));
    }
    out += " }\n\nlocal HEAD_RULE = {\n";
    for (const detail::HeadRule &r : detail::HeadRules()) {
        out += fmt::format("    {{ channel = {}, head = {}{}{}{} }},\n", Quote(dec::ChannelName(r.channel)),
                           r.headSize, Fixed("tag", r.tag), Fixed("byte7", r.byte7), Fixed("extWord", r.extWord));
    }
    out += "}\n\nlocal FORMAT = {\n";
    for (const detail::Format &f : detail::Formats()) {
        out += fmt::format("    {{ channel = {}, head = {}{}{}{}, kind = {}, name = {}{}{},\n",
                           Quote(dec::ChannelName(f.channel)), f.headSize, Fixed("objtype", f.objType),
                           Fixed("opcode", f.opcode), Fixed("first", f.first), Quote(dec::KindName(f.kind)),
                           Quote(f.name), Fixed("tag", f.tag), Fixed("byte7", f.byte7));
        out += fmt::format("      slots = {}, key = {}, rule = {}, family = {} }},\n", Slots(f.slots), f.keyType,
                           Quote(detail::RuleName(f.rule)), Quote(detail::FamilyName(f.family)));
    }
    out += "}\n\nlocal SHAPE = {\n";
    const auto &shapes = detail::Shapes();
    for (size_t i = 0; i < shapes.size(); ++i) {
        if (shapes[i].slots.empty()) continue;
        out += fmt::format("    [{}] = {{ slots = {}, key = {}, rule = {} }},\n", i, Slots(shapes[i].slots),
                           shapes[i].keyType, Quote(detail::RuleName(shapes[i].rule)));
    }
    out += "}\n\nlocal CATALOGUE = {\n";
    for (const detail::CatalogueCode &c : detail::CatalogueCodes()) {
        out += fmt::format("    {{ code = {}, objtype = {}, opcode = {}, byte7 = {}, shape = SHAPE[{}] }},\n", c.code,
                           c.objType, c.opcode, c.byte7, c.shape);
    }
    return out + "}\n";
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::cerr << "usage: l2vfib_lua_tables ENGINE OUTPUT\n";
        return 2;
    }
    std::ifstream in(argv[1]);
    std::stringstream engine;
    engine << in.rdbuf();
    const std::string text = engine.str();
    const size_t at = text.find(kMarker);
    if (!in || at == std::string::npos) {
        std::cerr << "l2vfib_lua_tables: " << argv[1] << ": cannot be read, or has no " << kMarker;
        return 1;
    }
    const std::string tables =
        "-- The decoder's format tables, written by l2vfib_lua_tables from\n"
        "-- decode/tables.cpp: change a format there, not here.\n\n" +
        Layouts() + Formats();
    const std::string temporary = std::string(argv[2]) + ".tmp";
    std::ofstream out(temporary, std::ios::trunc);
    out << text.substr(0, at) << tables << text.substr(at + kMarker.size());
    out.close();
    if (!out || std::rename(temporary.c_str(), argv[2]) != 0) {
        std::cerr << "l2vfib_lua_tables: " << argv[2] << ": cannot be written\n";
        std::remove(temporary.c_str());
        return 1;
    }
    return 0;
}
