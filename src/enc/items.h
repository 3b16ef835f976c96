// What the record encoders share: a writer that puts items one behind the
// other within the room given, and the fields of an item value (big-endian
// numbers, copied bytes, address blocks, an all-ones tail).
//
//   out                                                     out + room
//   +-------------+-------------+----------------+- - - - - -+
//   | t, n | value| t, n | value| t, n | value  |           |
//   +-------------+-------------+----------------+- - - - - -+
//     ^ STLV_Set writes the item header alone (no value given); once it
//       has, the value's bytes are zeroed and its fields written behind
//       it, straight into the output. An item that does not fit writes
//       nothing.
#ifndef L2VFIB_ENC_ITEMS_H
#define L2VFIB_ENC_ITEMS_H

#include <cstdint>
#include <cstring>

#include "enc/ac_info.h"
#include "l2vfib.h"
#include "l2vfib_platform.h"
#include "msg/head.h"
#include "msg/wire.h"

namespace l2vfib {

// The most all-ones words behind a fixed part of fixed bytes that still
// fit a value's bound of kValueArea bytes.
constexpr uint32_t MaxFill(uint32_t fixed) { return (kValueArea - fixed) / 4; }

// How an address block goes on the wire: reserved bytes copied or sent as
// 0, and an IPv4 address (family 2) whole or cut to its first four bytes.
enum class AddrRule : uint8_t { kAsIs, kNoReserved, kNoReservedIpv4Cut };

constexpr uint16_t kFamilyIpv4 = 2;
constexpr uint32_t kAddrSize = 20;

// The fields of one item value, written where the value lies. The value's
// bytes are zeroed first, so every byte no field fills goes as 0.
class Value {
  public:
    Value(uint8_t *at, uint32_t n) : bytes_(at) { std::memset(at, 0, n); }
    Value &Byte(uint32_t at, uint8_t v) { bytes_[at] = v; return *this; }
    Value &Be16(uint32_t at, uint16_t v) { PutBe16(bytes_ + at, v); return *this; }
    Value &Be32(uint32_t at, uint32_t v) { PutBe32(bytes_ + at, v); return *this; }
    Value &Copy(uint32_t at, const void *from, uint32_t n) {
        std::memcpy(bytes_ + at, from, n);
        return *this;
    }
    // The all-ones tail: 4 x words bytes of 0xFF from at.
    Value &Ones(uint32_t at, uint32_t words) {
        std::memset(bytes_ + at, 0xFF, 4 * words);
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
    uint8_t *Bytes() const { return bytes_; }

  private:
    uint8_t *bytes_;
};

// Writes items from out within room bytes, each with the room that is left.
// An item that does not fit refuses the whole payload: nothing more is
// written and Length() is 0.
class Items {
  public:
    Items(uint8_t *out, uint16_t room) : out_(out), pos_(out), end_(out + room) {}

    // Opens an item of length bytes (at most kValueArea) and returns the
    // writer of its value. When it does not fit, the payload is refused and
    // the writer points into a scratch area, so the fields need no test.
    Value Open(uint32_t type, uint32_t length) {
        uint8_t *at = InPlace(type, length);
        return Value(at != nullptr ? at : scratch_, at != nullptr ? length : 0);
    }
    Items &Put(uint32_t type, const uint8_t *value, uint32_t length) {
        uint8_t *at = InPlace(type, length);
        if (at != nullptr && length != 0) std::memcpy(at, value, length);
        return *this;
    }
    Items &Word(uint32_t type, uint32_t v) {
        Open(type, 4).Be32(0, v);
        return *this;
    }
    Items &Key(uint32_t type, const L2VFIB_EntryKey &key) {
        Open(type, 8).Key(0, key);
        return *this;
    }

    // Writes the header of an item of length bytes and returns where its
    // value goes, for the caller to fill every byte of; null (and the
    // payload refused) when the item does not fit.
    uint8_t *InPlace(uint32_t type, uint32_t length) {
        uint8_t *at = refused_ ? nullptr : OpenItem(pos_, Left(), type, length);
        if (at == nullptr) {
            refused_ = true;
            return nullptr;
        }
        pos_ = at + length;
        return at;
    }

    // The payload length, or 0 when an item was refused.
    uint16_t Length() const { return refused_ ? 0 : static_cast<uint16_t>(pos_ - out_); }

  private:
    uint32_t Left() const { return static_cast<uint32_t>(end_ - pos_); }

    uint8_t *out_;
    uint8_t *pos_;
    uint8_t *end_;
    bool refused_ = false;
    uint8_t scratch_[kValueArea];
};

// True when none of the records is null.
template <typename... Records>
bool AllGiven(const Records *...records) {
    return ((records != nullptr) && ...);
}

}  // namespace l2vfib

#endif
