#include "table.h"

#include <algorithm>

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
    return Put({next_++}, std::move(row));
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
    size_t width = 0;
    for (const auto &[key, row] : rows_) width = std::max(width, row.key.size());
    std::string out;
    for (const auto &[key, row] : rows_) {
        std::string line = row.key;
        line.resize(width, ' ');
        // A field named "text" (log lines) prints as its value alone.
        for (const auto &[name, value] : row.fields.items())
            line += "  " + (name == "text" ? FieldText(value) : name + " " + FieldText(value));
        while (!line.empty() && line.back() == ' ') line.pop_back();
        out += line + "\n";
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
