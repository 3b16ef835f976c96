// The decoded forms as text: one trace line per message (key first, like
// the `ip` and `bridge` tools print objects), JSON, hex and names.
#include <arpa/inet.h>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "internal.h"

namespace l2vfib::decode {

namespace {

std::string Hex(std::span<const uint8_t> bytes, std::string_view separator) {
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) {
        if (i != 0) out += separator;
        out += fmt::format("{:02x}", bytes[i]);
    }
    return out;
}

// The fields of a record as "name value name value".
std::string Fields(const std::vector<Field> &fields) {
    std::string out;
    for (const Field &f : fields) out += fmt::format("{}{} {}", out.empty() ? "" : " ", f.name, f.Text());
    return out;
}

const detail::KindInfo *FindKind(Kind kind) {
    for (const detail::KindInfo &k : detail::Kinds()) {
        if (k.kind == kind) return &k;
    }
    return nullptr;
}

}  // namespace

std::string Field::Text() const {
    switch (kind) {
        case FieldKind::kNumber: return fmt::format("{}", number);
        case FieldKind::kHex: return bytes.empty() ? "-" : Hex(bytes, "");
        case FieldKind::kMac: return Hex(bytes, ":");
        case FieldKind::kIp: {
            char text[INET6_ADDRSTRLEN] = {};
            const int family = bytes.size() == 4 ? AF_INET : AF_INET6;
            if (bytes.size() != 4 && bytes.size() != 16) return Hex(bytes, "");
            return inet_ntop(family, bytes.data(), text, sizeof text) != nullptr ? text : Hex(bytes, "");
        }
        case FieldKind::kString: {
            std::string out = "\"";
            for (uint8_t c : bytes) {
                if (c == 0) break;
                if (c == '"' || c == '\\') out += fmt::format("\\{}", static_cast<char>(c));
                else if (c < 0x20 || c > 0x7e) out += fmt::format("\\x{:02x}", c);
                else out += static_cast<char>(c);
            }
            return out + "\"";
        }
    }
    return {};
}

std::string Render(const Message &m) {
    std::string line = m.name;
    if (!m.key.empty()) line += " " + Fields(m.key);
    if (m.kind == Kind::kEvent || m.tag != 0) line += fmt::format(" tag {}", m.tag);
    const detail::KindInfo *kind = FindKind(m.kind);
    if (kind != nullptr && kind->showsByte7) line += fmt::format(" byte7 {}", m.byte7);
    bool keyShown = m.key.empty();
    for (const Item &item : m.items) {
        // The key item is already shown in front.
        if (!keyShown && item.fields == m.key) {
            keyShown = true;
            continue;
        }
        // A control call's input is one record, not an item.
        if (m.kind != Kind::kControl) line += fmt::format(" | {}", item.type);
        if (!item.fields.empty()) line += " " + Fields(item.fields);
        else if (!item.value.empty()) line += " " + Hex(item.value, "");
    }
    if (m.error) line += " ! " + m.error.text;
    return line;
}

std::string Render(const Error &error) { return "error: " + error.text; }

std::vector<std::string> RenderLines(const Decoded &decoded) {
    std::vector<std::string> lines;
    for (const Message &m : decoded.messages) lines.push_back(Render(m));
    // A fault inside a message is on its line already.
    bool shown = false;
    for (const Message &m : decoded.messages) shown = shown || m.error.text == decoded.error.text;
    if (decoded.error && !shown) lines.push_back(Render(decoded.error));
    return lines;
}

nlohmann::json ToJson(const Field &field) {
    if (field.kind == FieldKind::kNumber) return field.number;
    if (field.kind == FieldKind::kString) {
        std::string text = field.Text();
        return text.substr(1, text.size() - 2);
    }
    return field.Text();
}

namespace {
nlohmann::json FieldsJson(const std::vector<Field> &fields) {
    nlohmann::json out = nlohmann::json::object();
    for (const Field &f : fields) out[f.name] = ToJson(f);
    return out;
}
}  // namespace

nlohmann::json ToJson(const Item &item) {
    return {{"type", item.type},
            {"offset", item.offset},
            {"value", Hex(item.value, "")},
            {"fields", FieldsJson(item.fields)}};
}

nlohmann::json ToJson(const Error &error) {
    return {{"code", ErrcName(error.code)}, {"offset", error.offset}, {"text", error.text}};
}

nlohmann::json ToJson(const Message &m) {
    nlohmann::json j = {{"name", m.name},
                        {"kind", KindName(m.kind)},
                        {"offset", m.offset},
                        {"size", m.size},
                        {"objType", m.objType},
                        {"payloadLen", m.payloadLen},
                        {"tag", m.tag},
                        {"opcode", m.opcode},
                        {"byte7", m.byte7},
                        {"key", FieldsJson(m.key)}};
    if (m.headSize == 12) j["extWord"] = m.extWord;
    if (!m.inner.empty()) j["inner"] = FieldsJson(m.inner);
    if (m.kind == Kind::kCatalogue) {
        j["codes"] = m.codes;
        j["answered"] = m.answered;
    }
    nlohmann::json items = nlohmann::json::array();
    for (const Item &item : m.items) items.push_back(ToJson(item));
    j["items"] = std::move(items);
    if (m.error) j["error"] = ToJson(m.error);
    return j;
}

nlohmann::json ToJson(const Decoded &decoded) {
    nlohmann::json messages = nlohmann::json::array();
    for (const Message &m : decoded.messages) messages.push_back(ToJson(m));
    nlohmann::json j = {{"messages", std::move(messages)}};
    if (decoded.error) j["error"] = ToJson(decoded.error);
    return j;
}

std::string_view ErrcName(Errc code) {
    switch (code) {
        case Errc::kOk: return "ok";
        case Errc::kShortHeader: return "short-header";
        case Errc::kLengthPastEnd: return "length-past-end";
        case Errc::kTruncatedItem: return "truncated-item";
        case Errc::kUnknownObjectType: return "unknown-object-type";
        case Errc::kUnknownOpcode: return "unknown-opcode";
        case Errc::kMissingItem: return "missing-item";
        case Errc::kUnexpectedItem: return "unexpected-item";
        case Errc::kBadItemLength: return "bad-item-length";
        case Errc::kBadValue: return "bad-value";
    }
    return "?";
}

std::string_view KindName(Kind kind) {
    const detail::KindInfo *k = FindKind(kind);
    return k != nullptr ? k->name : "?";
}

namespace {
constexpr std::pair<Channel, std::string_view> kChannels[] = {
    {Channel::kToService, "to-service"},
    {Channel::kFromService, "from-service"},
    {Channel::kToEvent, "to-event"},
    {Channel::kFromEvent, "from-event"},
};
}  // namespace

std::string_view ChannelName(Channel channel) {
    for (const auto &[c, name] : kChannels) {
        if (c == channel) return name;
    }
    return "?";
}

std::optional<Channel> ParseChannel(std::string_view name) {
    for (const auto &[c, text] : kChannels) {
        if (text == name) return c;
    }
    return std::nullopt;
}

std::optional<std::vector<uint8_t>> ParseHex(std::string_view text) {
    std::vector<uint8_t> out;
    int high = -1;
    for (char c : text) {
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else if ((c == ' ' || c == ':' || c == '|' || c == '\n' || c == '\t' || c == '\r') && high < 0) continue;
        else return std::nullopt;
        if (high < 0) {
            high = digit;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | digit));
            high = -1;
        }
    }
    if (high >= 0) return std::nullopt;
    return out;
}

std::string ToHex(std::span<const uint8_t> bytes) { return Hex(bytes, " "); }

}  // namespace l2vfib::decode
