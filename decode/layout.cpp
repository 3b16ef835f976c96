// The reader of item layouts (internal.h): one small interpreter instead of
// a function per item type, so that each item's format is one line of the
// format tables in decode.cpp.
#include <cstring>
#include <vector>

#include <fmt/format.h>

#include "internal.h"

namespace l2vfib::decode::detail {

namespace {

enum class Op : uint8_t { kZero, kOnes, kNum, kHost32, kMac, kHex, kStr, kAddr, kAddrZ, kFill, kBegin, kEnd };

struct Tok {
    Op op;
    std::string name;
    size_t size = 0;  // bytes; for kBegin/kEnd the repeat count (0 = '*')
};

// Parses one token without brackets.
bool ParseField(std::string_view t, std::vector<Tok> &out) {
    if (t.empty()) return true;
    auto number = [](std::string_view d, size_t &n) {
        if (d.empty()) return false;
        n = 0;
        for (char c : d) {
            if (c < '0' || c > '9') return false;
            n = n * 10 + static_cast<size_t>(c - '0');
        }
        return true;
    };
    size_t n = 0;
    if (t[0] == '-' && number(t.substr(1), n)) {
        out.push_back({Op::kZero, {}, n});
        return true;
    }
    if (t.starts_with("ff") && number(t.substr(2), n)) {
        out.push_back({Op::kOnes, {}, n});
        return true;
    }
    const size_t colon = t.find(':');
    if (colon == std::string_view::npos) return false;
    const std::string name(t.substr(0, colon));
    const std::string_view type = t.substr(colon + 1);
    if (type == "u8") out.push_back({Op::kNum, name, 1});
    else if (type == "u16") out.push_back({Op::kNum, name, 2});
    else if (type == "u32") out.push_back({Op::kNum, name, 4});
    else if (type == "u64") out.push_back({Op::kNum, name, 8});
    else if (type == "h32") out.push_back({Op::kHost32, name, 4});
    else if (type == "mac") out.push_back({Op::kMac, name, 6});
    else if (type == "addr") out.push_back({Op::kAddr, name, 20});
    else if (type == "addrz") out.push_back({Op::kAddrZ, name, 20});
    else if (type == "ff") out.push_back({Op::kFill, name, 0});
    else if (type.starts_with("hex") && number(type.substr(3), n)) out.push_back({Op::kHex, name, n});
    else if (type.starts_with("str") && number(type.substr(3), n)) out.push_back({Op::kStr, name, n});
    else return false;
    return true;
}

// The layouts are the decoder's own constants; a malformed one is a fault
// of this file, reported like a bad value so that no input can crash it.
bool Parse(std::string_view layout, std::vector<Tok> &out) {
    bool inGroup = false;
    while (!layout.empty()) {
        const size_t space = layout.find(' ');
        std::string_view t = layout.substr(0, space);
        layout = space == std::string_view::npos ? std::string_view{} : layout.substr(space + 1);
        if (const size_t open = t.find('['); open != std::string_view::npos) {
            if (inGroup) return false;
            out.push_back({Op::kBegin, std::string(t.substr(0, open)), 0});
            inGroup = true;
            t = t.substr(open + 1);
        }
        std::string_view close;
        if (const size_t at = t.find(']'); at != std::string_view::npos) {
            close = t.substr(at + 1);
            t = t.substr(0, at);
        }
        if (!ParseField(t, out)) return false;
        if (!close.empty()) {
            if (!inGroup) return false;
            size_t n = 0;
            if (close != "*") {
                for (char c : close) {
                    if (c < '0' || c > '9') return false;
                    n = n * 10 + static_cast<size_t>(c - '0');
                }
                if (n == 0) return false;
            }
            out.push_back({Op::kEnd, {}, n});
            inGroup = false;
        }
    }
    return !inGroup;
}

Field Bytes(std::string name, FieldKind kind, const uint8_t *p, size_t n) {
    Field f;
    f.name = std::move(name);
    f.kind = kind;
    f.bytes.assign(p, p + n);
    return f;
}

}  // namespace

Field NumberField(std::string name, uint64_t value) {
    Field f;
    f.name = std::move(name);
    f.number = value;
    return f;
}

uint64_t ReadBe(const uint8_t *p, size_t size) {
    uint64_t v = 0;
    for (size_t i = 0; i < size; ++i) v = (v << 8) | p[i];
    return v;
}

Error DecodeLayout(std::string_view layout, Item &item) {
    std::vector<Tok> toks;
    if (!Parse(layout, toks)) {
        return Fault(Errc::kBadValue, item.offset,
                     fmt::format("no layout for item {} at offset {}", item.type, item.offset));
    }
    // The fixed part, and the unit that the rest must be a multiple of.
    size_t fixed = 0, unit = 0, group = 0;
    bool inGroup = false;
    for (const Tok &t : toks) {
        if (t.op == Op::kBegin) {
            inGroup = true;
            group = 0;
        } else if (t.op == Op::kEnd) {
            inGroup = false;
            if (t.size == 0) unit = group;
            else fixed += group * t.size;
        } else if (t.op == Op::kFill) {
            unit = 4;
        } else {
            (inGroup ? group : fixed) += t.size;
        }
    }
    const std::vector<uint8_t> &v = item.value;
    const size_t valueAt = item.offset + 4;
    const bool sized = unit == 0 ? v.size() == fixed
                                 : v.size() >= fixed && (v.size() - fixed) % unit == 0;
    if (!sized) {
        const std::string expected = unit == 0 ? fmt::format("{}", fixed)
                                               : fmt::format("{} + {}n", fixed, unit);
        return Fault(Errc::kBadItemLength, item.offset,
                     fmt::format("item {} length {} (expected {}) at offset {}", item.type,
                                 v.size(), expected, item.offset));
    }

    size_t pos = 0;
    // Runs tokens [from, to) once with the name prefix; returns the fault.
    auto run = [&](size_t from, size_t to, const std::string &prefix, auto &self) -> Error {
        for (size_t i = from; i < to; ++i) {
            const Tok &t = toks[i];
            const uint8_t *p = v.data() + pos;
            const std::string name = prefix + t.name;
            switch (t.op) {
                case Op::kZero:
                case Op::kOnes: {
                    const uint8_t want = t.op == Op::kZero ? 0x00 : 0xFF;
                    for (size_t k = 0; k < t.size; ++k) {
                        if (p[k] != want) {
                            return Fault(Errc::kBadValue, valueAt + pos + k,
                                         fmt::format("byte {:02x} not {:02x} in item {} at offset {}",
                                                     p[k], want, item.type, valueAt + pos + k));
                        }
                    }
                    break;
                }
                case Op::kNum: item.fields.push_back(NumberField(name, ReadBe(p, t.size))); break;
                case Op::kHost32: {
                    uint32_t w;
                    std::memcpy(&w, p, 4);
                    item.fields.push_back(NumberField(name, w));
                    break;
                }
                case Op::kMac: item.fields.push_back(Bytes(name, FieldKind::kMac, p, 6)); break;
                case Op::kHex: item.fields.push_back(Bytes(name, FieldKind::kHex, p, t.size)); break;
                case Op::kStr: item.fields.push_back(Bytes(name, FieldKind::kString, p, t.size)); break;
                case Op::kAddr:
                case Op::kAddrZ: {
                    const uint64_t family = ReadBe(p, 2);
                    item.fields.push_back(NumberField(name + ".family", family));
                    if (t.op == Op::kAddr) {
                        item.fields.push_back(NumberField(name + ".reserved", ReadBe(p + 2, 2)));
                    } else if (p[2] != 0 || p[3] != 0) {
                        return Fault(Errc::kBadValue, valueAt + pos + 2,
                                     fmt::format("reserved bytes not 0 in item {} at offset {}",
                                                 item.type, valueAt + pos + 2));
                    }
                    // An IPv4 address travels in the first four bytes; the
                    // rest are shown only when they are not zero.
                    bool tailZero = true;
                    for (size_t k = 8; k < 20; ++k) tailZero = tailZero && p[k] == 0;
                    const size_t n = family == 2 && tailZero ? 4 : 16;
                    item.fields.push_back(Bytes(name + ".addr", FieldKind::kIp, p + 4, n));
                    break;
                }
                case Op::kFill: {
                    for (size_t k = pos; k < v.size(); ++k) {
                        if (v[k] != 0xFF) {
                            return Fault(Errc::kBadValue, valueAt + k,
                                         fmt::format("fill byte {:02x} not ff in item {} at offset {}",
                                                     v[k], item.type, valueAt + k));
                        }
                    }
                    item.fields.push_back(NumberField(name, (v.size() - pos) / 4));
                    pos = v.size();
                    continue;
                }
                case Op::kBegin: {
                    size_t end = i + 1;
                    while (toks[end].op != Op::kEnd) ++end;
                    const size_t times = toks[end].size != 0 ? toks[end].size
                                         : unit == 0        ? 0
                                                            : (v.size() - pos) / unit;
                    for (size_t k = 0; k < times; ++k) {
                        const std::string inner = fmt::format("{}{}.{}", prefix, t.name, k);
                        // A record of one unnamed field is named label.i.
                        const bool single = end == i + 2 && toks[i + 1].name.empty();
                        if (Error e = self(i + 1, end, single ? inner : inner + ".", self)) return e;
                    }
                    i = end;
                    continue;
                }
                case Op::kEnd: break;
            }
            pos += t.size;
        }
        return {};
    };
    return run(0, toks.size(), std::string{}, run);
}

}  // namespace l2vfib::decode::detail
