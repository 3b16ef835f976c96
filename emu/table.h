// The emulated device's tables: rows of named fields, each under a key
// that sorts by its numbers and prints as text, shown the way the `ip` and
// `bridge` tools show theirs: one object per line, the key first.
//
// Two kinds: a Table keeps rendered rows (the small tables: settings, logs,
// member sets); a MessageTable keeps, under a key of at most three numbers,
// only the bytes of the message that made the row, and renders the row
// when it is shown. A million pseudowires then cost their messages' bytes
// and a tree node each.
#ifndef L2VFIB_EMU_TABLE_H
#define L2VFIB_EMU_TABLE_H

#include <cstdint>
#include <array>
#include <functional>
#include <map>
#include <optional>
#include <span>
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
    // Appends a row under the next arrival number (log tables); past
    // kMaxLogRows the oldest row goes.
    Row &Append(Row row);
    // Empties the table; arrival numbers start at 1 again.
    void Clear() {
        rows_.clear();
        next_ = 1;
    }

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

// What one peer can grow, at most: rows of an entry table (a device's
// scale is a million), rows of a log table (the oldest go first), and
// members of one member set.
constexpr size_t kMaxRows = 10'000'000;
constexpr size_t kMaxLogRows = 100'000;
constexpr size_t kMaxMembers = 4096;

// Rows kept as message bytes. Render turns one message back into its row
// (nothing when the bytes no longer decode, which Put never lets in).
class MessageTable {
  public:
    using Key = std::array<uint64_t, 3>;
    using Render = std::function<std::optional<Row>(std::span<const uint8_t>)>;

    // The first numbers of a key, packed (the rest zero).
    static Key Pack(const std::vector<uint64_t> &numbers) {
        Key key{};
        for (size_t i = 0; i < numbers.size() && i < key.size(); ++i) key[i] = numbers[i];
        return key;
    }

    MessageTable(std::string name, std::string about, Render render)
        : name_(std::move(name)), about_(std::move(about)), render_(std::move(render)) {}

    const std::string &Name() const { return name_; }
    const std::string &About() const { return about_; }

    // A load in ascending key order, the usual bulk load, appends at the
    // end of the tree without a search. False, and nothing kept, for a new
    // key when the table holds kMaxRows.
    bool Put(const Key &key, std::span<const uint8_t> message) {
        auto at = !rows_.empty() && rows_.rbegin()->first < key ? rows_.end() : rows_.lower_bound(key);
        if (at == rows_.end() || at->first != key) {
            if (rows_.size() >= kMaxRows) return false;
            at = rows_.emplace_hint(at, key, std::string());
        }
        at->second.assign(reinterpret_cast<const char *>(message.data()), message.size());
        return true;
    }
    bool Erase(const Key &key) { return rows_.erase(key) != 0; }
    const std::string *Find(const Key &key) const {
        auto it = rows_.find(key);
        return it == rows_.end() ? nullptr : &it->second;
    }
    void Clear() { rows_.clear(); }
    size_t Size() const { return rows_.size(); }

    // Renders up to limit rows from the first key at or after from into
    // out; returns the key after the last one rendered, or nothing at the
    // end of the table.
    std::optional<Key> RenderFrom(const Key &from, size_t limit, Table &out) const;
    // Every row, rendered (for small tables and `show all`).
    Table Rendered() const;
    // One row, rendered.
    std::optional<Row> RenderOne(const Key &key) const;

  private:
    std::string name_;
    std::string about_;
    Render render_;
    std::map<Key, std::string> rows_;
};

// A number as typed: decimal, or hex with 0x. False for anything else.
bool ParseNumber(const std::string &text, uint64_t *value);

// A size as typed: decimal digits, then at most one suffix K, M or G (in
// either case: KiB, MiB, GiB). False for anything else: empty, a sign, a
// space, a fraction, another suffix or trailing text, or a size past
// 2^64 - 1 bytes. Zero is a size; the caller bounds it.
bool ParseSize(const std::string &text, uint64_t *bytes);

// A field value as the text tables print it: numbers in decimal, strings
// as they are, arrays as comma lists, objects as name=value lists.
std::string FieldText(const Json &value);

}  // namespace l2vfib::emu

#endif
