#include "table.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace l2vfib::emu {

Row &Table::Put(const std::vector<uint64_t> &key, Row row) {
    Row &slot = rows_[key];
    slot = std::move(row);
    return slot;
}

Row *Table::Find(const std::vector<uint64_t> &key) {
    auto it = rows_.find(key);
    return it == rows_.end() ? nullptr : &it->second;
}

bool Table::Erase(const std::vector<uint64_t> &key) { return rows_.erase(key) != 0; }

Row &Table::Append(Row row) {
    if (row.key.empty()) row.key = std::to_string(next_);
    if (rows_.size() >= kMaxLogRows) rows_.erase(rows_.begin());
    return Put({next_++}, std::move(row));
}

bool ParseNumber(const std::string &text, uint64_t *value) {
    size_t used = 0;
    try {
        *value = std::stoull(text, &used, 0);
    } catch (const std::exception &) {
        return false;
    }
    return !text.empty() && used == text.size();
}

bool ParseSize(const std::string &text, uint64_t *bytes) {
    uint64_t value = 0;
    const char *end = text.data() + text.size();
    const auto [stop, fault] = std::from_chars(text.data(), end, value);
    if (fault != std::errc() || stop == text.data() || !std::isdigit(static_cast<unsigned char>(text[0])))
        return false;
    unsigned shift = 0;
    if (stop != end) {
        const char *units = "KMG";
        const char *unit = std::strchr(units, std::toupper(static_cast<unsigned char>(*stop)));
        if (*stop == '\0' || unit == nullptr || stop + 1 != end) return false;
        shift = 10 * static_cast<unsigned>(unit - units + 1);
    }
    if (value > (UINT64_MAX >> shift)) return false;
    *bytes = value << shift;
    return true;
}

std::string FieldText(const Json &value) {
    if (value.is_string()) return value.get<std::string>();
    if (value.is_array()) {
        std::string out;
        for (const auto &element : value) {
            if (!out.empty()) out += ',';
            out += FieldText(element);
        }
        return out.empty() ? "-" : out;
    }
    if (value.is_object()) {
        std::string out;
        for (const auto &[name, element] : value.items()) {
            if (!out.empty()) out += ',';
            out += name + "=" + FieldText(element);
        }
        return out;
    }
    return value.dump();
}

std::string Table::Text() const {
    // Cells: the key, then "name value" per field ("text" fields print as
    // their value alone). Every cell but a row's last is padded to the
    // widest of its column.
    std::vector<std::vector<std::string>> lines;
    std::vector<size_t> widths;
    for (const auto &[key, row] : rows_) {
        std::vector<std::string> cells{row.key};
        for (const auto &[name, value] : row.fields.items())
            cells.push_back(name == "text" ? FieldText(value) : name + " " + FieldText(value));
        for (size_t i = 0; i < cells.size(); ++i) {
            if (widths.size() <= i) widths.push_back(0);
            widths[i] = std::max(widths[i], cells[i].size());
        }
        lines.push_back(std::move(cells));
    }
    std::string out;
    for (auto &cells : lines) {
        for (size_t i = 0; i < cells.size(); ++i) {
            out += cells[i];
            if (i + 1 < cells.size()) out += std::string(widths[i] - cells[i].size() + 2, ' ');
        }
        out += "\n";
    }
    return out;
}

Json Table::ToJson() const {
    Json out = Json::array();
    for (const auto &[key, row] : rows_) {
        Json object = Json::object();
        object["key"] = row.key;
        for (const auto &[name, value] : row.fields.items()) object[name] = value;
        out.push_back(std::move(object));
    }
    return out;
}

}  // namespace l2vfib::emu

namespace l2vfib::emu {

namespace {
std::vector<uint64_t> Numbers(const MessageTable::Key &key) { return {key.begin(), key.end()}; }
std::span<const uint8_t> Bytes(const std::string &message) {
    return {reinterpret_cast<const uint8_t *>(message.data()), message.size()};
}
}  // namespace

std::optional<MessageTable::Key> MessageTable::RenderFrom(const Key &from, size_t limit,
                                                          Table &out) const {
    auto it = rows_.lower_bound(from);
    for (size_t n = 0; it != rows_.end() && n < limit; ++it, ++n)
        if (auto row = render_(Bytes(it->second))) out.Put(Numbers(it->first), std::move(*row));
    if (it == rows_.end()) return std::nullopt;
    return it->first;
}

Table MessageTable::Rendered() const {
    Table table(name_, about_);
    RenderFrom(Key{}, rows_.size(), table);
    return table;
}

std::optional<Row> MessageTable::RenderOne(const Key &key) const {
    const std::string *message = Find(key);
    if (message == nullptr) return std::nullopt;
    return render_(Bytes(*message));
}

}  // namespace l2vfib::emu
