// What the record encoders share: an item value staged in a zeroed area
// (big-endian fields, copied bytes, address blocks, an all-ones tail), and
// a writer that puts items one behind the other within the room given.
//
//   out                                                     out + room
//   +-------------+-------------+----------------+- - - - - -+
//   | t, n | value| t, n | value| t, n | in place|           |
//   +-------------+-------------+----------------+- - - - - -+
//                                 ^ InPlace(n): the value is converted
//                                   straight into the output, then its
//                                   item header is put in front of it
#ifndef L2VFIB_ENC_ITEMS_H
#define L2VFIB_ENC_ITEMS_H

#include <cstdint>
#include <cstring>

#include "enc/ac_info.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/wire.h"

namespace l2vfib {

// The most all-ones words behind a fixed part of fixed bytes that still
// fit a staging area.
constexpr uint32_t MaxFill(uint32_t fixed) { return (kValueArea - fixed) / 4; }

// How an address block goes on the wire: reserved bytes copied or sent as
// 0, and an IPv4 address (family 2) whole or cut to its first four bytes.
enum class AddrRule : uint8_t { kAsIs, kNoReserved, kNoReservedIpv4Cut };

constexpr uint16_t kFamilyIpv4 = 2;
constexpr uint32_t kAddrSize = 20;

// One item value of length bytes; every byte no field fills goes as 0.
struct Value {
    explicit Value(uint32_t n) : length(n) {}
    Value &Byte(uint32_t at, uint8_t v) { bytes[at] = v; return *this; }
    Value &Be16(uint32_t at, uint16_t v) { PutBe16(bytes + at, v); return *this; }
    Value &Be32(uint32_t at, uint32_t v) { PutBe32(bytes + at, v); return *this; }
    Value &Copy(uint32_t at, const void *from, uint32_t n) {
        std::memcpy(bytes + at, from, n);
        return *this;
    }
    // The all-ones tail: 4 x words bytes of 0xFF from at.
    Value &Ones(uint32_t at, uint32_t words) {
        std::memset(bytes + at, 0xFF, 4 * words);
        return *this;
    }
    // The entry key's 8-byte value: id, subId, two zero bytes.
    Value &Key(uint32_t at, const L2VFIB_EntryKey &key) {
        return Be32(at, key.id).Be16(at + 4, key.subId);
    }
    Value &Addr(uint32_t at, const L2VFIB_IpAddr &ip, AddrRule rule) {
        Be16(at, ip.family);
        if (rule == AddrRule::kAsIs) Copy(at + 2, ip.reserved, 2);
        const bool cut = rule == AddrRule::kNoReservedIpv4Cut && ip.family == kFamilyIpv4;
        return Copy(at + 4, ip.addr, cut ? 4 : sizeof ip.addr);
    }

    uint32_t length;
    uint8_t bytes[kValueArea] = {};
};

// Writes items from out within room bytes, each with the room that is left.
// An item that does not fit refuses the whole payload: nothing more is
// written and Length() is 0.
class Items {
  public:
    Items(uint8_t *out, uint16_t room) : out_(out), pos_(out), end_(out + room) {}

    Items &Put(uint32_t type, const uint8_t *value, uint32_t length) {
        const uint32_t n = refused_ ? 0 : STLV_Set(pos_, Left(), type, length, value);
        refused_ = n == 0;
        pos_ += n;
        return *this;
    }
    Items &Put(uint32_t type, const Value &v) { return Put(type, v.bytes, v.length); }
    Items &Word(uint32_t type, uint32_t v) {
        uint8_t value[4];
        PutBe32(value, v);
        return Put(type, value, sizeof value);
    }
    Items &Key(uint32_t type, const L2VFIB_EntryKey &key) {
        return Put(type, Value(8).Key(0, key));
    }

    // Where a value of length bytes goes when it is written in place, to be
    // closed by Put(type, nullptr, length); null (and the payload refused)
    // when the item does not fit.
    uint8_t *InPlace(uint32_t length) {
        if (!refused_ && Left() >= 4 && Left() - 4 >= length) return pos_ + 4;
        refused_ = true;
        return nullptr;
    }

    // The payload length, or 0 when an item was refused.
    uint16_t Length() const { return refused_ ? 0 : static_cast<uint16_t>(pos_ - out_); }

  private:
    uint32_t Left() const { return static_cast<uint32_t>(end_ - pos_); }

    uint8_t *out_;
    uint8_t *pos_;
    uint8_t *end_;
    bool refused_ = false;
};

// True when none of the records is null.
template <typename... Records>
bool AllGiven(const Records *...records) {
    return ((records != nullptr) && ...);
}

}  // namespace l2vfib

#endif
