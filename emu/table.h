// The emulated device's tables: rows of named fields, each under a key
// that sorts by its numbers and prints as text, shown the way the `ip` and
// `bridge` tools show theirs: one object per line, the key first.
#ifndef L2VFIB_EMU_TABLE_H
#define L2VFIB_EMU_TABLE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace l2vfib::emu {

using Json = nlohmann::ordered_json;

struct Row {
    std::string key;  // as printed: "10/1", "ebg 42", ...
    Json fields = Json::object();  // name -> number, string, or nested
};

// A table keyed by numbers (its rows sort by them), or a log whose key is
// the arrival number.
class Table {
  public:
    Table(std::string name, std::string about) : name_(std::move(name)), about_(std::move(about)) {}

    const std::string &Name() const { return name_; }
    const std::string &About() const { return about_; }

    // Inserts or replaces the row under key.
    Row &Put(const std::vector<uint64_t> &key, Row row);
    Row *Find(const std::vector<uint64_t> &key);
    bool Erase(const std::vector<uint64_t> &key);
    // Appends a row under the next arrival number (log tables).
    Row &Append(Row row);
    void Clear() { rows_.clear(); }

    size_t Size() const { return rows_.size(); }
    const std::map<std::vector<uint64_t>, Row> &Rows() const { return rows_; }

    // Aligned text, one row per line (nothing for an empty table), and a
    // JSON array of objects whose first member is "key".
    std::string Text() const;
    Json ToJson() const;

  private:
    std::string name_;
    std::string about_;
    std::map<std::vector<uint64_t>, Row> rows_;
    uint64_t next_ = 1;
};

// A field value as the text tables print it: numbers in decimal, strings
// as they are, arrays as comma lists, objects as name=value lists.
std::string FieldText(const Json &value);

}  // namespace l2vfib::emu

#endif
